#pragma once

#include <cstddef>
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

  // The request `event` is, or null when it is some other object that only
  // carries type 186 (a stored record, a host's own event). A StorageQuery's
  // view points into the object itself at a fixed distance, which no record
  // held elsewhere does; only addresses are compared, so nothing is read
  // from an object that is not a StorageQuery.
  static StorageQuery* From(Base& event) {
    const auto* self = reinterpret_cast<const uint8_t*>(&event);
    if (event.TypeId() != Record::kStorageQueryType || event.Size() != Record::kHeaderSize ||
        event.Data() != self + HeaderDistance()) {
      return nullptr;
    }
    return static_cast<StorageQuery*>(&event);
  }

  uint8_t kind = 0;
  uint64_t time_ms = 0;
  uint64_t position = ~0ull;  // all ones: none
  uint8_t* destination = nullptr;
  uint32_t capacity = 0;
  uint32_t copied = 0;  // bytes written to `destination`; 0 when nothing was

 private:
  static std::ptrdiff_t HeaderDistance() {
    static const std::ptrdiff_t distance = [] {
      const StorageQuery probe;
      return probe.Data() - reinterpret_cast<const uint8_t*>(static_cast<const Base*>(&probe));
    }();
    return distance;
  }

  uint8_t header_[Record::kHeaderSize] = {};
};

}  // namespace Tarn::Events::Objects
