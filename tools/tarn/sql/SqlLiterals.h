#pragma once

#include <string>
#include <string_view>

namespace Tarn::Tool {

// Rewrites the integer literals of `sql` from 2^63 to 2^64-1 that meet a
// 64-bit id column to the signed number of the same 64 bits, written in
// parentheses.
//
// The tables hold a 64-bit id past 2^63 as that negative number (SQLite's
// integers are signed) and results show it unsigned, as `tarn export` does;
// SQLite itself would read such a literal as an inexact real that matches
// nothing. So an id copied from any output finds its rows. A literal meets
// an id column when it is compared with one (=, ==, !=, <>, <, <=, >, >=,
// either side), lies in an IN list or a BETWEEN of one; the column is named
// alone or after a table or alias ("p.puid"). Anywhere else (a time, an
// expression, a SELECT of the number) a literal is left for SQLite to read,
// as are strings, quoted names, blobs, parameters, comments and a literal
// right after "-", which is a negative number already.
std::string SignedIdLiterals(std::string_view sql);

// Rewrites ts('…') of a text ts() reads to the integer it gives, so that a
// time bound written with it is a literal SQLite knows while it plans the
// statement (the scans of a statement run ahead on every core over the time
// their known bounds leave). A text ts() refuses stays, to fail as it runs.
std::string TimeLiterals(std::string_view sql);

}  // namespace Tarn::Tool
