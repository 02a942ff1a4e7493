#include "tarn/sql/SqlFunctions.h"

#include <sqlite3.h>

#include "tarn/cli/TextForms.h"
#include "tarn/import/WindowsValues.h"

namespace Tarn::Tool {
namespace {

// Years 1 to 9999, the range of SQLite's own date functions; outside it
// iso() gives NULL, as they do.
constexpr sqlite3_int64 kEarliestMs = -62'135'596'800'000;  // 0001-01-01
constexpr sqlite3_int64 kLatestMs = 253'402'300'799'999;    // 9999-12-31

void Ts(sqlite3_context* context, int, sqlite3_value** argv) {
  switch (sqlite3_value_type(argv[0])) {
    case SQLITE_NULL: return;
    case SQLITE_INTEGER: sqlite3_result_int64(context, sqlite3_value_int64(argv[0])); return;
    default: break;
  }
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(argv[0]));
  const std::string_view input(text == nullptr ? "" : text,
                               static_cast<size_t>(sqlite3_value_bytes(argv[0])));
  int64_t ms = 0;
  if (!ParseTime(input, /*end_of_day=*/false, ms)) {
    const std::string error =
        "ts() takes a date or an ISO 8601 time such as '2023-08-16', '2023-08-16 14:00' or "
        "'2023-08-16T14:00:00Z' (UTC unless a zone is given), not '" + std::string(input) + "'";
    sqlite3_result_error(context, error.c_str(), -1);
    return;
  }
  sqlite3_result_int64(context, ms);
}

void Iso(sqlite3_context* context, int, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL) return;
  const sqlite3_int64 ms = sqlite3_value_int64(argv[0]);
  if (ms < kEarliestMs || ms > kLatestMs) return;
  const std::string text = FormatTime(ms, /*with_ms=*/true);
  sqlite3_result_text(context, text.data(), static_cast<int>(text.size()), SQLITE_TRANSIENT);
}

void Puid(sqlite3_context* context, int, sqlite3_value** argv) {
  if (sqlite3_value_type(argv[0]) == SQLITE_NULL) return;
  const auto* text = reinterpret_cast<const char*>(sqlite3_value_text(argv[0]));
  const std::string_view guid(text == nullptr ? "" : text,
                              static_cast<size_t>(sqlite3_value_bytes(argv[0])));
  const uint64_t puid = Windows::PuidOf(guid);  // 0: no GUID, or the zero GUID of no process
  if (puid == 0) {
    const std::string error = "puid() takes a ProcessGuid such as "
                              "'{5AA13A44-0D08-68FC-DC1D-000000004002}', not '" +
                              std::string(guid.substr(0, 60)) + "'";
    sqlite3_result_error(context, error.c_str(), -1);
    return;
  }
  // The id's 64 bits, as the puid columns hold them.
  sqlite3_result_int64(context, static_cast<sqlite3_int64>(puid));
}

}  // namespace

bool RegisterSqlFunctions(sqlite3* db, std::string& error) {
  const int flags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  for (const auto& [name, function] :
       {std::pair{"ts", &Ts}, std::pair{"iso", &Iso}, std::pair{"puid", &Puid}}) {
    if (sqlite3_create_function_v2(db, name, 1, flags, nullptr, function, nullptr, nullptr,
                                   nullptr) != SQLITE_OK) {
      error = std::string("SQLite refused the function ") + name + "(): " + sqlite3_errmsg(db);
      return false;
    }
  }
  return true;
}

}  // namespace Tarn::Tool
