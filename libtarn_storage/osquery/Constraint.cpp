#include "osquery/Constraint.h"

#include <charconv>
#include <cmath>

#include "osquery/NameHash.h"
#include "osquery/TextCompare.h"

namespace Tarn::Storage::OSQuery {

namespace {

template <typename T>
bool ParseWhole(std::string_view text, T& out) {
  const char* end = text.data() + text.size();
  std::from_chars_result result;
  if constexpr (std::is_floating_point_v<T>) {
    result = std::from_chars(text.data(), end, out, std::chars_format::general);
  } else {
    result = std::from_chars(text.data(), end, out, 10);
  }
  return result.ec == std::errc() && result.ptr == end;
}

template <typename T>
int Order(T a, T b) {
  return a < b ? -1 : (b < a ? 1 : 0);
}

// An unsigned field against a signed value: every negative value is below it.
int CompareSigned(uint64_t field, int64_t value) {
  if (value < 0) return 1;
  return Order(field, static_cast<uint64_t>(value));
}

bool Holds(uint8_t op, int order) {
  switch (op) {
    case kEquals: return order == 0;
    case kGreater: return order > 0;
    case kLessOrEqual: return order <= 0;
    case kLess: return order < 0;
    case kGreaterOrEqual: return order >= 0;
    default: return true;  // unique, match, like, glob, regexp: not applied
  }
}

}  // namespace

Affinity AffinityFromName(std::string_view name) {
  switch (NameHash(name)) {
    case NameHash("text"): return name == "text" ? kTextAffinity : kUnknownAffinity;
    case NameHash("integer"): return name == "integer" ? kIntegerAffinity : kUnknownAffinity;
    case NameHash("bigint"): return name == "bigint" ? kBigIntAffinity : kUnknownAffinity;
    case NameHash("unsigned bigint"):
      return name == "unsigned bigint" ? kUnsignedBigIntAffinity : kUnknownAffinity;
    case NameHash("double"): return name == "double" ? kDoubleAffinity : kUnknownAffinity;
    case NameHash("blob"): return name == "blob" ? kBlobAffinity : kUnknownAffinity;
    default: return kUnknownAffinity;
  }
}

bool IsOperatorCode(uint64_t code) {
  switch (code) {
    case kUnique:
    case kEquals:
    case kGreater:
    case kLessOrEqual:
    case kLess:
    case kGreaterOrEqual:
    case kMatch:
    case kLike:
    case kGlob:
    case kRegexp:
      return true;
    default:
      return false;
  }
}

bool Constraint::ParseValue() {
  number.u64 = 0;
  bool parsed = true;
  switch (affinity) {
    case kIntegerAffinity:
      // A time is milliseconds since 1970, whatever width the requester
      // named: read as 64 bits (a negative value wraps, as a 64-bit one would).
      parsed = column_hash == kDateTimeHash ? ParseWhole(expr, number.u64) ||
                                                  ParseWhole(expr, number.i64)
                                            : ParseWhole(expr, number.i32);
      break;
    case kBigIntAffinity: parsed = ParseWhole(expr, number.i64); break;
    case kUnsignedBigIntAffinity: parsed = ParseWhole(expr, number.u64); break;
    case kDoubleAffinity: parsed = ParseWhole(expr, number.f64) && std::isfinite(number.f64); break;
    default: break;
  }
  if (!parsed) number.u64 = 0;
  return parsed;
}

bool Constraint::MatchText(const char* field, size_t length) const {
  std::string_view text(field, length);
  switch (op) {
    case kEquals: return text == expr;
    case kMatch:
    case kLike: return MatchLike(text, expr);
    default: return Holds(op, CompareText(text, expr));
  }
}

bool Constraint::MatchNumber(uint64_t value) const {
  int order;
  switch (affinity) {
    case kIntegerAffinity: order = CompareSigned(value, number.i32); break;
    case kBigIntAffinity: order = CompareSigned(value, number.i64); break;
    case kUnsignedBigIntAffinity: order = Order(value, number.u64); break;
    case kDoubleAffinity: order = Order(static_cast<double>(value), number.f64); break;
    default: return true;
  }
  return Holds(op, order);
}

}  // namespace Tarn::Storage::OSQuery
