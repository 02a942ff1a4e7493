#pragma once

#include <cstdint>

#include "Tarn/Events/Base.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Events::Objects {

// The in-process single-event request (type 186). It travels as an event:
// its Base part views a header of its own that carries the type id and the
// do-not-store flag, so routing by type works on it like on any record. The
// answering module copies the event into `destination` and sets `copied`.
//
// Not copyable: the Base part points into the object itself.
class StorageQuery : public Base {
 public:
  enum Kind : uint8_t {
    kByTime = 1,      // the event at `time_ms` (resolved to the second)
    kByPosition = 2,  // the event at `position`
    kLast = 3,        // the last stored event
  };

  static constexpr uint16_t kVersion = 1;

  StorageQuery() : Base(header_, sizeof header_) {
    Record::StoreUInt32(header_ + Record::kTypeOffset, Record::kStorageQueryType);
    Record::StoreUInt32(header_ + Record::kFlagsOffset, Record::kDoNotStoreFlag);
    Record::StoreUInt16(header_ + Record::kVersionOffset, kVersion);
    Record::StoreUInt16(header_ + Record::kSizeOffset, Record::kHeaderSize);
  }
  StorageQuery(const StorageQuery&) = delete;
  StorageQuery& operator=(const StorageQuery&) = delete;

  uint8_t kind = 0;
  uint64_t time_ms = 0;
  uint64_t position = ~0ull;  // all ones: none
  uint8_t* destination = nullptr;
  uint32_t capacity = 0;
  uint32_t copied = 0;  // bytes written to `destination`; 0 when nothing was

 private:
  uint8_t header_[Record::kHeaderSize] = {};
};

}  // namespace Tarn::Events::Objects
