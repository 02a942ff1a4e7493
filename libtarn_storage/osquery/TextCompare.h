#pragma once

#include <string_view>

namespace Tarn::Storage::OSQuery {

// Byte-wise order of two texts, bytes taken as unsigned: -1, 0 or 1. When
// one is a prefix of the other the shorter is the smaller ("ab" < "abc").
int CompareText(std::string_view a, std::string_view b);

// SQL LIKE over the whole text, without an escape character: "%" matches any
// run of characters (none included), "_" exactly one UTF-8 character, and
// every other byte itself, ASCII letters in either case.
bool MatchLike(std::string_view text, std::string_view pattern);

}  // namespace Tarn::Storage::OSQuery
