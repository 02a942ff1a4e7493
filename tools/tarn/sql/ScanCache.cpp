#include "tarn/sql/ScanCache.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cmath>

#include "tarn/sql/SqlConstraints.h"
#include "tarn/sql/SqlAddresses.h"

namespace Tarn::Tool {

using Storage::OSQuery::ColumnKind;

void AppendKeyPart(std::string& key, std::string_view part) {
  key += std::to_string(part.size());
  key += ':';
  key += part;
}

std::string ColumnKey(const google::protobuf::Message& row,
                      const google::protobuf::FieldDescriptor& field, ColumnKind kind) {
  const google::protobuf::Reflection& r = *row.GetReflection();
  switch (kind) {
    case ColumnKind::kUInt32: return std::to_string(r.GetUInt32(row, &field));
    case ColumnKind::kDateTime:
    case ColumnKind::kUInt64: return std::to_string(r.GetUInt64(row, &field));
    default: return r.GetString(row, &field);
  }
}

bool ValueKey(const SqlValue& value, ColumnKind kind, std::string& key, bool& never) {
  never = false;
  if (!IsNumericKind(kind)) {
    if (value.type != SqlValue::Type::kText) return false;
    key = kind == ColumnKind::kAddress ? RowSpelling(value.text) : value.text;
    return true;
  }
  int64_t number = 0;
  if (value.type == SqlValue::Type::kInteger) {
    number = value.integer;
  } else if (value.type == SqlValue::Type::kReal && std::isfinite(value.real) &&
             value.real >= -9.2e18 && value.real <= 9.2e18) {
    if (std::floor(value.real) != value.real) {
      never = true;  // no whole number equals it
      return true;
    }
    number = static_cast<int64_t>(value.real);
  } else {
    return false;
  }
  // A 64-bit column shows its numbers past 2^63 as negative ones, the same
  // bits; the narrower columns hold no negative number.
  never = number < 0 && kind != ColumnKind::kUInt64;
  key = std::to_string(static_cast<uint64_t>(number));
  return true;
}

void KeptScan::Add(QueryAnswer&& answer) {
  std::vector<std::pair<size_t, size_t>> spans;  // of the rows in the page
  spans.reserve(answer.rows.size());
  for (std::string_view row : answer.rows) {
    spans.emplace_back(static_cast<size_t>(row.data() - answer.events.data()), row.size());
  }
  bytes_ += answer.events.size();
  const std::string& page = pages_.emplace_back(std::move(answer.events));
  for (const auto& [offset, size] : spans) rows_.emplace_back(page.data() + offset, size);
  positions_.resize(rows_.size() - spans.size());
  positions_.insert(positions_.end(), answer.positions.begin(), answer.positions.end());
  positions_.resize(rows_.size());
}

const KeptScan::Picks& KeptScan::Lookup(const std::vector<uint16_t>& columns,
                                        const std::string& key,
                                        const Storage::OSQuery::TableInfo& table,
                                        RowReader& reader) {
  static const Picks kNone;
  auto [it, made] = indexes_.try_emplace(columns);
  Index& index = it->second;
  if (made) {
    const google::protobuf::Descriptor& descriptor = *reader.row().GetDescriptor();
    for (uint32_t i = 0; i < rows_.size(); ++i) {
      if (!reader.Parse(rows_[i])) continue;
      std::string row_key;
      for (uint16_t c : columns) {
        const google::protobuf::FieldDescriptor* field =
            descriptor.FindFieldByNumber(table.columns[c].field);
        AppendKeyPart(row_key, field != nullptr
                                   ? ColumnKey(reader.row(), *field, table.columns[c].kind)
                                   : std::string());
      }
      index[row_key].push_back(i);
    }
  }
  auto found = index.find(key);
  return found == index.end() ? kNone : found->second;
}

bool KeptScan::TimeRows(int64_t lower, int64_t upper, const Storage::OSQuery::TableInfo& table,
                        RowReader& reader, size_t& first, size_t& last) {
  if (!timed_) {
    timed_ = true;
    in_order_ = true;
    const google::protobuf::FieldDescriptor* field =
        reader.row().GetDescriptor()->FindFieldByNumber(table.columns[0].field);
    if (field == nullptr) in_order_ = false;
    times_.reserve(rows_.size());
    for (size_t i = 0; i < rows_.size() && in_order_; ++i) {
      const int64_t t = reader.Parse(rows_[i]) ? static_cast<int64_t>(
                                                     reader.row().GetReflection()->GetUInt64(
                                                         reader.row(), field))
                                               : -1;
      in_order_ = t >= 0 && (times_.empty() || times_.back() <= t);
      times_.push_back(t);
    }
    if (!in_order_) times_.clear();
  }
  if (!in_order_) return false;
  first = static_cast<size_t>(std::lower_bound(times_.begin(), times_.end(), lower) -
                              times_.begin());
  last = static_cast<size_t>(std::upper_bound(times_.begin(), times_.end(), upper) -
                             times_.begin());
  return true;
}

}  // namespace Tarn::Tool
