#include "osquery/RecordBuilder.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include "Keel/Log.h"
#include "osquery/Generated.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotATable = 70,     // a = message name hash
  kBuildFailed = 71,   // a = type id
};

}  // namespace

bool BuildRecord(const google::protobuf::Message& row, Events::DynamicEventBuilder& out,
                 uint16_t version) {
  const std::string& name = row.GetDescriptor()->name();
  int index = TableIndex(TableIdByName(name));
  if (index < 0) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kNotATable, NameHash(name), 0, 0);
    return false;
  }
  const TableInfo& table = kTables[index];
  if (!kBuilders[index](row, version != 0 ? version : table.version, out)) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, kBuildFailed, table.type_id, 0, 0);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage::OSQuery
