#pragma once

#include <cstdint>
#include <memory>
#include <string>

struct sqlite3;

namespace Tarn::Tool {

class QueryClient;
struct ScanSession;

// Rows kept for scans a statement repeats, for --stats.
struct ScanCacheStats {
  uint64_t kept_scans = 0;  // scans whose rows were asked for once and kept
  uint64_t reuses = 0;      // scans answered from kept rows
  uint64_t kept_bytes = 0;
};

// The 135 tables as eponymous virtual tables of one SQLite database, with
// each table's columns (numbers INTEGER, the rest TEXT), answered by the
// store through a QueryClient, which must outlive the database. A 64-bit
// number past 2^63 shows as the negative number of the same 64 bits.
//
// A scan hands the store the WHERE terms it can apply (=, <, <=, >, >= and
// LIKE, and the date_time range; see PushConstraints) as the query's
// constraints, and asks only for the columns the statement uses; SQLite
// checks every term again. Pages are asked for one after another as the scan
// reaches them, with the continuation token of the page before.
//
// When a statement scans one table again and again (the inner side of a
// join: an equal term whose value SQLite learns only from the outer row, or
// a second scan under the same plan), the rows of the terms that stay the
// same are asked for once and kept for the session; the join's equal terms
// look them up and its date_time bounds cut them.
class StoreTables {
 public:
  explicit StoreTables(QueryClient& client);
  ~StoreTables();
  StoreTables(const StoreTables&) = delete;
  StoreTables& operator=(const StoreTables&) = delete;

  // Creates the 135 tables in `db`; false with `error` when SQLite refuses.
  bool Register(sqlite3* db, std::string& error);

  ScanCacheStats cache_stats() const;

 private:
  std::shared_ptr<ScanSession> session_;
};

}  // namespace Tarn::Tool
