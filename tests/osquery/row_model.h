#pragma once

// The test's own model of query answers: random rows of a few tables, the
// records they are stored as, and a brute-force answer computed from the
// rows alone (field by field through reflection), to hold the service's
// answers against.

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>
#include <google/protobuf/util/message_differencer.h>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "Keel/Utils/TreeContainer.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "osquery/RecordBuilder.h"
#include "osquery/Tables.h"
#include "support/query_answer.h"

namespace tarn::test {

using google::protobuf::FieldDescriptor;
using google::protobuf::Message;
using RowPtr = std::shared_ptr<Message>;

// A constraint as a requester writes it.
struct Filter {
  std::string column;
  uint32_t op;
  std::string expr;
  std::string affinity;
};

// One event the test fed: its whole row and the epoch second it was stored at.
struct FedRow {
  std::string table;
  RowPtr row;
  uint64_t second;
};

inline RowPtr NewRow(std::string_view table) {
  const auto* descriptor =
      google::protobuf::DescriptorPool::generated_pool()->FindMessageTypeByName(std::string(table));
  if (descriptor == nullptr) return nullptr;
  return RowPtr(
      google::protobuf::MessageFactory::generated_factory()->GetPrototype(descriptor)->New());
}

// The constraints JSON of `filters`, grouped by column (a column's first
// filter names its affinity).
inline std::string ConstraintsJson(const std::vector<Filter>& filters) {
  Keel::Utils::TreeContainer doc;
  auto root = doc.Root();
  root.SetObject();
  for (const Filter& f : filters) {
    bool fresh = !root.Has(f.column);
    auto column = root.InsertChild(f.column);
    if (fresh) {
      column.Set("affinity", f.affinity);
      column.InsertChild("list").SetArray();
    }
    auto item = column.Child("list").AppendChild();
    item.Set("op", uint64_t{f.op});
    item.Set("expr", f.expr);
  }
  return doc.Dump();
}

// Random rows whose values come from small pools, so that constraints
// select real subsets and texts differ in case and in LIKE wildcards.
class RowMaker {
 public:
  explicit RowMaker(uint32_t seed) : random_(seed) {}

  RowPtr Make(std::string_view table_name, uint64_t time_ms) {
    using Tarn::Storage::OSQuery::ColumnKind;
    static const uint32_t kU32[] = {0, 1, 7, 42, 80, 443, 65535, 4294967295u};
    static const uint64_t kU64[] = {0, 3, 1ull << 33, 18446744073709551615ull};
    static const char* kTexts[] = {"", "/usr/bin/ssh", "/USR/BIN/SSH", "/usr/bin/sshd",
                                   "/tmp/a_b", "/tmp/a%b", "alpha", "Alpha"};
    static const char* kAddresses[] = {"", "10.0.0.1", "10.0.0.25", "192.168.1.20",
                                       "2001:db8::1"};
    static const char* kTextLists[] = {"", "eth0", "eth0,eth1", "lo,eth0,wlan0"};
    static const char* kNumberLists[] = {"", "0", "1,2,3", "18446744073709551615,7"};

    const auto* table = Tarn::Storage::OSQuery::FindTable(
        Tarn::Storage::OSQuery::TableIdByName(table_name));
    RowPtr row = NewRow(table_name);
    if (table == nullptr || row == nullptr) return nullptr;
    const auto* reflection = row->GetReflection();
    for (const auto& column : table->Columns()) {
      const FieldDescriptor* field = row->GetDescriptor()->FindFieldByName(column.name);
      switch (column.kind) {
        case ColumnKind::kDateTime: reflection->SetUInt64(row.get(), field, time_ms); break;
        case ColumnKind::kUInt32: reflection->SetUInt32(row.get(), field, Pick(kU32)); break;
        case ColumnKind::kUInt64: reflection->SetUInt64(row.get(), field, Pick(kU64)); break;
        case ColumnKind::kText: reflection->SetString(row.get(), field, Pick(kTexts)); break;
        case ColumnKind::kAddress:
          reflection->SetString(row.get(), field, Pick(kAddresses));
          break;
        case ColumnKind::kTextList:
          reflection->SetString(row.get(), field, Pick(kTextLists));
          break;
        case ColumnKind::kNumberList:
          reflection->SetString(row.get(), field, Pick(kNumberLists));
          break;
      }
    }
    return row;
  }

