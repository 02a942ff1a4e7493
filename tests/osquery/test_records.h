#pragma once

// Writes records of any table slot by slot from the generated column
// descriptors, independently of the generated builders: columns not given
// are stored as 0 or empty.

#include <cstdint>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery::test {

class TestRecord {
 public:
  explicit TestRecord(const char* table, uint64_t time_ms = 1700000000000ull)
      : table_(FindTable(TableIdByName(table))), time_ms_(time_ms) {}

  TestRecord& Number(const char* column, uint64_t value) {
    numbers_[column] = value;
    return *this;
  }
  TestRecord& Text(const char* column, std::string value) {
    texts_[column] = {std::move(value)};
    return *this;
  }
  TestRecord& List(const char* column, std::vector<std::string> items) {
    texts_[column] = std::move(items);
    return *this;
  }
  TestRecord& Numbers(const char* column, std::vector<uint64_t> values) {
    lists_[column] = std::move(values);
    return *this;
  }
  TestRecord& Address(const char* column, const Events::Address& address) {
    addresses_[column] = address;
    return *this;
  }
  TestRecord& Version(uint16_t version) {
    version_ = version;
    return *this;
  }

  std::vector<uint8_t> Build() const {
    Events::DynamicEventBuilder b;
    if (table_ == nullptr) return {};
    bool ok = b.Begin(table_->type_id, version_ ? version_ : table_->version, time_ms_);
    for (const ColumnInfo& c : table_->Columns()) {
      std::string name = c.name;
      switch (c.kind) {
        case ColumnKind::kDateTime: break;
        case ColumnKind::kUInt32: ok = ok && b.AddUInt32(static_cast<uint32_t>(Get(name))); break;
        case ColumnKind::kUInt64: ok = ok && b.AddUInt64(Get(name)); break;
        case ColumnKind::kText:
          ok = ok && b.AddText(Texts(name).empty() ? "" : Texts(name)[0]);
          break;
        case ColumnKind::kAddress: {
          auto it = addresses_.find(name);
          ok = ok && (it == addresses_.end() ? b.AddEmptyAddress() : b.AddAddress(it->second));
          break;
        }
        case ColumnKind::kTextList: {
          std::vector<std::string_view> views(Texts(name).begin(), Texts(name).end());
          ok = ok && b.AddTextList(views);
          break;
        }
        case ColumnKind::kNumberList: {
          auto it = lists_.find(name);
          ok = ok && b.AddNumberList(it == lists_.end() ? std::vector<uint64_t>() : it->second);
          break;
        }
      }
    }
    if (!ok || !b.Finish()) return {};
    return std::vector<uint8_t>(b.Data(), b.Data() + b.Size());
  }

 private:
  uint64_t Get(const std::string& name) const {
    auto it = numbers_.find(name);
    return it == numbers_.end() ? 0 : it->second;
  }
  const std::vector<std::string>& Texts(const std::string& name) const {
    static const std::vector<std::string> kNone;
    auto it = texts_.find(name);
    return it == texts_.end() ? kNone : it->second;
  }

  const TableInfo* table_;
  uint64_t time_ms_;
  uint16_t version_ = 0;
  std::map<std::string, uint64_t> numbers_;
  std::map<std::string, std::vector<std::string>> texts_;
  std::map<std::string, std::vector<uint64_t>> lists_;
  std::map<std::string, Events::Address> addresses_;
};

}  // namespace Tarn::Storage::OSQuery::test
