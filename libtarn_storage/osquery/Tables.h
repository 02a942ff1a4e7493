#pragma once

#include <cstdint>
#include <span>
#include <string_view>

namespace Tarn::Storage::OSQuery {

// How a column is stored in an event record (see the record layout in
// schema/generate_tables.py) and so how it is matched and converted.
enum class ColumnKind : uint8_t {
  kDateTime,    // the header's time stamp, milliseconds
  kUInt32,      // 4-byte slot
  kUInt64,      // 8-byte slot
  kText,        // u16 offset of NUL-terminated UTF-8
  kAddress,     // u16 offset of a flag byte and 4 or 16 address bytes
  kTextList,    // u16 count, u16 offset of u16 text offsets
  kNumberList,  // u16 count, u16 offset of u64 values
};

struct ColumnInfo {
  const char* name;
  uint32_t hash;  // NameHash(name)
  uint16_t slot;  // byte offset in the record; 16 for date_time
  uint16_t field;  // field number in the table's message
  ColumnKind kind;
};

// One table: the events of one type. All generated from the schema.
struct TableInfo {
  const char* name;        // "edr_process_create"
  const char* event_type;  // "ProcessCreate"
  uint32_t hash;           // NameHash(name)
  uint16_t type_id;
  uint16_t version;        // the one record version the table accepts
  uint16_t fixed_size;     // header and fixed part of its records
  uint16_t column_count;
  const ColumnInfo* columns;  // in field order, date_time first

  std::span<const ColumnInfo> Columns() const { return {columns, column_count}; }
};

// Event type ids that can have a table.
constexpr uint32_t kMinTableTypeId = 2;
constexpr uint32_t kMaxTableTypeId = 407;

// The event type id of a table name (exact bytes), or 0 when there is none.
uint32_t TableIdByName(std::string_view name);
// The event type name of an id ("ProcessCreate"), or null when it has no table.
const char* EventTypeName(uint32_t type_id);
// The table of an id, or null.
const TableInfo* FindTable(uint32_t type_id);
// Every table, in the schema's order.
std::span<const TableInfo> AllTables();

// True when records of `type_id` with this version can be matched and
// converted. Other versions are logged and passed over by a scan; so is an
// id without a table.
bool IsSupportedVersion(uint32_t type_id, uint16_t version);

}  // namespace Tarn::Storage::OSQuery
