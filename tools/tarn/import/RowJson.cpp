#include "tarn/import/RowJson.h"

#include <charconv>
#include <limits>

#include <google/protobuf/descriptor.h>
#include <nlohmann/json.hpp>

#include "generated/RowPrototype.h"
#include "osquery/RecordColumns.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

using google::protobuf::Descriptor;
using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using google::protobuf::Reflection;
using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;
using Json = nlohmann::json;

// A value quoted in an error message, cut so a huge one does not flood it.
std::string Shown(const Json& value) {
  std::string text = value.dump(-1, ' ', false, Json::error_handler_t::replace);
  if (text.size() > 60) text = text.substr(0, 57) + "...";
  return text;
}

bool ReadDigits(std::string_view text, uint64_t& out) {
  if (text.empty()) return false;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out, 10);
  return ec == std::errc() && end == text.data() + text.size();
}

// A JSON number, or a text of decimal digits (as other JSON writers give
// 64-bit numbers), no larger than `max`.
bool ReadUnsigned(const Json& value, uint64_t max, uint64_t& out) {
  if (value.is_number_unsigned()) {
    out = value.get<uint64_t>();
  } else if (value.is_number_integer()) {
    int64_t signed_value = value.get<int64_t>();
    if (signed_value < 0) return false;
    out = static_cast<uint64_t>(signed_value);
  } else if (value.is_string()) {
    if (!ReadDigits(value.get_ref<const std::string&>(), out)) return false;
  } else {
    return false;
  }
  return out <= max;
}

bool IsNumberList(std::string_view text) {
  while (!text.empty()) {
    size_t comma = text.find(',');
    uint64_t ignored;
    if (!ReadDigits(text.substr(0, comma), ignored)) return false;
    if (comma == std::string_view::npos) return true;
    text.remove_prefix(comma + 1);
    if (text.empty()) return false;  // a trailing comma
  }
  return true;
}

const ColumnInfo* ColumnOf(const TableInfo& table, const FieldDescriptor& field) {
  uint32_t index = static_cast<uint32_t>(field.number()) - 1;
  if (index >= table.column_count || table.columns[index].field != field.number()) return nullptr;
  return &table.columns[index];
}

bool SetText(const Json& value, const ColumnInfo& column, const FieldDescriptor& field,
             Message& row, std::string& error) {
  const std::string where = "column '" + field.name() + "'";
  if (!value.is_string()) {
    error = where + " takes a text; got " + Shown(value);
    return false;
  }
  const std::string& text = value.get_ref<const std::string&>();
  if (text.find('\0') != std::string::npos) {
    error = where + " holds a NUL character, which a stored text cannot";
    return false;
  }
  bool present = false;
  Events::Address address;
  if (column.kind == ColumnKind::kAddress &&
      !Storage::OSQuery::ReadAddressText(text, present, address)) {
    error = where + " takes an IPv4 or IPv6 address (or \"\" or \"-\"); got " + Shown(value);
    return false;
  }
  if (column.kind == ColumnKind::kNumberList && !IsNumberList(text)) {
    error = where + " takes whole numbers joined by \",\" (\"1,2,3\"); got " + Shown(value);
    return false;
  }
  row.GetReflection()->SetString(&row, &field, text);
  return true;
}

bool SetNumber(const Json& value, const FieldDescriptor& field, Message& row, std::string& error) {
  const Reflection& reflection = *row.GetReflection();
  const bool wide = field.cpp_type() == FieldDescriptor::CPPTYPE_UINT64;
  const uint64_t max =
      wide ? std::numeric_limits<uint64_t>::max() : std::numeric_limits<uint32_t>::max();
  uint64_t number = 0;
  // Digits in a text are a number in every column; date_time also takes a
  // time.
  const bool time_text = field.name() == "date_time" && value.is_string() &&
                         !ReadDigits(value.get_ref<const std::string&>(), number);
  if (time_text) {
    int64_t ms = 0;
    if (!ParseTime(value.get_ref<const std::string&>(), false, ms) || ms < 0) {
      error = "date_time takes milliseconds since 1970 or an ISO 8601 time; got " + Shown(value);
      return false;
    }
    number = static_cast<uint64_t>(ms);
  } else if (!ReadUnsigned(value, max, number)) {
    error = "column '" + field.name() + "' takes a whole number from 0 to " + std::to_string(max) +
            "; got " + Shown(value);
    return false;
  }
  if (wide) {
    reflection.SetUInt64(&row, &field, number);
  } else {
    reflection.SetUInt32(&row, &field, static_cast<uint32_t>(number));
  }
  return true;
}

}  // namespace

