#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "osquery/Tables.h"
#include "tarn/sql/SqlValue.h"

namespace Tarn::Tool {

// The operators SQLite hands a virtual table that the store can apply.
// SQLite numbers them exactly as the store's constraints do.
enum SqlOperator : uint8_t {
  kSqlEquals = 2,
  kSqlGreater = 4,
  kSqlLessOrEqual = 8,
  kSqlLess = 16,
  kSqlGreaterOrEqual = 32,
  kSqlLike = 65,
};

// Numbers (date_time included), as opposed to texts, addresses and lists.
bool IsNumericKind(Storage::OSQuery::ColumnKind kind);

// True for the operators above, where a column of `kind` can take them.
bool IsPushable(Storage::OSQuery::ColumnKind kind, uint8_t op);

// One WHERE term SQLite offers a scan: column (index in its table), operator
// and the value on the other side.
struct SqlConstraint {
  uint16_t column = 0;
  uint8_t op = 0;
  SqlValue value;
};

// The milliseconds [lower, upper] that the terms on date_time leave; lower
// above upper when none. False when no term narrows the time.
bool DateTimeSpan(const Storage::OSQuery::TableInfo& table, std::span<const SqlConstraint> terms,
                  int64_t& lower, int64_t& upper);

// False, with advice in `error`, when a term compares date_time (a number
// of milliseconds) with a text that is no number, such as '2023-08-16':
// SQLite orders every number before every text, so the term would select
// all rows or none without a word. ts() turns such a text into a time.
bool CheckTimeTerms(const Storage::OSQuery::TableInfo& table, std::span<const SqlConstraint> terms,
                    std::string& error);

// The store's constraints for a scan.
struct PushedConstraints {
  bool nothing = false;  // no stored row can satisfy the terms: ask nothing
  std::string json;      // the constraints JSON; empty: no filter
  uint32_t pushed = 0;   // terms that went into it
};

// Turns SQLite's terms into the store's constraints JSON:
//   {"pid": {"affinity": "bigint", "list": [{"op": 4, "expr": "100"}]}}
//
// The store must answer a superset of the rows SQLite wants, since SQLite
// checks every term again. So a term goes in only as far as the store
// applies it alike: numbers against whole numbers (a real bound becomes the
// whole number that keeps the same rows), texts against texts, LIKE on
// texts; anything else is left to SQLite alone. SQLite holds a 64-bit
// column's numbers past 2^63 as negative ones, so such a column takes only
// equal terms and lower bounds of 0 or more.
//
// date_time is special: the store keeps time to the second and its range
// rounds ">" and "<=" inward, so the terms on date_time are joined into one
// range in milliseconds first, and that range is sent as ">=" its first
// millisecond and "<" the second after its last, which covers it whole. An
// empty range, or one that ends before 2000 (the store holds nothing
// earlier), asks nothing at all.
PushedConstraints PushConstraints(const Storage::OSQuery::TableInfo& table,
                                  std::span<const SqlConstraint> terms);

}  // namespace Tarn::Tool
