#include "common/BenchRows.h"

#include <cstring>

#include "generated/RowPrototype.h"
#include "osquery/ResponseBuffer.h"
#include "osquery/Tables.h"

namespace Tarn::Bench {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;

namespace {

const FieldDescriptor* ColumnField(const Message& row, std::string_view column) {
  return row.GetDescriptor()->FindFieldByName(std::string(column));
}

uint32_t LoadUInt32(const char* p) {
  uint8_t b[4];
  std::memcpy(b, p, 4);
  return uint32_t{b[0]} | uint32_t{b[1]} << 8 | uint32_t{b[2]} << 16 | uint32_t{b[3]} << 24;
}

}  // namespace

std::unique_ptr<Message> MakeRow(std::string_view table) {
  namespace OSQuery = Storage::OSQuery;
  const Message* prototype = OSQuery::RowPrototype(OSQuery::TableIdByName(table));
  return std::unique_ptr<Message>(prototype != nullptr ? prototype->New() : nullptr);
}

void SetColumn(Message& row, std::string_view column, uint64_t value) {
  const FieldDescriptor* field = ColumnField(row, column);
  if (field->cpp_type() == FieldDescriptor::CPPTYPE_UINT32) {
    row.GetReflection()->SetUInt32(&row, field, static_cast<uint32_t>(value));
  } else {
    row.GetReflection()->SetUInt64(&row, field, value);
  }
}

void SetColumn(Message& row, std::string_view column, std::string value) {
  row.GetReflection()->SetString(&row, ColumnField(row, column), std::move(value));
}

Answer ParseAnswer(std::string_view bytes) {
  namespace Layout = Storage::OSQuery::ResponseLayout;
  Answer answer;
  if (bytes.size() < Layout::kHeaderSize) return answer;
  answer.status = LoadUInt32(bytes.data() + Layout::kStatusAt);
  answer.row_count = LoadUInt32(bytes.data() + Layout::kRowCountAt);
  size_t at = Layout::kHeaderSize;
  while (at < bytes.size()) {
    if (bytes.size() - at < 4) return answer;
    const uint32_t length = LoadUInt32(bytes.data() + at);
    at += 4;
    if (bytes.size() - at < length) return answer;
    answer.rows.push_back(bytes.substr(at, length));
    at += length;
  }
  answer.well_formed = answer.rows.size() == answer.row_count;
  return answer;
}

}  // namespace Tarn::Bench