const TableInfo* RowJson::TableOf(const Message& row) {
  return Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(row.GetDescriptor()->name()));
}

Message* RowJson::Blank(std::string_view table) {
  if (auto it = rows_.find(table); it != rows_.end()) {
    it->second->Clear();
    return it->second.get();
  }
  const Message* prototype =
      Storage::OSQuery::RowPrototype(Storage::OSQuery::TableIdByName(table));
  if (prototype == nullptr) return nullptr;
  Message* row = prototype->New();
  rows_.emplace(std::string(table), std::unique_ptr<Message>(row));
  return row;
}

bool RowJson::Parse(std::string_view line, Message*& row, std::string& error) {
  row = nullptr;
  Json object;
  try {
    object = Json::parse(line);
  } catch (const Json::parse_error& e) {
    // nlohmann's text begins with its own class name; keep the useful part.
    std::string what = e.what();
    size_t colon = what.find("parse error");
    error = "not valid JSON: " + (colon == std::string::npos ? what : what.substr(colon));
    return false;
  }
  if (!object.is_object()) {
    error = "not a JSON object";
    return false;
  }
  auto table_it = object.find("table");
  if (table_it == object.end() || !table_it->is_string()) {
    error = "no \"table\" naming the event's table";
    return false;
  }
  const std::string& table_name = table_it->get_ref<const std::string&>();
  Message* blank = Blank(table_name);
  if (blank == nullptr) {
    error = "unknown table \"" + table_name + "\"";
    return false;
  }
  const TableInfo* table = TableOf(*blank);
  const Descriptor* descriptor = blank->GetDescriptor();
  bool has_time = false;
  for (auto it = object.begin(); it != object.end(); ++it) {
    if (it.key() == "table") continue;
    const FieldDescriptor* field = descriptor->FindFieldByName(it.key());
    const ColumnInfo* column = field != nullptr ? ColumnOf(*table, *field) : nullptr;
    if (column == nullptr) {
      error = "table " + table_name + " has no column '" + it.key() + "'";
      return false;
    }
    bool ok = field->cpp_type() == FieldDescriptor::CPPTYPE_STRING
                  ? SetText(it.value(), *column, *field, *blank, error)
                  : SetNumber(it.value(), *field, *blank, error);
    if (!ok) return false;
    has_time |= column->kind == ColumnKind::kDateTime;
  }
  if (!has_time) {
    error = "no \"date_time\": every event needs its time";
    return false;
  }
  row = blank;
  return true;
}

std::string RowJson::Write(const Message& row) {
  const Descriptor* descriptor = row.GetDescriptor();
  const Reflection* reflection = row.GetReflection();
  nlohmann::ordered_json out;
  out["table"] = descriptor->name();
  for (int i = 0; i < descriptor->field_count(); ++i) {
    const FieldDescriptor* field = descriptor->field(i);
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT32:
        out[field->name()] = reflection->GetUInt32(row, field);
        break;
      case FieldDescriptor::CPPTYPE_UINT64:
        out[field->name()] = reflection->GetUInt64(row, field);
        break;
      case FieldDescriptor::CPPTYPE_STRING:
        out[field->name()] = reflection->GetString(row, field);
        break;
      default: break;  // the schema has no other kinds
    }
  }
  return out.dump(-1, ' ', false, nlohmann::ordered_json::error_handler_t::replace);
}

}  // namespace Tarn::Tool
