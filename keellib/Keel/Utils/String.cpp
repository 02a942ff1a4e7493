#include "Keel/Utils/String.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <new>

#include "Keel/Log.h"

namespace Keel::Utils {
namespace {

// Keel::Log::Utils identifiers of this file.
enum Message : uint32_t {
  kBeyondCapacity = 1,
  kFormatFailed = 2,
  kOutOfMemory = 3,
};

// Whole text as an unsigned number no larger than `limit`: decimal digits,
// or "0x"/"0X" and hexadecimal digits. No sign, no spaces.
bool ParseUnsigned(std::string_view text, uint64_t limit, uint64_t& out) {
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    base = 16;
    text.remove_prefix(2);
  }
  if (text.empty()) return false;
  uint64_t value = 0;
  const char* end = text.data() + text.size();
  auto [ptr, ec] = std::from_chars(text.data(), end, value, base);
  // from_chars would take a '-' for a signed type only; unsigned is safe.
  if (ec != std::errc() || ptr != end || value > limit) return false;
  out = value;
  return true;
}

// Exactly `length` characters in `base`, no larger than `limit`.
bool ParseFixed(const char* text, uint32_t base, uint32_t length, uint64_t limit, uint64_t& out) {
  // from_chars wants a base of 2 to 36; a null or empty field is no number.
  if (text == nullptr || length == 0 || base < 2 || base > 36) return false;
  uint64_t value = 0;
  const char* end = text + length;
  auto [ptr, ec] = std::from_chars(text, end, value, static_cast<int>(base));
  if (ec != std::errc() || ptr != end || value > limit) return false;
  out = value;
  return true;
}

// Length of the well-formed UTF-8 sequence at the start of `s`, or 0.
size_t Utf8SequenceLength(const unsigned char* s, size_t available) {
  unsigned char c = s[0];
  if (c < 0x80) return 1;
  size_t length;
  unsigned char low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (c >= 0xC2 && c <= 0xDF) {
    length = 2;
  } else if (c >= 0xE0 && c <= 0xEF) {
    length = 3;
    if (c == 0xE0) low = 0xA0;   // overlong below U+0800
    if (c == 0xED) high = 0x9F;  // surrogates U+D800-U+DFFF
  } else if (c >= 0xF0 && c <= 0xF4) {
    length = 4;
    if (c == 0xF0) low = 0x90;   // overlong below U+10000
    if (c == 0xF4) high = 0x8F;  // above U+10FFFF
  } else {
    return 0;  // continuation byte, overlong C0/C1 lead or F5-FF
  }
  if (available < length || s[1] < low || s[1] > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if ((s[i] & 0xC0) != 0x80) return 0;
  }
  return length;
}

}  // namespace

bool String::Create(uint32_t capacity) {
  text_.clear();
  capacity_ = capacity;
  return true;
}

bool String::Assign(std::string_view text) {
  if (text.size() > capacity_) {
    KEEL_LOG(Log::Error, Log::Utils, kBeyondCapacity, text.size(), capacity_, 0);
    return false;
  }
  try {
    text_.assign(text);
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kOutOfMemory, text.size(), 0, 0);
    return false;
  }
  return true;
}

bool String::Add(std::string_view text) {
  if (text.size() > capacity_ - text_.size()) {
    KEEL_LOG(Log::Error, Log::Utils, kBeyondCapacity, text_.size() + text.size(), capacity_, 0);
    return false;
  }
  try {
    text_.append(text);
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kOutOfMemory, text_.size() + text.size(), 0, 0);
    return false;
  }
  return true;
}

bool String::AddFormat(const char* format, ...) {
  va_list args;
  va_start(args, format);
  bool ok = AddFormatV(format, args);
  va_end(args);
  return ok;
}

bool String::AddFormatV(const char* format, va_list args) {
  // First pass measures, second writes straight behind the current text.
  va_list measure;
  va_copy(measure, args);
  int length = std::vsnprintf(nullptr, 0, format, measure);
  va_end(measure);
  if (length < 0) {
    KEEL_LOG(Log::Error, Log::Utils, kFormatFailed, text_.size(), 0, 0);
    return false;
  }
  size_t old_size = text_.size();
  if (static_cast<uint64_t>(length) > capacity_ - old_size) {
    KEEL_LOG(Log::Error, Log::Utils, kBeyondCapacity, old_size + length, capacity_, 0);
    return false;
  }
  try {
    text_.resize(old_size + length);
  } catch (const std::exception&) {
    KEEL_LOG(Log::Error, Log::Utils, kOutOfMemory, old_size + length, 0, 0);
    return false;
  }
  // resize keeps a terminator slot past size(), so length + 1 bytes fit.
  std::vsnprintf(text_.data() + old_size, length + 1, format, args);
  return true;
}

bool String::ToUInt32(uint32_t& out) const {
  uint64_t value;
  if (!ParseUnsigned(text_, UINT32_MAX, value)) return false;
  out = static_cast<uint32_t>(value);
  return true;
}

bool String::ToUInt64(uint64_t& out) const { return ParseUnsigned(text_, UINT64_MAX, out); }

bool String::ToInt64(int64_t& out) const {
  std::string_view text = text_;
  bool negative = !text.empty() && text[0] == '-';
  if (negative) text.remove_prefix(1);
  // The magnitude of INT64_MIN is one more than INT64_MAX.
  uint64_t limit = negative ? uint64_t{INT64_MAX} + 1 : uint64_t{INT64_MAX};
  uint64_t magnitude;
  if (!ParseUnsigned(text, limit, magnitude)) return false;
  out = negative ? static_cast<int64_t>(0 - magnitude) : static_cast<int64_t>(magnitude);
  return true;
}

bool String::ToDouble(double& out) const {
  // Decimal or exponent form only; no sign prefix '+', no inf or nan.
  const char* begin = text_.data();
  const char* end = begin + text_.size();
  double value;
  auto [ptr, ec] = std::from_chars(begin, end, value);
  if (text_.empty() || ec != std::errc() || ptr != end || !std::isfinite(value)) return false;
  out = value;
  return true;
}

bool String::ConvertToUInt16(const char* text, uint32_t base, uint32_t length, uint16_t& out) {
  uint64_t value;
  if (!ParseFixed(text, base, length, UINT16_MAX, value)) return false;
  out = static_cast<uint16_t>(value);
  return true;
}

bool String::ConvertToUInt8(const char* text, uint32_t base, uint32_t length, uint8_t& out) {
  uint64_t value;
  if (!ParseFixed(text, base, length, UINT8_MAX, value)) return false;
  out = static_cast<uint8_t>(value);
  return true;
}

String String::FromUInt64(uint64_t value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof(digits), value);
  return String(std::string_view(digits, result.ptr - digits));
}

String String::FromInt64(int64_t value) {
  char digits[24];
  auto result = std::to_chars(digits, digits + sizeof(digits), value);
  return String(std::string_view(digits, result.ptr - digits));
}

bool String::IsValidUtf8(std::string_view bytes) {
  const auto* s = reinterpret_cast<const unsigned char*>(bytes.data());
  size_t remaining = bytes.size();
  while (remaining > 0) {
    size_t length = Utf8SequenceLength(s, remaining);
    if (length == 0) return false;
    s += length;
    remaining -= length;
  }
  return true;
}

}  // namespace Keel::Utils
