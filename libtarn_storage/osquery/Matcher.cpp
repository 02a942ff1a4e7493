#include "osquery/Matcher.h"

#include "Keel/Log.h"
#include "osquery/Generated.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kTypeOutOfRange = 35,  // a = type id
  kTypeWithoutTable = 36,  // a = type id
};

}  // namespace

bool MatchEvent(const Events::Objects::Base& event, const ConstraintsList& constraints) {
  uint32_t type_id = event.TypeId();
  if (type_id < kMinTableTypeId || type_id > kMaxTableTypeId) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kTypeOutOfRange, type_id, 0, 0);
    return false;
  }
  int index = TableIndex(type_id);
  if (index < 0) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kTypeWithoutTable, type_id, 0, 0);
    return false;
  }
  return kMatchers[index](Events::EventReader(event), constraints);
}

}  // namespace Tarn::Storage::OSQuery