  std::mt19937& random() { return random_; }

 private:
  template <typename T, size_t N>
  T Pick(T (&pool)[N]) {
    return pool[random_() % N];
  }

  std::mt19937 random_;
};

// The stored record of a row, through the generated builder.
inline std::vector<uint8_t> RecordOf(const Message& row, uint16_t version = 0) {
  Tarn::Events::DynamicEventBuilder builder;
  if (!Tarn::Storage::OSQuery::BuildRecord(row, builder, version)) return {};
  return std::vector<uint8_t>(builder.Data(), builder.Data() + builder.Size());
}

// The row as a selection of columns shows it: every other field cleared.
inline RowPtr Project(const Message& full, std::string_view columns) {
  RowPtr row(full.New());
  row->CopyFrom(full);
  if (columns.empty()) return row;
  std::set<std::string, std::less<>> selected;
  size_t start = 0;
  while (true) {
    size_t comma = columns.find(',', start);
    const size_t length = comma == std::string_view::npos ? comma : comma - start;
    selected.emplace(columns.substr(start, length));
    if (comma == std::string_view::npos) break;
    start = comma + 1;
  }
  // "*" asks for every column only as the first name.
  if (columns.substr(0, columns.find(',')) == "*") return row;
  const auto* descriptor = row->GetDescriptor();
  for (int i = 0; i < descriptor->field_count(); ++i) {
    if (selected.count(descriptor->field(i)->name()) == 0) {
      row->GetReflection()->ClearField(row.get(), descriptor->field(i));
    }
  }
  return row;
}

// SQL LIKE: "%" any run, "_" one character, ASCII case ignored.
inline bool Like(std::string_view text, std::string_view pattern) {
  auto lower = [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; };
  // matched[j]: text[0..i) matches pattern[0..j)
  std::vector<bool> matched(pattern.size() + 1, false);
  matched[0] = true;
  for (size_t j = 0; j < pattern.size() && pattern[j] == '%'; ++j) matched[j + 1] = true;
  for (char c : text) {
    std::vector<bool> next(pattern.size() + 1, false);
    for (size_t j = 0; j < pattern.size(); ++j) {
      if (pattern[j] == '%') {
        next[j + 1] = next[j] || matched[j + 1];
      } else if (matched[j] && (pattern[j] == '_' || lower(pattern[j]) == lower(c))) {
        next[j + 1] = true;
      }
    }
    matched = std::move(next);
  }
  return matched[pattern.size()];
}

inline uint8_t AffinityCode(std::string_view name) {
  static const char* kNames[] = {"text", "integer", "bigint", "unsigned bigint", "double",
                                 "blob"};
  for (uint8_t i = 0; i < 6; ++i) {
    if (name == kNames[i]) return i + 1;
  }
  return 0;
}

inline bool IsAddressColumn(std::string_view name) {
  for (std::string_view a : {"local_ip", "remote_ip", "source_ip", "target_ip", "requester_ip",
                             "ip_address", "source_addr"}) {
    if (name == a) return true;
  }
  return false;
}

inline bool Holds(uint32_t op, int order) {
  switch (op) {
    case 2: return order == 0;
    case 4: return order > 0;
    case 8: return order <= 0;
    case 16: return order < 0;
    case 32: return order >= 0;
    default: return true;
  }
}

inline bool NumberHolds(uint64_t value, const Filter& f) {
  uint8_t affinity = AffinityCode(f.affinity);
  if (affinity < 2 || affinity > 5 || f.op == 1 || f.op >= 64) return true;
  int order;
  if (affinity == 4) {
    uint64_t v = std::stoull(f.expr);
    order = value < v ? -1 : (value > v ? 1 : 0);
  } else if (affinity == 5) {
    double v = std::stod(f.expr), d = static_cast<double>(value);
    order = d < v ? -1 : (d > v ? 1 : 0);
  } else {
    int64_t v = std::stoll(f.expr);
    order = v < 0 ? 1 : (value < uint64_t(v) ? -1 : (value > uint64_t(v) ? 1 : 0));
  }
  return Holds(f.op, order);
}

inline bool TextHolds(const std::string& value, const Filter& f) {
  uint8_t affinity = AffinityCode(f.affinity);
  if (affinity == 0) return true;
  if (IsAddressColumn(f.column) && affinity != 1) return true;
  if (f.op == 64 || f.op == 65) return Like(value, f.expr);
  if (f.op == 2) return value == f.expr;
  int order = value.compare(f.expr);
  return Holds(f.op, order < 0 ? -1 : (order > 0 ? 1 : 0));
}

// Whether the stored second lies in the range the date_time filters ask
// for, each in whole seconds: "<=" ends one second before its value, like
// "<".
inline bool InTimeRange(uint64_t second, const std::vector<Filter>& filters) {
  for (const Filter& f : filters) {
    if (f.column != "date_time") continue;
    uint64_t value = static_cast<uint64_t>(std::stoll(f.expr)) / 1000;
    bool in = true;
    switch (f.op) {
      case 2: in = second == value; break;
      case 4: in = second > value; break;
      case 32: in = second >= value; break;
      case 8:
      case 16: in = second < value; break;
      default: break;
    }
    if (!in) return false;
  }
  return true;
}

inline bool RowMatches(const Message& row, const std::vector<Filter>& filters) {
  const auto* reflection = row.GetReflection();
  for (const Filter& f : filters) {
    if (f.column == "date_time") continue;
    const FieldDescriptor* field = row.GetDescriptor()->FindFieldByName(f.column);
    if (field == nullptr) continue;
    bool holds = true;
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT32:
        holds = NumberHolds(reflection->GetUInt32(row, field), f);
        break;
      case FieldDescriptor::CPPTYPE_UINT64:
        holds = NumberHolds(reflection->GetUInt64(row, field), f);
        break;
      default:
        holds = TextHolds(reflection->GetString(row, field), f);
        break;
    }
    if (!holds) return false;
  }
  return true;
}

