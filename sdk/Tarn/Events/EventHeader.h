#pragma once

#include <cstddef>
#include <cstdint>

#include "Tarn/Events/Record.h"

namespace Tarn::Events {

// A read view of a record's 24-byte header. The view covers exactly one
// record: it is valid only when it holds a whole header and the size field
// equals the view's length. Every getter of an invalid view returns 0.
class EventHeader {
 public:
  EventHeader() = default;
  EventHeader(const void* data, size_t size)
      : data_(static_cast<const uint8_t*>(data)),
        valid_(data != nullptr && size >= Record::kHeaderSize && size <= Record::kMaxRecordSize &&
               size_t{Record::LoadUInt16(data_ + Record::kSizeOffset)} == size) {}

  bool Valid() const { return valid_; }

  uint32_t TypeWord() const { return valid_ ? Record::LoadUInt32(data_ + Record::kTypeOffset) : 0; }
  uint32_t TypeId() const { return TypeWord() & Record::kTypeIdMask; }
  uint32_t Flags() const { return valid_ ? Record::LoadUInt32(data_ + Record::kFlagsOffset) : 0; }
  bool DoNotStore() const { return (Flags() & Record::kDoNotStoreFlag) != 0; }
  uint16_t Version() const {
    return valid_ ? Record::LoadUInt16(data_ + Record::kVersionOffset) : 0;
  }
  uint16_t Size() const { return valid_ ? Record::LoadUInt16(data_ + Record::kSizeOffset) : 0; }
  uint64_t TimeStampMs() const {
    return valid_ ? Record::LoadUInt64(data_ + Record::kTimeStampOffset) : 0;
  }

 private:
  const uint8_t* data_ = nullptr;
  bool valid_ = false;
};

}  // namespace Tarn::Events
