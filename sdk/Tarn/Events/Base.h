#pragma once

#include <cstddef>
#include <cstdint>

#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Events::Objects {

// The event object the host hands to modules: a view of one serialized
// record (header, fixed part, variable part). It does not own the bytes.
class Base {
 public:
  // Type id of a view too short to hold a type word; no real type has it.
  static constexpr uint32_t kNoType = 0xFFFFFFFFu;

  Base() = default;
  Base(const void* record, size_t size) : data_(static_cast<const uint8_t*>(record)), size_(size) {}

  const uint8_t* Data() const { return data_; }
  size_t Size() const { return size_; }

  // Read straight from the first two header words, so that routing works on
  // objects whose remaining header is not a stored record's.
  uint32_t TypeId() const {
    if (data_ == nullptr || size_ < 4) return kNoType;
    return Record::LoadUInt32(data_ + Record::kTypeOffset) & Record::kTypeIdMask;
  }
  bool DoNotStore() const {
    if (data_ == nullptr || size_ < 8) return false;
    return (Record::LoadUInt32(data_ + Record::kFlagsOffset) & Record::kDoNotStoreFlag) != 0;
  }

  EventHeader Header() const { return EventHeader(data_, size_); }

 private:
  const uint8_t* data_ = nullptr;
  size_t size_ = 0;
};

}  // namespace Tarn::Events::Objects
