#pragma once

// The SQLite layout a user would give the events: one table per event
// table, named like it, with its columns in schema order (numbers INTEGER,
// everything else TEXT, as the rows carry them), and an index on date_time.

#include <sqlite3.h>

#include <string>

#include "osquery/Tables.h"

namespace Tarn::Bench {

// CREATE TABLE and CREATE INDEX for every table.
std::string SchemaSql();

// "INSERT INTO <table> VALUES (?, ...)" with one parameter per column.
std::string InsertSql(const Storage::OSQuery::TableInfo& table);

// The index of `column` among the table's columns, or -1.
int ColumnIndex(const Storage::OSQuery::TableInfo& table, std::string_view column);

// Runs SQL that returns no rows; false with SQLite's message in `error`.
bool Execute(sqlite3* db, const std::string& sql, std::string& error);

// Owns a prepared statement.
class Statement {
 public:
  Statement() = default;
  ~Statement() { sqlite3_finalize(statement_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool Prepare(sqlite3* db, const std::string& sql, std::string& error);
  sqlite3_stmt* get() const { return statement_; }

 private:
  sqlite3_stmt* statement_ = nullptr;
};

}  // namespace Tarn::Bench
