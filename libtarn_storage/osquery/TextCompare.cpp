#include "osquery/TextCompare.h"

#include <algorithm>
#include <cstdint>
#include <cstring>

namespace Tarn::Storage::OSQuery {

namespace {

uint8_t FoldAscii(uint8_t c) { return (c >= 'A' && c <= 'Z') ? static_cast<uint8_t>(c + 32) : c; }

// Bytes of the character starting at `i`: its lead byte and the
// continuation bytes that follow, so that "_" never splits a character.
size_t CharLength(std::string_view text, size_t i) {
  size_t end = i + 1;
  while (end < text.size() && (static_cast<uint8_t>(text[end]) & 0xC0) == 0x80) ++end;
  return end - i;
}

}  // namespace

int CompareText(std::string_view a, std::string_view b) {
  size_t common = std::min(a.size(), b.size());
  int order = common == 0 ? 0 : std::memcmp(a.data(), b.data(), common);
  if (order == 0) {
    if (a.size() == b.size()) return 0;
    return a.size() < b.size() ? -1 : 1;
  }
  return order < 0 ? -1 : 1;
}

// Greedy matching that backtracks only to the last "%": a later "%" can
// match everything an earlier one could, so the earlier choice never needs
// to be revisited. Time is bounded by text times pattern, with no recursion.
bool MatchLike(std::string_view text, std::string_view pattern) {
  size_t t = 0;
  size_t p = 0;
  size_t star = std::string_view::npos;  // pattern position after the last "%"
  size_t resume = 0;                     // text position that "%" matched up to
  while (t < text.size()) {
    if (p < pattern.size() && pattern[p] == '%') {
      while (p < pattern.size() && pattern[p] == '%') ++p;
      star = p;
      resume = t;
      continue;
    }
    if (p < pattern.size() && pattern[p] == '_') {
      t += CharLength(text, t);
      ++p;
      continue;
    }
    if (p < pattern.size() && FoldAscii(static_cast<uint8_t>(pattern[p])) ==
                                  FoldAscii(static_cast<uint8_t>(text[t]))) {
      ++t;
      ++p;
      continue;
    }
    if (star == std::string_view::npos) return false;
    resume += CharLength(text, resume);
    t = resume;
    p = star;
  }
  while (p < pattern.size() && pattern[p] == '%') ++p;
  return p == pattern.size();
}

}  // namespace Tarn::Storage::OSQuery
