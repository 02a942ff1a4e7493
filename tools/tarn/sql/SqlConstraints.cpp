#include "tarn/sql/SqlConstraints.h"

#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

#include <nlohmann/json.hpp>

#include "tarn/sql/SqlAddresses.h"

namespace Tarn::Tool {
namespace {

using Storage::OSQuery::ColumnInfo;
using Storage::OSQuery::ColumnKind;
using Json = nlohmann::json;

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
// The store's time range lies within [2000-01-01, 2080-01-01] UTC: bounds
// outside it narrow nothing.
constexpr int64_t kFirstStorableMs = 946'684'800'000;
constexpr int64_t kLastStorableMs = 3'471'292'800'999;

// A whole-number bound that selects exactly the whole numbers the term
// selects. `op` may change (a real bound on ">" becomes ">="). Absent when
// the term cannot be put that way, or never holds for a whole number.
std::optional<int64_t> WholeBound(const SqlValue& value, uint8_t& op) {
  if (value.type == SqlValue::Type::kInteger) return value.integer;
  if (value.type != SqlValue::Type::kReal || !std::isfinite(value.real)) return std::nullopt;
  // Beyond ±2^63 a real no longer names one whole number.
  if (value.real < -9.2e18 || value.real > 9.2e18) return std::nullopt;
  const double r = value.real;
  switch (op) {
    case kSqlEquals:
      if (std::floor(r) != r) return std::nullopt;
      return static_cast<int64_t>(r);
    case kSqlGreater:  // n > 2.5 is n >= 3; n > 2.0 is n >= 3
      op = kSqlGreaterOrEqual;
      return static_cast<int64_t>(std::floor(r)) + 1;
    case kSqlGreaterOrEqual:
      return static_cast<int64_t>(std::ceil(r));
    case kSqlLess:  // n < 2.5 is n <= 2; n < 2.0 is n <= 1
      op = kSqlLessOrEqual;
      return static_cast<int64_t>(std::ceil(r)) - 1;
    case kSqlLessOrEqual:
      return static_cast<int64_t>(std::floor(r));
    default:
      return std::nullopt;
  }
}

// The millisecond range [lower, upper] the date_time terms leave.
struct MsRange {
  int64_t lower = kMin;
  int64_t upper = kMax;
  bool narrowed = false;

