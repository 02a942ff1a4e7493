#include "tarn/sql/ScanPlan.h"

#include <algorithm>
#include <cstdlib>

namespace Tarn::Tool {
namespace {

using Storage::OSQuery::ColumnKind;
using Storage::OSQuery::TableInfo;

// Guesses for the planner: the store scans a table's whole time range
// whatever else the terms say, so only date_time makes a scan cheaper; the
// other terms make its answer smaller.
constexpr double kScanCost = 1e6;
constexpr double kRowsGuess = 1e6;

}  // namespace

ScanPlan PlanScan(const TableInfo& table, sqlite3_index_info* info,
              std::vector<SqlConstraint>& known) {
  ScanPlan plan;
  plan.used = info->colUsed;
  for (int i = 0; i < info->nConstraint; ++i) {
    const auto& c = info->aConstraint[i];
    if (!c.usable || c.iColumn < 0 || c.iColumn >= table.column_count) continue;
    const ColumnKind kind = table.columns[c.iColumn].kind;
    if (!IsPushable(kind, c.op)) continue;
    // The store compares texts byte by byte, as SQLite's BINARY does; LIKE
    // takes no collation.
    const char* collation = sqlite3_vtab_collation(info, i);
    if (!IsNumericKind(kind) && c.op != kSqlLike && collation != nullptr &&
        sqlite3_stricmp(collation, "BINARY") != 0) {
      continue;
    }
    sqlite3_value* value = nullptr;
    const bool constant = sqlite3_vtab_rhs_value(info, i, &value) == SQLITE_OK;
    if (constant) known.push_back({static_cast<uint16_t>(c.iColumn), c.op, ValueOf(value)});
    plan.terms.push_back({static_cast<uint16_t>(c.iColumn), c.op, constant});
    info->aConstraintUsage[i].argvIndex = static_cast<int>(plan.terms.size());
    info->aConstraintUsage[i].omit = 0;  // SQLite checks every term again
  }
  return plan;
}

void Estimate(const ScanPlan& plan, sqlite3_index_info* info) {
  double time = 1;
  bool lower = false;
  bool upper = false;
  double rows = kRowsGuess;
  bool looked_up = false;  // an equal term whose value changes: a kept scan's lookup
  for (const PlanTerm& t : plan.terms) {
    if (t.column == 0) {
      if (t.op == kSqlEquals) time = std::min(time, 1e-4);
      lower |= t.op == kSqlGreater || t.op == kSqlGreaterOrEqual;
      upper |= t.op == kSqlLess || t.op == kSqlLessOrEqual;
    } else if (t.op == kSqlEquals) {
      rows /= 1000;
      looked_up |= !t.constant;
    } else {
      rows /= t.op == kSqlLike ? 10 : 3;
    }
  }
  if (lower && upper) time = std::min(time, 0.05);
  if (lower != upper) time = std::min(time, 0.5);
  rows *= time;
  info->estimatedCost = looked_up ? 10 + rows : kScanCost * time;
  info->estimatedRows = static_cast<sqlite3_int64>(std::max(rows, 1.0));
}

std::string ColumnsText(const TableInfo& table, uint64_t used) {
  std::string text;
  bool all = true;
  for (uint16_t i = 0; i < table.column_count; ++i) {
    const bool wanted = i >= 63 ? (used >> 63) != 0 : ((used >> i) & 1) != 0;
    if (!wanted) {
      all = false;
      continue;
    }
    if (!text.empty()) text += ',';
    text += table.columns[i].name;
  }
  if (all) return "";
  return text.empty() ? std::string(table.columns[0].name) : text;
}

SqlValue ValueOf(sqlite3_value* value) {
  switch (sqlite3_value_type(value)) {
    case SQLITE_INTEGER: return SqlValue::Integer(sqlite3_value_int64(value));
    case SQLITE_FLOAT: return SqlValue::Real(sqlite3_value_double(value));
    case SQLITE_TEXT:
      return SqlValue::Text(std::string(reinterpret_cast<const char*>(sqlite3_value_text(value)),
                                        static_cast<size_t>(sqlite3_value_bytes(value))));
    case SQLITE_BLOB: {
      const void* bytes = sqlite3_value_blob(value);
      return SqlValue::Blob(bytes == nullptr ? std::string()
                                             : std::string(static_cast<const char*>(bytes),
                                                           sqlite3_value_bytes(value)));
    }
    default: return SqlValue();
  }
}

}  // namespace Tarn::Tool
