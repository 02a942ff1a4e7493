#pragma once

#include <cstddef>
#include <cstdint>

#include "Keel/Collections/Growth.h"
#include "Keel/Export.h"

namespace Keel::Collections {

// A growable byte buffer with an initial and a maximum capacity. Growth past
// the maximum fails (false and a log record) and leaves the buffer unchanged.
// Integers are pushed little-endian.
class KEEL_API Buffer {
 public:
  // Largest capacity a buffer may be given.
  static constexpr uint64_t kMaxCapacity = 0xFFFFFFFFull;

  Buffer() = default;
  ~Buffer();
  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;
  Buffer(Buffer&& other) noexcept;
  Buffer& operator=(Buffer&& other) noexcept;

  // Allocates `initial` bytes and sets the growth policy. Any content is
  // dropped. Fails when `initial` exceeds `maximum` or memory is short.
  bool Create(uint64_t initial, uint64_t maximum = kMaxCapacity,
              GrowType::Type grow = GrowType::Percent, uint32_t step = 100);
  bool IsCreated() const { return created_; }
  void Free();

  // Makes room for at least `capacity` bytes in all (grows by the policy).
  bool Reserve(uint64_t capacity);
  // Sets the size; growing exposes uninitialised bytes to be written.
  bool Resize(uint64_t size);
  void Reset() { size_ = 0; }
  // Copies another buffer's content (not its policy) into this one.
  bool Assign(const Buffer& other);

  bool Push(const void* data, uint64_t length);
  bool PushUInt8(uint8_t value) { return Push(&value, 1); }
  bool PushUInt16(uint16_t value);
  bool PushUInt32(uint32_t value);
  bool PushUInt64(uint64_t value);
  // Appends `length` bytes of value `fill`.
  bool PushFill(uint8_t fill, uint64_t length);

  uint8_t* Data() { return data_; }
  const uint8_t* Data() const { return data_; }
  uint64_t Size() const { return size_; }
  uint64_t Capacity() const { return capacity_; }
  uint64_t Maximum() const { return maximum_; }
  bool Empty() const { return size_ == 0; }

 private:
  bool GrowFor(uint64_t needed);
  // Grows the size by `length` and returns where the new bytes go, or null.
  uint8_t* Extend(uint64_t length);
  bool Reallocate(uint64_t capacity);

  uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
  uint64_t capacity_ = 0;
  uint64_t maximum_ = kMaxCapacity;
  GrowType::Type grow_ = GrowType::Percent;
  uint32_t step_ = 100;
  bool created_ = false;
};

}  // namespace Keel::Collections
