#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tarn::Storage::OSQuery {

// The type a query gives a constrained column; it decides how the value
// text is read. Named by lower-case texts only: anything else is kUnknown.
enum Affinity : uint8_t {
  kUnknownAffinity = 0,
  kTextAffinity = 1,            // "text"
  kIntegerAffinity = 2,         // "integer": signed 32-bit
  kBigIntAffinity = 3,          // "bigint": signed 64-bit
  kUnsignedBigIntAffinity = 4,  // "unsigned bigint"
  kDoubleAffinity = 5,          // "double"
  kBlobAffinity = 6,            // "blob"
};

// Constraint operators by the numbers the query front end sends.
enum Operator : uint8_t {
  kUnique = 1,
  kEquals = 2,
  kGreater = 4,
  kLessOrEqual = 8,
  kLess = 16,
  kGreaterOrEqual = 32,
  kMatch = 64,
  kLike = 65,
  kGlob = 66,
  kRegexp = 67,
};

Affinity AffinityFromName(std::string_view name);
// True for the ten operator codes above and nothing else.
bool IsOperatorCode(uint64_t code);

// One (column, operator, value) filter. Built by the constraints parser, or
// directly by code that needs a filter of its own.
struct Constraint {
  static constexpr std::string_view kNoName = "<CONSTRAINT>";

  Constraint(uint32_t hash, uint8_t operator_code, std::string value, uint8_t affinity_code)
      : column_hash(hash), op(operator_code), expr(std::move(value)), affinity(affinity_code) {}

  // Reads `expr` by the affinity: decimal integers of the affinity's width,
  // or a finite double. Texts, blobs and unknown affinities need nothing.
  // False when the text does not parse; `number` is then 0.
  bool ParseValue();
  bool IsNumeric() const { return affinity >= kIntegerAffinity && affinity <= kDoubleAffinity; }

  // The operator applied to a text field: byte-wise order, LIKE for 64 and
  // 65; operators that do not apply to texts pass.
  bool MatchText(const char* field, size_t length) const;
  bool MatchText(std::string_view field) const { return MatchText(field.data(), field.size()); }
  // The operator applied to an unsigned field against the parsed value. Only
  // meaningful for numeric affinities; 1 and 64 to 67 pass.
  bool MatchNumber(uint64_t value) const;

  uint32_t column_hash;
  std::string_view column_name = kNoName;  // a view into the owning list, or kNoName
  uint8_t op;
  std::string expr;
  uint8_t affinity;
  union {
    int32_t i32;
    int64_t i64;
    uint64_t u64;
    double f64;
  } number = {};
};

}  // namespace Tarn::Storage::OSQuery
