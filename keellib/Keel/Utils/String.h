#pragma once

#include <cstdarg>
#include <cstdint>
#include <string>
#include <string_view>

#include "Keel/Export.h"

namespace Keel::Utils {

// The host's string: UTF-8 bytes with a capacity set at creation. Appends
// that would pass the capacity fail and leave the string unchanged.
class KEEL_API String {
 public:
  static constexpr uint32_t kUnbounded = 0xFFFFFFFFu;

  String() = default;
  String(std::string_view text) : text_(text) {}  // NOLINT: implicit on purpose

  // Empties the string and bounds it to `capacity` bytes.
  bool Create(uint32_t capacity);

  bool Assign(std::string_view text);
  bool Add(std::string_view text);
  // printf-style append.
  bool AddFormat(const char* format, ...) __attribute__((format(printf, 2, 3)));
  bool AddFormatV(const char* format, va_list args);
  void Clear() { text_.clear(); }

  const char* c_str() const { return text_.c_str(); }
  const std::string& str() const { return text_; }
  std::string_view view() const { return text_; }
  uint32_t Length() const { return static_cast<uint32_t>(text_.size()); }
  uint32_t Capacity() const { return capacity_; }
  bool Empty() const { return text_.empty(); }

  // Conversions of the whole text: no sign for unsigned, no trailing bytes,
  // no overflow. Integers are decimal, or hexadecimal after "0x"; ToInt64
  // takes a leading '-'. ToDouble takes decimal and exponent forms of a
  // finite value only. A failed conversion leaves `out` unchanged.
  bool ToUInt32(uint32_t& out) const;
  bool ToUInt64(uint64_t& out) const;
  bool ToInt64(int64_t& out) const;
  bool ToDouble(double& out) const;

  // Exactly `length` characters at `text` (all of them readable) as an
  // unsigned number in `base` (2 to 36): digits of that base only, no sign,
  // no spaces, no overflow. Strict and silent, because callers test names
  // that are often not numbers at all. A failed conversion leaves `out`
  // unchanged.
  static bool ConvertToUInt16(const char* text, uint32_t base, uint32_t length, uint16_t& out);
  static bool ConvertToUInt8(const char* text, uint32_t base, uint32_t length, uint8_t& out);

  static String FromUInt64(uint64_t value);
  static String FromInt64(int64_t value);

  // True when the bytes are well-formed UTF-8 (no overlong forms, no
  // surrogates, nothing above U+10FFFF).
  static bool IsValidUtf8(std::string_view bytes);

  bool operator==(const String& other) const { return text_ == other.text_; }
  bool operator==(std::string_view other) const { return text_ == other; }

 private:
  std::string text_;
  uint32_t capacity_ = kUnbounded;
};

}  // namespace Keel::Utils
