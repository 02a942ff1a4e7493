#include "tarn/import/WindowsEvents.h"

#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <cctype>
#include <limits>
#include <vector>

#include <nlohmann/json.hpp>

#include "generated/RowPrototype.h"
#include "osquery/Tables.h"
#include "tarn/cli/TextForms.h"
#include "tarn/import/WindowsRules.h"
#include "tarn/import/WindowsValues.h"

namespace Tarn::Tool::Windows {
namespace {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;
using Json = nlohmann::json;

// A field's text: strings as they are, numbers and true/false as JSON
// writes them. False when the event lacks the field or it is null.
bool FieldText(const Json& event, std::string_view name, std::string& out) {
  auto it = event.find(std::string(name));
  if (it == event.end() || it->is_null()) return false;
  out = it->is_string() ? it->get_ref<const std::string&>() : it->dump();
  return true;
}

bool TimeOf(const Json& event, int64_t& ms, std::string& error) {
  std::string text;
  for (std::string_view name : kTimeFields) {
    if (!FieldText(event, name, text)) continue;
    uint64_t number = 0;
    if (ReadNumber(text, number) && !text.empty()) {
      ms = static_cast<int64_t>(number);
      return true;
    }
    if (ParseTime(text, false, ms)) return true;
    error = std::string(name) + " \"" + text.substr(0, 40) + "\" is not a time";
    return false;
  }
  error = "no time: none of @timestamp, TimeCreated or UtcTime";
  return false;
}

bool SameLetters(std::string_view a, std::string_view b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

bool Holds(const Condition& when, const Json& event) {
  if (when.field.empty()) return true;
  std::string text;
  if (!FieldText(event, when.field, text)) return false;
  if (when.bits == 0) return SameLetters(text, when.equals);
  uint64_t number = 0;
  return ReadNumber(text, number) && (number & when.bits) == when.bits;
}

// The rules the event takes: the first whose condition holds, and while a
// taken rule says `and_next`, the next of its id whose condition holds.
std::vector<const EventRule*> RulesOf(const Event& event, const Json& object) {
  std::vector<const EventRule*> taken;
  bool looking = true;
  for (const EventRule& rule : Rules()) {
    if (!looking) break;
    if (rule.event_id != event.id || rule.channel != event.channel || !Holds(rule.when, object)) {
      continue;
    }
    taken.push_back(&rule);
    looking = rule.and_next;
  }
  return taken;
}

const ColumnInfo* ColumnNamed(const TableInfo& table, std::string_view name) {
  for (const ColumnInfo& column : table.Columns()) {
    if (column.name == name) return &column;
  }
  return nullptr;
}

bool ReadsUnknownWhenMissing(Convert convert) {
  return convert == Convert::kIntegrity || convert == Convert::kElevation ||
         convert == Convert::kStartType;
}

// NUL bytes as U+2400: a record's text ends at a NUL, and what follows one
// is as much the event's as what goes before.
std::string WithoutNul(const std::string& text) {
  std::string out;
  out.reserve(text.size() + 8);
  for (char c : text) {
    if (c == '\0') {
      out += "\u2400";
    } else {
      out.push_back(c);
    }
  }
  return out;
}

bool SetColumn(Message& row, const FieldDescriptor& field, const FieldRule& rule,
               std::string_view text, const EventFacts& facts, std::string& error) {
  const auto& reflection = *row.GetReflection();
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_STRING) {
    std::string value;
    if (!ToText(rule.convert, text, value, error)) return false;
    reflection.SetString(&row, &field, std::move(value));
    return true;
  }
  uint64_t number = 0;
  if (!ToNumber(rule.convert, text, facts, number, error)) return false;
  if (field.cpp_type() == FieldDescriptor::CPPTYPE_UINT64) {
    reflection.SetUInt64(&row, &field, number);
    return true;
  }
  if (number > std::numeric_limits<uint32_t>::max()) {
    error = std::to_string(number) + " does not fit in column '" + field.name() + "'";
    return false;
  }
  reflection.SetUInt32(&row, &field, static_cast<uint32_t>(number));
  return true;
}

// Fields named by kExtra rules go into extra_keys and extra_values, those
// with nothing in them ("" or "-") left out.
struct Extras {
  std::vector<std::string> keys;
  std::vector<std::string> values;