// What a complete answer must hold, in store order.
inline std::vector<RowPtr> BruteForce(const std::vector<FedRow>& fed, std::string_view table,
                                      std::string_view columns,
                                      const std::vector<Filter>& filters) {
  std::vector<RowPtr> expected;
  for (const FedRow& f : fed) {
    if (f.table == table && InTimeRange(f.second, filters) && RowMatches(*f.row, filters)) {
      expected.push_back(Project(*f.row, columns));
    }
  }
  return expected;
}

// The answer's rows as messages of the table; null entries for rows that
// do not parse.
inline std::vector<RowPtr> DecodeRows(const std::vector<std::string>& rows,
                                      std::string_view table) {
  std::vector<RowPtr> decoded;
  for (const std::string& bytes : rows) {
    RowPtr row = NewRow(table);
    if (row == nullptr || !row->ParseFromString(bytes)) row.reset();
    decoded.push_back(row);
  }
  return decoded;
}

// Empty when both lists hold equal rows in the same order; otherwise where
// they part.
inline std::string CompareRows(const std::vector<RowPtr>& got,
                               const std::vector<RowPtr>& expected) {
  const std::string counts = "got " + std::to_string(got.size()) + " rows, expected " +
                             std::to_string(expected.size());
  for (size_t i = 0; i < got.size() && i < expected.size(); ++i) {
    if (got[i] == nullptr) return counts + "; row " + std::to_string(i) + " does not parse";
    if (!google::protobuf::util::MessageDifferencer::Equals(*got[i], *expected[i])) {
      return counts + "; row " + std::to_string(i) + ": got {" + got[i]->ShortDebugString() +
             "} expected {" + expected[i]->ShortDebugString() + "}";
    }
  }
  if (got.size() == expected.size()) return "";
  const auto& longer = got.size() > expected.size() ? got : expected;
  const size_t at = std::min(got.size(), expected.size());
  return counts + "; first extra row " + std::to_string(at) + ": {" +
         (longer[at] ? longer[at]->ShortDebugString() : "unparsed") + "}";
}

