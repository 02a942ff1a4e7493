#include "tarn/sql/SqlLiterals.h"

#include <charconv>
#include <cstdint>
#include <limits>

namespace Tarn::Tool {
namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

// Letters, digits, "_", "$" and any byte of a UTF-8 sequence, as SQLite's
// tokenizer has them.
bool IsNameChar(char c) {
  return IsDigit(c) || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_' || c == '$' ||
         static_cast<unsigned char>(c) >= 0x80;
}

// The end of the quoted text opened at `at` (a doubled quote stays inside).
size_t QuotedEnd(std::string_view sql, size_t at) {
  const char close = sql[at] == '[' ? ']' : sql[at];
  for (size_t i = at + 1; i < sql.size(); ++i) {
    if (sql[i] != close) continue;
    if (close != ']' && i + 1 < sql.size() && sql[i + 1] == close) {
      ++i;
      continue;
    }
    return i + 1;
  }
  return sql.size();
}

size_t CommentEnd(std::string_view sql, size_t at) {
  if (sql[at] == '-') {
    const size_t end = sql.find('\n', at);
    return end == std::string_view::npos ? sql.size() : end + 1;
  }
  const size_t end = sql.find("*/", at + 2);
  return end == std::string_view::npos ? sql.size() : end + 2;
}

// The end of the number at `at`: digits, a fraction, an exponent and any
// name characters stuck to it (0x1F, 12abc). `plain` when only digits.
size_t NumberEnd(std::string_view sql, size_t at, bool& plain) {
  size_t i = at;
  while (i < sql.size() && IsDigit(sql[i])) ++i;
  plain = true;
  if (i < sql.size() && sql[i] == '.') {
    plain = false;
    ++i;
    while (i < sql.size() && IsDigit(sql[i])) ++i;
  }
  if (i < sql.size() && (sql[i] == 'e' || sql[i] == 'E')) {
    plain = false;
    ++i;
    if (i < sql.size() && (sql[i] == '+' || sql[i] == '-')) ++i;
  }
  while (i < sql.size() && IsNameChar(sql[i])) {
    plain = false;
    ++i;
  }
  return i;
}

bool AfterMinus(std::string_view sql, size_t at) {
  const size_t before = sql.substr(0, at).find_last_not_of(" \t\r\n");
  return before != std::string_view::npos && sql[before] == '-';
}

// The literal as the signed number of its 64 bits, or itself when it is
// no id past 2^63.
std::string Rewritten(std::string_view sql, size_t at, size_t end) {
  const std::string_view digits = sql.substr(at, end - at);
  uint64_t value = 0;
  auto [stop, ec] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
  if (ec != std::errc() || stop != digits.data() + digits.size() ||
      value <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max()) || AfterMinus(sql, at)) {
    return std::string(digits);
  }
  return "(" + std::to_string(static_cast<int64_t>(value)) + ")";
}

}  // namespace

std::string SignedIdLiterals(std::string_view sql) {
  std::string out;
  out.reserve(sql.size());
  size_t i = 0;
  while (i < sql.size()) {
    const char c = sql[i];
    const char next = i + 1 < sql.size() ? sql[i + 1] : '\0';
    size_t end = i + 1;
    if (c == '\'' || c == '"' || c == '`' || c == '[') {
      end = QuotedEnd(sql, i);
    } else if ((c == '-' && next == '-') || (c == '/' && next == '*')) {
      end = CommentEnd(sql, i);
    } else if (IsDigit(c) || (c == '.' && IsDigit(next))) {
      bool plain = false;
      end = NumberEnd(sql, c == '.' ? i + 1 : i, plain);
      if (plain && c != '.') {
        out += Rewritten(sql, i, end);
        i = end;
        continue;
      }
    } else if (IsNameChar(c) || c == '?' || c == ':' || c == '@') {
      // A name, a blob's x prefix or a parameter, digits and all.
      while (end < sql.size() && IsNameChar(sql[end])) ++end;
    }
    out.append(sql.substr(i, end - i));
    i = end;
  }
  return out;
}

}  // namespace Tarn::Tool
