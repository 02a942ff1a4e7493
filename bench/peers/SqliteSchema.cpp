#include "peers/SqliteSchema.h"

namespace Tarn::Bench {

using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;

namespace {

const char* SqlType(ColumnKind kind) {
  switch (kind) {
    case ColumnKind::kDateTime:
    case ColumnKind::kUInt32:
    case ColumnKind::kUInt64:
      return "INTEGER";
    default:
      return "TEXT";
  }
}

}  // namespace

std::string SchemaSql() {
  std::string sql;
  for (const TableInfo& table : Storage::OSQuery::AllTables()) {
    sql += std::string("CREATE TABLE ") + table.name + " (";
    for (const auto& column : table.Columns()) {
      if (&column != table.columns) sql += ", ";
      sql += std::string(column.name) + " " + SqlType(column.kind);
    }
    sql += std::string(");\nCREATE INDEX ") + table.name + "_date_time ON " + table.name +
           " (date_time);\n";
  }
  return sql;
}

std::string InsertSql(const TableInfo& table) {
  std::string sql = std::string("INSERT INTO ") + table.name + " VALUES (";
  for (uint16_t i = 0; i < table.column_count; ++i) sql += i == 0 ? "?" : ", ?";
  return sql + ")";
}

int ColumnIndex(const TableInfo& table, std::string_view column) {
  for (uint16_t i = 0; i < table.column_count; ++i) {
    if (column == table.columns[i].name) return i;
  }
  return -1;
}

bool Execute(sqlite3* db, const std::string& sql, std::string& error) {
  char* message = nullptr;
  if (sqlite3_exec(db, sql.c_str(), nullptr, nullptr, &message) == SQLITE_OK) return true;
  error = std::string("sqlite: ") + (message != nullptr ? message : "error");
  sqlite3_free(message);
  return false;
}

bool Statement::Prepare(sqlite3* db, const std::string& sql, std::string& error) {
  sqlite3_finalize(statement_);
  statement_ = nullptr;
  if (sqlite3_prepare_v2(db, sql.c_str(), -1, &statement_, nullptr) == SQLITE_OK) return true;
  error = std::string("sqlite: ") + sqlite3_errmsg(db) + " in " + sql.substr(0, 80);
  return false;
}

}  // namespace Tarn::Bench
