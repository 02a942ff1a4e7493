#pragma once

// Rows of a table made and read by column name, through reflection on the
// table's generated prototype, so that tests and benchmarks need neither
// the generated classes nor their header.

#include <google/protobuf/message.h>

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "generated/RowPrototype.h"
#include "osquery/Tables.h"

namespace tarn::test {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

// An empty row of `table`; null when no table has that name.
inline std::unique_ptr<Message> MakeRow(std::string_view table) {
  namespace OSQuery = Tarn::Storage::OSQuery;
  const Message* prototype = OSQuery::RowPrototype(OSQuery::TableIdByName(table));
  return std::unique_ptr<Message>(prototype != nullptr ? prototype->New() : nullptr);
}

inline const FieldDescriptor* ColumnField(const Message& row, std::string_view column) {
  return row.GetDescriptor()->FindFieldByName(std::string(column));
}

// A uint32 column keeps the low 32 bits of `value`.
inline void SetColumn(Message& row, std::string_view column, uint64_t value) {
  const FieldDescriptor* field = ColumnField(row, column);
  if (field->cpp_type() == FieldDescriptor::CPPTYPE_UINT32) {
    row.GetReflection()->SetUInt32(&row, field, static_cast<uint32_t>(value));
  } else {
    row.GetReflection()->SetUInt64(&row, field, value);
  }
}

inline void SetColumn(Message& row, std::string_view column, std::string value) {
  row.GetReflection()->SetString(&row, ColumnField(row, column), std::move(value));
}

inline uint64_t NumberColumn(const Message& row, std::string_view column) {
  const FieldDescriptor* field = ColumnField(row, column);
  return field->cpp_type() == FieldDescriptor::CPPTYPE_UINT32
             ? row.GetReflection()->GetUInt32(row, field)
             : row.GetReflection()->GetUInt64(row, field);
}

inline std::string TextColumn(const Message& row, std::string_view column) {
  return row.GetReflection()->GetString(row, ColumnField(row, column));
}

}  // namespace tarn::test
