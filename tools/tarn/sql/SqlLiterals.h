#pragma once

#include <string>
#include <string_view>

namespace Tarn::Tool {

// Rewrites the integer literals of `sql` from 2^63 to 2^64-1 to the signed
// number of the same 64 bits, written in parentheses.
//
// The tables hold a 64-bit id past 2^63 as that negative number (SQLite's
// integers are signed) and results show it unsigned, as `tarn export` does;
// SQLite itself would read such a literal as an inexact real that matches
// nothing. So an id copied from any output finds its rows. Strings, quoted
// names, blobs, parameters and comments are left as they are, and so is a
// literal right after "-", which is a negative number already (such as one
// copied from an older output).
std::string SignedIdLiterals(std::string_view sql);

}  // namespace Tarn::Tool
