#include "Keel/Collections/StreamBuffer.h"

#include <cstring>

#include "Keel/Collections/Buffer.h"

namespace Keel::Collections {

StreamBuffer::StreamBuffer(const Buffer& buffer) : data_(buffer.Data()), size_(buffer.Size()) {}

const uint8_t* StreamBuffer::Peek(uint64_t length) const {
  if (length > Remaining()) return nullptr;
  return data_ + position_;
}

bool StreamBuffer::Read(void* out, uint64_t length) {
  const uint8_t* from = Peek(length);
  if (from == nullptr) return false;
  if (length > 0) std::memcpy(out, from, length);
  position_ += length;
  return true;
}

bool StreamBuffer::Skip(uint64_t length) {
  if (length > Remaining()) return false;
  position_ += length;
  return true;
}

bool StreamBuffer::Seek(uint64_t position) {
  if (position > size_) return false;
  position_ = position;
  return true;
}

bool StreamBuffer::ReadLittleEndian(uint64_t& value, int bytes) {
  const uint8_t* from = Peek(bytes);
  if (from == nullptr) return false;
  uint64_t result = 0;
  for (int i = 0; i < bytes; ++i) result |= static_cast<uint64_t>(from[i]) << (8 * i);
  position_ += bytes;
  value = result;
  return true;
}

bool StreamBuffer::ReadUInt8(uint8_t& value) {
  uint64_t v;
  if (!ReadLittleEndian(v, 1)) return false;
  value = static_cast<uint8_t>(v);
  return true;
}

bool StreamBuffer::ReadUInt16(uint16_t& value) {
  uint64_t v;
  if (!ReadLittleEndian(v, 2)) return false;
  value = static_cast<uint16_t>(v);
  return true;
}

bool StreamBuffer::ReadUInt32(uint32_t& value) {
  uint64_t v;
  if (!ReadLittleEndian(v, 4)) return false;
  value = static_cast<uint32_t>(v);
  return true;
}

bool StreamBuffer::ReadUInt64(uint64_t& value) { return ReadLittleEndian(value, 8); }

}  // namespace Keel::Collections
