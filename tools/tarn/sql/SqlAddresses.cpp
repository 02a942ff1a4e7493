#include "tarn/sql/SqlAddresses.h"

#include <nlohmann/json.hpp>

#include <cstring>

#include "Keel/OS/Network.h"
#include "Keel/Utils/String.h"
#include "osquery/RecordColumns.h"
#include "osquery/Tables.h"

namespace Tarn::Tool {
namespace {

int CompareSpellings(void*, int left_size, const void* left, int right_size, const void* right) {
  // Equal bytes are the same address: only other spellings need reading.
  if (left_size == right_size && std::memcmp(left, right, size_t(left_size)) == 0) return 0;
  const std::string a = RowSpelling({static_cast<const char*>(left), size_t(left_size)});
  const std::string b = RowSpelling({static_cast<const char*>(right), size_t(right_size)});
  return a.compare(b);
}

bool IsAddressColumn(std::string_view table, const std::string& column) {
  const Storage::OSQuery::TableInfo* info =
      Storage::OSQuery::FindTable(Storage::OSQuery::TableIdByName(table));
  if (info == nullptr) return false;
  for (const Storage::OSQuery::ColumnInfo& c : info->Columns()) {
    if (column == c.name) return c.kind == Storage::OSQuery::ColumnKind::kAddress;
  }
  return false;
}

}  // namespace

std::string RowSpelling(std::string_view text) {
  bool present = false;
  Events::Address address;
  if (!Storage::OSQuery::ReadAddressText(text, present, address)) return std::string(text);
  if (!present) return "";
  Keel::Utils::String spelled;
  if (!Keel::OS::Network::FormatAddress(address.ipv6, address.bytes, spelled)) {
    return std::string(text);
  }
  return std::string(spelled.view());
}

bool RegisterAddressCollation(sqlite3* db, std::string& error) {
  if (sqlite3_create_collation_v2(db, kAddressCollation, SQLITE_UTF8, nullptr, CompareSpellings,
                                  nullptr) == SQLITE_OK) {
    return true;
  }
  error = std::string("cannot register the address collation: ") + sqlite3_errmsg(db);
  return false;
}

std::string WithRowSpellings(const std::string& constraints_json, std::string_view table) {
  nlohmann::json root = nlohmann::json::parse(constraints_json, nullptr, false);
  if (!root.is_object()) return constraints_json;
  for (auto& [column, entry] : root.items()) {
    if (!IsAddressColumn(table, column) || !entry.contains("list") || !entry["list"].is_array()) {
      continue;
    }
    for (auto& item : entry["list"]) {
      if (item.value("op", 0) == 2 && item.contains("expr") && item["expr"].is_string()) {
        item["expr"] = RowSpelling(item["expr"].get<std::string>());
      }
    }
  }
  return root.dump();
}

}  // namespace Tarn::Tool
