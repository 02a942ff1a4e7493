#include "Keel/Collections/Buffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

#include "Keel/Log.h"

namespace Keel::Collections {
namespace {

enum Message : uint32_t {
  kCreateBeyondMaximum = 1,
  kOutOfMemory = 2,
  kGrowBeyondMaximum = 3,
};

void StoreLittleEndian(uint8_t* out, uint64_t value, int bytes) {
  for (int i = 0; i < bytes; ++i) out[i] = static_cast<uint8_t>(value >> (8 * i));
}

}  // namespace

Buffer::~Buffer() { Free(); }

Buffer::Buffer(Buffer&& other) noexcept { *this = std::move(other); }

Buffer& Buffer::operator=(Buffer&& other) noexcept {
  if (this == &other) return *this;
  Free();
  data_ = std::exchange(other.data_, nullptr);
  size_ = std::exchange(other.size_, 0);
  capacity_ = std::exchange(other.capacity_, 0);
  maximum_ = other.maximum_;
  grow_ = other.grow_;
  step_ = other.step_;
  created_ = std::exchange(other.created_, false);
  return *this;
}

bool Buffer::Create(uint64_t initial, uint64_t maximum, GrowType::Type grow, uint32_t step) {
  if (maximum > kMaxCapacity) maximum = kMaxCapacity;
  if (initial > maximum) {
    KEEL_LOG(Log::Error, Log::Collections, kCreateBeyondMaximum, initial, maximum, 0);
    return false;
  }
  Free();
  maximum_ = maximum;
  grow_ = grow;
  step_ = step;
  if (initial > 0 && !Reallocate(initial)) return false;
  created_ = true;
  return true;
}

void Buffer::Free() {
  std::free(data_);
  data_ = nullptr;
  size_ = 0;
  capacity_ = 0;
  created_ = false;
}

bool Buffer::Reallocate(uint64_t capacity) {
  void* grown = std::realloc(data_, capacity == 0 ? 1 : capacity);
  if (grown == nullptr) {
    KEEL_LOG(Log::Error, Log::Collections, kOutOfMemory, capacity, capacity_, 0);
    return false;
  }
  data_ = static_cast<uint8_t*>(grown);
  capacity_ = capacity;
  return true;
}

bool Buffer::GrowFor(uint64_t needed) {
  if (needed <= capacity_) return true;
  uint64_t target = Internal::CalculateCollectionGrowth(capacity_, needed, maximum_, grow_, step_);
  if (target == 0) {
    KEEL_LOG(Log::Error, Log::Collections, kGrowBeyondMaximum, needed, maximum_, 0);
    return false;
  }
  if (!Reallocate(target)) return false;
  created_ = true;
  return true;
}

bool Buffer::Reserve(uint64_t capacity) { return GrowFor(capacity); }

bool Buffer::Resize(uint64_t size) {
  if (!GrowFor(size)) return false;
  size_ = size;
  return true;
}

bool Buffer::Assign(const Buffer& other) {
  if (this == &other) return true;
  if (!GrowFor(other.size_)) return false;
  if (other.size_ > 0) std::memcpy(data_, other.data_, other.size_);
  size_ = other.size_;
  return true;
}

uint8_t* Buffer::Extend(uint64_t length) {
  if (length > maximum_ - size_) {
    KEEL_LOG(Log::Error, Log::Collections, kGrowBeyondMaximum, size_ + length, maximum_, 0);
    return nullptr;
  }
  if (!GrowFor(size_ + length)) return nullptr;
  uint8_t* tail = data_ + size_;
  size_ += length;
  return tail;
}

bool Buffer::Push(const void* data, uint64_t length) {
  if (length == 0) return true;
  uint8_t* tail = Extend(length);
  if (tail == nullptr) return false;
  std::memcpy(tail, data, length);
  return true;
}

bool Buffer::PushFill(uint8_t fill, uint64_t length) {
  if (length == 0) return true;
  uint8_t* tail = Extend(length);
  if (tail == nullptr) return false;
  std::memset(tail, fill, length);
  return true;
}

bool Buffer::PushUInt16(uint16_t value) {
  uint8_t bytes[2];
  StoreLittleEndian(bytes, value, 2);
  return Push(bytes, 2);
}

bool Buffer::PushUInt32(uint32_t value) {
  uint8_t bytes[4];
  StoreLittleEndian(bytes, value, 4);
  return Push(bytes, 4);
}

bool Buffer::PushUInt64(uint64_t value) {
  uint8_t bytes[8];
  StoreLittleEndian(bytes, value, 8);
  return Push(bytes, 8);
}

}  // namespace Keel::Collections
