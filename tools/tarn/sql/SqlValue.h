#pragma once

#include <cstdint>
#include <string>

namespace Tarn::Tool {

// One SQL value as SQLite types it: what a result cell holds and what a
// constraint compares a column with.
struct SqlValue {
  enum class Type : uint8_t { kNull, kInteger, kReal, kText, kBlob };

  Type type = Type::kNull;
  int64_t integer = 0;
  double real = 0;
  std::string text;  // text, or the bytes of a blob
  // An integer of a 64-bit id column: its 64 bits read as unsigned, as the
  // store and `tarn export` have them (SQLite's integers are signed).
  bool as_unsigned = false;

  static SqlValue Integer(int64_t value) {
    SqlValue v;
    v.type = Type::kInteger;
    v.integer = value;
    return v;
  }
  static SqlValue Real(double value) {
    SqlValue v;
    v.type = Type::kReal;
    v.real = value;
    return v;
  }
  static SqlValue Text(std::string value) {
    SqlValue v;
    v.type = Type::kText;
    v.text = std::move(value);
    return v;
  }
  static SqlValue Blob(std::string bytes) {
    SqlValue v;
    v.type = Type::kBlob;
    v.text = std::move(bytes);
    return v;
  }
};

}  // namespace Tarn::Tool
