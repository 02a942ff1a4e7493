#pragma once

// Addresses as people copy them from logs. A row shows an address in one
// spelling (fe80::1), while a log may write FE80::1, fe80:0:0::1, a zone
// suffix (fe80::1%12) or "-" for none; the store compares the row's text.
// So the tool turns an address into the row's spelling before it asks the
// store, and SQLite compares address columns through a collation that does
// the same on both sides.

#include <sqlite3.h>

#include <string>
#include <string_view>

namespace Tarn::Tool {

// The spelling a row shows for `text`: "" for none ("" or "-"), the text
// unchanged when it is no address.
std::string RowSpelling(std::string_view text);

// The collation address columns are declared with.
constexpr const char* kAddressCollation = "ADDRESS";

// Registers kAddressCollation on `db`. False, with `error`, when SQLite
// refuses it.
bool RegisterAddressCollation(sqlite3* db, std::string& error);

// An equality on an address column in a constraints JSON, as `tarn query`
// takes it, rewritten to the row's spelling; the JSON unchanged when it
// does not parse.
std::string WithRowSpellings(const std::string& constraints_json, std::string_view table);

}  // namespace Tarn::Tool
