#pragma once

// What the generated per-table code defines, for the hand-written dispatch
// around it. Everything here is indexed by a table's position in kTables.

#include <cstdint>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Events/EventReader.h"
#include "osquery/Columns.h"
#include "osquery/ConstraintsList.h"
#include "osquery/NameHash.h"
#include "osquery/Tables.h"

namespace google::protobuf {
class Arena;
class Message;
}  // namespace google::protobuf

namespace Tarn::Storage::OSQuery {

using MatchFn = bool (*)(const Events::EventReader& record, const ConstraintsList& constraints);
using ConvertFn = google::protobuf::Message* (*)(google::protobuf::Arena* arena,
                                                 const Events::EventReader& record,
                                                 const ColumnSelection& selection);
using BuildFn = bool (*)(const google::protobuf::Message& row, uint16_t version,
                         Events::DynamicEventBuilder& builder);

extern const TableInfo kTables[];
extern const uint32_t kTableCount;
// By type id - kMinTableTypeId: 0 for no table, else the table's index + 1.
extern const uint8_t kTableSlotById[kMaxTableTypeId - kMinTableTypeId + 1];

extern const MatchFn kMatchers[];
extern const ConvertFn kConverters[];
extern const BuildFn kBuilders[];

// The index of a type id's table in kTables, or -1.
inline int TableIndex(uint32_t type_id) {
  if (type_id < kMinTableTypeId || type_id > kMaxTableTypeId) return -1;
  return static_cast<int>(kTableSlotById[type_id - kMinTableTypeId]) - 1;
}

}  // namespace Tarn::Storage::OSQuery
