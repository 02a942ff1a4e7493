#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string_view>

#include "Tarn/Events/Address.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Events {

// Bounded reads of one record's slots. Stored records are untrusted: every
// slot, offset and count is checked against the record's length, and
// anything out of range reads as 0 or empty. No read leaves the record.
//
// Slot arguments are byte offsets from the record's start (the fixed part
// begins at Record::kHeaderSize). A slot past the end, as in a record of an
// older version with fewer columns, reads as empty. Readers and the lists
// they hand out are views: they must not outlive the record's bytes.
class EventReader {
 public:
  class TextList;
  class NumberList;

  // The record's length is its size field; a size field below a header or
  // claiming more than `available` bytes makes the whole record read empty.
  EventReader(const void* data, size_t available)
      : data_(static_cast<const uint8_t*>(data)), size_(Record::RecordLength(data, available)) {}
  explicit EventReader(const Objects::Base& event) : EventReader(event.Data(), event.Size()) {}

  bool Valid() const { return size_ != 0; }
  uint32_t Size() const { return size_; }
  const uint8_t* Data() const { return data_; }

  uint8_t UInt8(size_t offset) const { return Fits(size_, offset, 1) ? data_[offset] : 0; }
  uint16_t UInt16(size_t offset) const {
    return Fits(size_, offset, 2) ? Record::LoadUInt16(data_ + offset) : 0;
  }
  uint32_t UInt32(size_t offset) const {
    return Fits(size_, offset, 4) ? Record::LoadUInt32(data_ + offset) : 0;
  }
  uint64_t UInt64(size_t offset) const {
    return Fits(size_, offset, 8) ? Record::LoadUInt64(data_ + offset) : 0;
  }

  // The NUL-terminated text at a u16 offset value. Offsets inside the header
  // (0 among them) and texts without their NUL inside the record are empty.
  std::string_view TextAt(size_t text_offset) const { return TextIn(data_, size_, text_offset); }

  // A text slot: u16 offset of the text.
  std::string_view Text(size_t slot) const { return TextAt(UInt16(slot)); }

  // An address slot: u16 offset of a flag byte (bit 0: IPv6) and the 4 or 16
  // address bytes. False, with `out` untouched, when empty or out of range.
  bool ReadAddress(size_t slot, Address& out) const {
    size_t offset = UInt16(slot);
    if (offset < Record::kHeaderSize || !Fits(size_, offset, 1)) return false;
    bool ipv6 = (data_[offset] & 1) != 0;
    size_t length = ipv6 ? Address::kV6Length : Address::kV4Length;
    if (!Fits(size_, offset + 1, length)) return false;
    out = Address();
    out.ipv6 = ipv6;
    std::memcpy(out.bytes, data_ + offset + 1, length);
    return true;
  }

  // A text list slot: u16 count, u16 offset of `count` u16 text offsets.
  inline TextList Texts(size_t slot) const;
  // A number list slot: u16 count, u16 offset of `count` u64 values.
  inline NumberList Numbers(size_t slot) const;

 private:
  static bool Fits(size_t size, size_t offset, size_t length) {
    return length <= size && offset <= size - length;
  }

  static std::string_view TextIn(const uint8_t* data, uint32_t size, size_t offset) {
    if (offset < Record::kHeaderSize || offset >= size) return {};
    const char* start = reinterpret_cast<const char*>(data + offset);
    const void* nul = std::memchr(start, 0, size - offset);
    if (nul == nullptr) return {};
    return std::string_view(start, static_cast<size_t>(static_cast<const char*>(nul) - start));
  }

  // Where a list's array lies, with its count; a list whose array would not
  // fit, count included, reads as empty (offset and count 0).
  size_t ListArray(size_t slot, size_t item_size, uint32_t& count) const {
    count = UInt16(slot);
    size_t offset = UInt16(slot + 2);
    if (count == 0 || offset < Record::kHeaderSize || !Fits(size_, offset, count * item_size)) {
      count = 0;
      return 0;
    }
    return offset;
  }

  const uint8_t* data_;
  uint32_t size_;
};

class EventReader::TextList {
 public:
  TextList() = default;
  uint32_t Count() const { return count_; }
  bool Empty() const { return count_ == 0; }
  // An item whose own offset is out of range reads as empty text.
  std::string_view At(uint32_t i) const {
    if (i >= count_) return {};
    return TextIn(data_, size_, Record::LoadUInt16(data_ + array_ + 2 * size_t{i}));
  }

 private:
  friend class EventReader;
  TextList(const uint8_t* data, uint32_t size, size_t array, uint32_t count)
      : data_(data), size_(size), array_(array), count_(count) {}

  const uint8_t* data_ = nullptr;
  uint32_t size_ = 0;
  size_t array_ = 0;
  uint32_t count_ = 0;
};

class EventReader::NumberList {
 public:
  NumberList() = default;
  uint32_t Count() const { return count_; }
  bool Empty() const { return count_ == 0; }
  uint64_t At(uint32_t i) const {
    return i < count_ ? Record::LoadUInt64(values_ + 8 * size_t{i}) : 0;
  }

 private:
  friend class EventReader;
  NumberList(const uint8_t* values, uint32_t count) : values_(values), count_(count) {}

  const uint8_t* values_ = nullptr;
  uint32_t count_ = 0;
};

EventReader::TextList EventReader::Texts(size_t slot) const {
  uint32_t count;
  size_t array = ListArray(slot, 2, count);
  return count == 0 ? TextList() : TextList(data_, size_, array, count);
}

EventReader::NumberList EventReader::Numbers(size_t slot) const {
  uint32_t count;
  size_t array = ListArray(slot, 8, count);
  return count == 0 ? NumberList() : NumberList(data_ + array, count);
}

}  // namespace Tarn::Events