  void Apply(uint8_t op, int64_t v) {
    narrowed = true;
    switch (op) {
      case kSqlEquals:
        lower = std::max(lower, v);
        upper = std::min(upper, v);
        break;
      case kSqlGreater:
        if (v == kMax) upper = kMin;  // nothing is greater
        lower = std::max(lower, v == kMax ? kMax : v + 1);
        break;
      case kSqlGreaterOrEqual:
        lower = std::max(lower, v);
        break;
      case kSqlLess:
        if (v == kMin) lower = kMax;
        upper = std::min(upper, v == kMin ? kMin : v - 1);
        break;
      case kSqlLessOrEqual:
        upper = std::min(upper, v);
        break;
      default:
        break;
    }
  }
};

// Only valid UTF-8 reaches the store unchanged through JSON text.
bool IsUtf8(std::string_view text) {
  for (size_t i = 0; i < text.size();) {
    const auto c = static_cast<uint8_t>(text[i]);
    size_t more = 0;
    uint8_t low = 0x80;  // the range of the second byte
    uint8_t high = 0xBF;
    if (c < 0x80) {
      more = 0;
    } else if (c >= 0xC2 && c <= 0xDF) {
      more = 1;
    } else if (c >= 0xE0 && c <= 0xEF) {
      more = 2;
      if (c == 0xE0) low = 0xA0;   // no overlong forms
      if (c == 0xED) high = 0x9F;  // no surrogates
    } else if (c >= 0xF0 && c <= 0xF4) {
      more = 3;
      if (c == 0xF0) low = 0x90;
      if (c == 0xF4) high = 0x8F;  // nothing past U+10FFFF
    } else {
      return false;
    }
    if (text.size() - i <= more) return false;
    for (size_t k = 1; k <= more; ++k) {
      const auto b = static_cast<uint8_t>(text[i + k]);
      if (k == 1 ? (b < low || b > high) : (b & 0xC0) != 0x80) return false;
    }
    i += more + 1;
  }
  return true;
}

void Add(Json& root, const ColumnInfo& column, const char* affinity, uint8_t op,
         std::string expr) {
  Json& entry = root[column.name];
  if (entry.is_null()) entry = {{"affinity", affinity}, {"list", Json::array()}};
  entry["list"].push_back({{"op", op}, {"expr", std::move(expr)}});
}

// A term on a 64-bit column. SQLite sees those numbers as signed: one past
// 2^63 is negative there, while the store compares them unsigned. Equal
// terms name the same 64 bits either way; a lower bound of 0 or more keeps
// the store's answer a superset (the big numbers, negative to SQLite, are
// in it and SQLite drops them); any other bound cannot be put to the store.
// A column has one affinity for all its terms: "unsigned bigint" suits both.
bool PushWide(Json& root, const ColumnInfo& column, uint8_t op, int64_t bound) {
  const bool lower = (op == kSqlGreater || op == kSqlGreaterOrEqual) && bound >= 0;
  if (op != kSqlEquals && !lower) return false;
  Add(root, column, "unsigned bigint", op, std::to_string(static_cast<uint64_t>(bound)));
  return true;
}

// A text SQLite reads as a number when it compares it with a number column.
bool IsNumberText(std::string_view text) {
  const size_t first = text.find_first_not_of(" \t\r\n");
  if (first == std::string_view::npos) return false;
  text = text.substr(first, text.find_last_not_of(" \t\r\n") + 1 - first);
  if (text.front() == '+') text.remove_prefix(1);
  double value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  return ec == std::errc() && end == text.data() + text.size();
}

}  // namespace

bool CheckTimeTerms(const Storage::OSQuery::TableInfo& table, std::span<const SqlConstraint> terms,
                    std::string& error) {
  for (const SqlConstraint& term : terms) {
    if (term.column >= table.column_count ||
        table.columns[term.column].kind != ColumnKind::kDateTime ||
        term.value.type != SqlValue::Type::kText || IsNumberText(term.value.text)) {
      continue;
    }
    error = std::string(table.columns[term.column].name) +
            " holds milliseconds since 1970 (UTC) and cannot be compared with the text '" +
            term.value.text + "': write ts('" + term.value.text +
            "') for a date or ISO 8601 time, e.g. ts('2023-08-16 14:00')";
    return false;
  }
  return true;
}

bool IsNumericKind(ColumnKind kind) {
  return kind == ColumnKind::kDateTime || kind == ColumnKind::kUInt32 ||
         kind == ColumnKind::kUInt64;
}

bool IsPushable(ColumnKind kind, uint8_t op) {
  switch (op) {
    case kSqlEquals:
    case kSqlGreater:
    case kSqlLessOrEqual:
    case kSqlLess:
    case kSqlGreaterOrEqual:
      return true;
    case kSqlLike:
      return !IsNumericKind(kind);
    default:
      return false;
  }
}

bool DateTimeSpan(const Storage::OSQuery::TableInfo& table, std::span<const SqlConstraint> terms,
                  int64_t& lower, int64_t& upper) {
  MsRange time;
  for (const SqlConstraint& term : terms) {
    if (term.column >= table.column_count ||
        table.columns[term.column].kind != ColumnKind::kDateTime) {
      continue;
    }
    uint8_t op = term.op;
    if (!IsPushable(ColumnKind::kDateTime, op)) continue;
    if (std::optional<int64_t> bound = WholeBound(term.value, op)) time.Apply(op, *bound);
  }
  lower = time.lower;
  upper = time.upper;
  return time.narrowed;
}

PushedConstraints PushConstraints(const Storage::OSQuery::TableInfo& table,
                                  std::span<const SqlConstraint> terms) {
  PushedConstraints result;
  Json root = Json::object();
  for (const SqlConstraint& term : terms) {
    if (term.column >= table.column_count) continue;
    const ColumnInfo& column = table.columns[term.column];
    if (!IsPushable(column.kind, term.op)) continue;
    if (IsNumericKind(column.kind)) {
      uint8_t op = term.op;
      std::optional<int64_t> bound = WholeBound(term.value, op);
      if (!bound) continue;
      if (column.kind == ColumnKind::kDateTime) {
        // Joined into one range below.
      } else if (column.kind == ColumnKind::kUInt64) {
        if (!PushWide(root, column, op, *bound)) continue;
      } else {
        // "bigint" compares the unsigned column with a signed value, so a
        // negative bound keeps every row, as it does in SQLite.
        Add(root, column, "bigint", op, std::to_string(*bound));
      }
      ++result.pushed;
    } else if (term.value.type == SqlValue::Type::kText && IsUtf8(term.value.text)) {
      // An address compares through its collation; the store sees the
      // row's spelling. Orderings of spellings are the collation's alone.
      const bool address = column.kind == ColumnKind::kAddress;
      if (address && term.op != kSqlEquals && term.op != kSqlLike) continue;
      const bool respell = address && term.op == kSqlEquals;
      Add(root, column, "text", term.op, respell ? RowSpelling(term.value.text) : term.value.text);
      ++result.pushed;
    }
  }
  int64_t lower = 0;
  int64_t upper = 0;
  if (DateTimeSpan(table, terms, lower, upper)) {
    if (lower > upper || upper < kFirstStorableMs) {
      result.nothing = true;
      return result;
    }
    const ColumnInfo& date_time = table.columns[0];
    if (lower > kFirstStorableMs) {
      Add(root, date_time, "bigint", kSqlGreaterOrEqual, std::to_string(lower));
    }
    if (upper < kLastStorableMs) {
      // The store ends a "<" range one second before the value's second.
      Add(root, date_time, "bigint", kSqlLess, std::to_string((upper / 1000 + 1) * 1000));
    }
  }
  if (!root.empty()) result.json = root.dump(-1, ' ', false, Json::error_handler_t::replace);
  return result;
}

}  // namespace Tarn::Tool
