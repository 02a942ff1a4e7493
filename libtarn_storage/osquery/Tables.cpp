#include "osquery/Tables.h"

#include "Keel/Log.h"
#include "osquery/Generated.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNoTable = 60,             // a = type id
  kUnsupportedVersion = 61,  // a = type id, b = version, c = accepted version
};

}  // namespace

const TableInfo* FindTable(uint32_t type_id) {
  int index = TableIndex(type_id);
  return index < 0 ? nullptr : &kTables[index];
}

std::span<const TableInfo> AllTables() { return {kTables, kTableCount}; }

bool IsSupportedVersion(uint32_t type_id, uint16_t version) {
  const TableInfo* table = FindTable(type_id);
  if (table == nullptr) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNoTable, type_id, version, 0);
    return false;
  }
  if (version != table->version) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kUnsupportedVersion, type_id, version,
             table->version);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage::OSQuery