  void Add(std::string_view key, const std::string& value) {
    if (value.empty() || value == "-") return;
    keys.emplace_back(key);
    values.push_back(value);
  }
  void Set(Message& row) const {
    if (keys.empty()) return;
    const auto* descriptor = row.GetDescriptor();
    row.GetReflection()->SetString(&row, descriptor->FindFieldByName("extra_keys"), JoinList(keys));
    row.GetReflection()->SetString(&row, descriptor->FindFieldByName("extra_values"),
                                   JoinList(values));
  }
};

bool FillRow(const EventRule& rule, const Json& object, Event& event, std::string& error) {
  const Message* prototype =
      Storage::OSQuery::RowPrototype(Storage::OSQuery::TableIdByName(rule.table));
  event.rows.emplace_back(prototype->New());
  Message& row = *event.rows.back();
  const auto* descriptor = row.GetDescriptor();
  row.GetReflection()->SetUInt64(&row, descriptor->FindFieldByName("date_time"),
                                 static_cast<uint64_t>(event.time_ms));
  std::string host;
  if (!FieldText(object, "Hostname", host)) FieldText(object, "Computer", host);
  const EventFacts facts{event.time_ms, event.id, host};
  Extras extras;
  std::string text;
  for (const FieldRule& field : rule.fields) {
    const bool from_event = field.convert != Convert::kConstant &&
                            field.convert != Convert::kEventTime &&
                            field.convert != Convert::kEventId;
    if (!from_event) {
      text = field.field;
    } else if (!FieldText(object, field.field, text)) {
      // The column keeps its 0 or "", but where 0 names a value (Untrusted,
      // a boot-start driver) a missing field is as unknown as an unread one.
      if (!ReadsUnknownWhenMissing(field.convert)) continue;
      text.clear();
    }
    if (text.find('\0') != std::string::npos) {
      event.nul_texts = true;
      text = WithoutNul(text);
    }
    if (field.convert == Convert::kExtra) {
      extras.Add(field.field, text);
      continue;
    }
    if (!SetColumn(row, *descriptor->FindFieldByName(std::string(field.column)), field, text,
                   facts, error)) {
      error = "field " + std::string(field.field) + ": " + error;
      return false;
    }
  }
  extras.Set(row);
  return true;
}

// Whether a column of `kind` takes what `convert` gives.
bool Fits(ColumnKind kind, Convert convert) {
  switch (kind) {
    case ColumnKind::kDateTime: return false;  // always the event's time
    case ColumnKind::kUInt32:
    case ColumnKind::kUInt64: return GivesNumber(convert) || convert == Convert::kConstant;
    case ColumnKind::kAddress: return convert == Convert::kAddress;
    case ColumnKind::kNumberList: return convert == Convert::kArgOffsets;
    case ColumnKind::kTextList:
      return convert == Convert::kTaskCommands || convert == Convert::kTaskPrograms;
    case ColumnKind::kText:
      return !GivesNumber(convert) && !Fits(ColumnKind::kAddress, convert) &&
             !Fits(ColumnKind::kNumberList, convert) && !Fits(ColumnKind::kTextList, convert);
  }
  return false;
}

bool CheckRule(const EventRule& rule, std::string& error) {
  const TableInfo* table =
      Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(rule.table));
  const std::string where =
      std::string(rule.channel) + " " + std::to_string(rule.event_id) + ": ";
  if (table == nullptr) {
    error = where + "no table " + std::string(rule.table);
    return false;
  }
  const bool has_extras = ColumnNamed(*table, "extra_keys") && ColumnNamed(*table, "extra_values");
  for (const FieldRule& field : rule.fields) {
    if (field.convert == Convert::kExtra) {
      if (has_extras) continue;
      error = where + std::string(rule.table) + " has no extra_keys and extra_values";
      return false;
    }
    const ColumnInfo* column = ColumnNamed(*table, field.column);
    if (column == nullptr || !Fits(column->kind, field.convert)) {
      error = where + "column " + std::string(field.column) + " of " + std::string(rule.table) +
              (column == nullptr ? " does not exist" : " does not take its conversion");
      return false;
    }
  }
  return true;
}

}  // namespace

bool ReadEvent(std::string_view line, Event& event, std::string& error) {
  const Json object = Json::parse(line, nullptr, false);
  if (!object.is_object()) {
    event.rows.clear();
    error = object.is_discarded() ? "not valid JSON" : "not a JSON object";
    return false;
  }
  return ReadFields(object, event, error);
}

bool ReadFields(const Json& object, Event& event, std::string& error) {
  event.rows.clear();
  event.nul_texts = false;
  std::string id;
  uint64_t number = 0;
  if (!FieldText(object, "Channel", event.channel) || !FieldText(object, "EventID", id) ||
      !ReadNumber(id, number) || id.empty() || number > std::numeric_limits<uint32_t>::max()) {
    error = "no \"Channel\" and numeric \"EventID\": not a Windows event";
    return false;
  }
  event.id = static_cast<uint32_t>(number);
  if (!TimeOf(object, event.time_ms, error)) return false;
  for (const EventRule* rule : RulesOf(event, object)) {
    if (!FillRow(*rule, object, event, error)) {
      event.rows.clear();
      return false;
    }
  }
  return true;
}

bool LooksLikeEvent(std::string_view line) {
  Json object = Json::parse(line, nullptr, false);
  return object.is_object() && object.contains("Channel") && object.contains("EventID") &&
         !object.contains("table");
}

bool CheckRules(std::string& error) {
  for (const EventRule& rule : Rules()) {
    if (!CheckRule(rule, error)) return false;
  }
  return true;
}

}  // namespace Tarn::Tool::Windows
