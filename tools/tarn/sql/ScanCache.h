#pragma once

#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <unordered_map>
#include <unordered_set>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/host/QueryClient.h"
#include "tarn/sql/SlicedScans.h"
#include "tarn/sql/SqlTables.h"
#include "tarn/sql/SqlValue.h"
#include "tarn/sql/TimeSlices.h"

namespace google::protobuf {
class FieldDescriptor;
class Message;
}  // namespace google::protobuf

namespace Tarn::Tool {

// A column of a row as the key an equal term looks it up by: the number in
// decimal, or the text's bytes.
std::string ColumnKey(const google::protobuf::Message& row,
                      const google::protobuf::FieldDescriptor& field,
                      Storage::OSQuery::ColumnKind kind);

// Appends one column's part to a key of several: its length, ":", itself.
void AppendKeyPart(std::string& key, std::string_view part);

// The key of the value an equal term compares a column with, when it can
// only equal the rows of that key. `never` is set when it equals no row at
// all. False when SQLite would convert the value first (a text against a
// number): the term then picks nothing, SQLite checks it on every row.
bool ValueKey(const SqlValue& value, Storage::OSQuery::ColumnKind kind, std::string& key,
              bool& never);

// The rows of one scan, every page of it, kept for the scans after it.
class KeptScan {
 public:
  using Picks = std::vector<uint32_t>;

  // Takes one page's answer and its rows.
  void Add(QueryAnswer&& answer);
  size_t RowCount() const { return rows_.size(); }
  std::string_view Row(size_t i) const { return rows_[i]; }
  // The store position of row `i`'s event (0 when its page had none).
  uint64_t Position(size_t i) const { return i < positions_.size() ? positions_[i] : 0; }
  uint64_t Bytes() const { return bytes_; }

  // The rows whose `columns` have `key` (AppendKeyPart of each column's
  // ColumnKey), in scan order; the index of a set of columns is
  // built at its first use.
  const Picks& Lookup(const std::vector<uint16_t>& columns, const std::string& key,
                      const Storage::OSQuery::TableInfo& table, RowReader& reader);

  // The rows whose date_time lies in [lower, upper] as the row numbers
  // [first, last). False when the rows are not in date_time order: the store
  // files an event by the second it came, which need not be its own.
  bool TimeRows(int64_t lower, int64_t upper, const Storage::OSQuery::TableInfo& table,
                RowReader& reader, size_t& first, size_t& last);

 private:
  using Index = std::unordered_map<std::string, Picks>;

  std::deque<std::string> pages_;  // never moved once added: rows view them
  std::vector<std::string_view> rows_;
  std::vector<uint64_t> positions_;
  uint64_t bytes_ = 0;
  std::map<std::vector<uint16_t>, Index> indexes_;
  std::vector<int64_t> times_;  // date_time of each row, once asked for
  bool timed_ = false;
  bool in_order_ = false;
};

// What the scans of one SQLite database share: the client that asks the
// store, and the rows kept for repeated scans, by scan (table, columns,
// constraints), within a budget of bytes.
struct ScanSession {
  static constexpr uint64_t kBudget = uint64_t{1} << 30;

  explicit ScanSession(QueryClient& query_client) : client(query_client) {}

  QueryClient& client;
  std::unordered_map<std::string, std::shared_ptr<KeptScan>> kept;
  std::unordered_set<std::string> too_big;  // scans that would not fit the budget
  ScanCacheStats stats;

  // Threads that run a statement's scans; where the store's time can be cut.
  unsigned threads = 1;
  TimeSlices slices;
  // The scans of the statement being prepared, then of the one running.
  std::vector<PlannedScan> planned;
  std::shared_ptr<SlicedScans> sliced;
};

}  // namespace Tarn::Tool
