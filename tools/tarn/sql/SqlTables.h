#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "osquery/Tables.h"

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

// The type a column is declared with: INTEGER for numbers, kUnsignedType
// for 64-bit ones, TEXT for the rest. SQLite's integers are signed, so a
// 64-bit id past 2^63 is held as the negative number of the same 64 bits
// (ids stay exact and equal ids join); the declared type lets a result show
// it unsigned again, as the store and `tarn export` have it.
inline constexpr char kUnsignedType[] = "UNSIGNED BIGINT";
const char* DeclaredType(Storage::OSQuery::ColumnKind kind);

// The 135 tables as eponymous virtual tables of one SQLite database, with
// each table's columns typed as DeclaredType says, answered by the store
// through a QueryClient, which must outlive the database.
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
//
// A date_time term with a text that is no number fails the statement with
// advice (SQLite would compare a number with a text and silently select all
// rows or none).
class StoreTables {
 public:
  explicit StoreTables(QueryClient& client);
  ~StoreTables();
  StoreTables(const StoreTables&) = delete;
  StoreTables& operator=(const StoreTables&) = delete;

  // Creates the 135 tables in `db`; false with `error` when SQLite refuses.
  bool Register(sqlite3* db, std::string& error);

  ScanCacheStats cache_stats() const;

  // Scans on `threads` threads: a statement's scans are run over time
  // slices of `store` ahead of SQLite (SlicedScans). 1: each scan is asked
  // for as SQLite reaches it, one page after another.
  void UseThreads(const std::string& store, unsigned threads);
  // Around each statement: drop what earlier planning recorded; start the
  // workers on the prepared statement's scans; stop them.
  void ForgetPlans();
  void BeginStatement();
  void EndStatement();

 private:
  std::shared_ptr<ScanSession> session_;
};

}  // namespace Tarn::Tool