// A value some fed row of the table has in `column`, as text.
inline std::string SomeValue(std::mt19937& random, const std::string& table, const std::string& column,
                      const std::vector<FedRow>& fed) {
  for (int tries = 0; tries < 50; ++tries) {
    const auto& f = fed[random() % fed.size()];
    if (f.table != table) continue;
    const auto* field = f.row->GetDescriptor()->FindFieldByName(column);
    const auto* reflection = f.row->GetReflection();
    switch (field->cpp_type()) {
      case FieldDescriptor::CPPTYPE_UINT32:
        return std::to_string(reflection->GetUInt32(*f.row, field));
      case FieldDescriptor::CPPTYPE_UINT64:
        return std::to_string(reflection->GetUInt64(*f.row, field));
      default:
        return reflection->GetString(*f.row, field);
    }
  }
  return "0";
}

inline Filter RandomFilter(std::mt19937& random, const std::string& table,
                    const std::vector<FedRow>& fed) {
  static const uint32_t kOps[] = {1, 2, 4, 8, 16, 32, 64, 65, 66, 67};
  static const char* kPatterns[] = {"%ssh%", "/usr/bin/ss_", "%A%B", "ALPHA", "%", "_%_", "eth0%"};
  using namespace Tarn::Storage::OSQuery;
  const TableInfo* info = FindTable(TableIdByName(table));
  const ColumnInfo& column = info->columns[1 + random() % (info->column_count - 1)];
  Filter f{column.name, kOps[random() % 10], SomeValue(random, table, column.name, fed), "text"};
  if (column.kind == ColumnKind::kUInt32 || column.kind == ColumnKind::kUInt64) {
    static const char* kNumeric[] = {"integer", "bigint", "unsigned bigint", "double"};
    f.affinity = kNumeric[random() % 4];
    if (f.affinity == "integer" && std::stoull(f.expr) > 2147483647u) f.affinity = "bigint";
    if (f.affinity == "bigint" && std::stoull(f.expr) > 9223372036854775807u) {
      f.affinity = "unsigned bigint";
    }
  } else {
    if (f.op == 64 || f.op == 65) f.expr = kPatterns[random() % 7];
    if (random() % 8 == 0) f.affinity = random() % 2 ? "blob" : "TEXT";
  }
  return f;
}


// A column list as requesters write them: none or "*" (every column), or a
// few names, now and then one the table does not have, an empty one, or a
// "*" that counts only in first place.
inline std::string RandomColumns(std::mt19937& random, const std::string& table) {
  using namespace Tarn::Storage::OSQuery;
  std::string columns;
  if (random() % 2 == 0) return random() % 4 == 0 ? "*" : "";
  const TableInfo* info = FindTable(TableIdByName(table));
  for (uint32_t n = 1 + random() % 3, first = n; n > 0; --n) {
    if (n != first) columns += ",";
    const uint32_t roll = random() % 12;
    columns += roll == 0   ? "no_such_column"
               : roll == 1 ? "*"
               : roll == 2 ? ""
                           : info->columns[random() % info->column_count].name;
  }
  return columns;
}

}  // namespace tarn::test
