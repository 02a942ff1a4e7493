#pragma once

#include <cstddef>
#include <cstdint>

#include "Keel/Export.h"

namespace Keel::Collections {

class Buffer;

// A read cursor over bytes it does not own. Every read is bounded: a read
// past the end fails, leaves the cursor where it was and writes nothing.
class KEEL_API StreamBuffer {
 public:
  StreamBuffer() = default;
  StreamBuffer(const void* data, uint64_t size)
      : data_(static_cast<const uint8_t*>(data)), size_(size) {}
  explicit StreamBuffer(const Buffer& buffer);

  bool Read(void* out, uint64_t length);
  bool ReadUInt8(uint8_t& value);
  bool ReadUInt16(uint16_t& value);
  bool ReadUInt32(uint32_t& value);
  bool ReadUInt64(uint64_t& value);
  bool Skip(uint64_t length);
  bool Seek(uint64_t position);

  // Points at the next `length` bytes without copying them, or null.
  const uint8_t* Peek(uint64_t length) const;

  uint64_t Position() const { return position_; }
  uint64_t Size() const { return size_; }
  uint64_t Remaining() const { return size_ - position_; }
  const uint8_t* Data() const { return data_; }

 private:
  bool ReadLittleEndian(uint64_t& value, int bytes);

  const uint8_t* data_ = nullptr;
  uint64_t size_ = 0;
  uint64_t position_ = 0;
};

}  // namespace Keel::Collections
