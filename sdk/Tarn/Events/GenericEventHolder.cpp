#include "Tarn/Events/GenericEventHolder.h"

#include "Keel/Log.h"
#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Events {
namespace {

enum Message : uint32_t {
  kNotARecord = 20,
  kOutOfMemory = 21,
};

}  // namespace

bool GenericEventHolder::Store(const void* record, size_t size) {
  bytes_.Reset();
  if (!EventHeader(record, size).Valid()) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::Events, kNotARecord, size, 0, 0);
    return false;
  }
  if (!bytes_.IsCreated() && !bytes_.Create(size, Record::kMaxRecordSize)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::Events, kOutOfMemory, size, 0, 0);
    return false;
  }
  if (!bytes_.Push(record, size)) {
    bytes_.Reset();
    KEEL_LOG(Keel::Log::Error, Keel::Log::Events, kOutOfMemory, size, 0, 0);
    return false;
  }
  return true;
}

}  // namespace Tarn::Events
