#pragma once

#include <string>

struct sqlite3;

namespace Tarn::Tool {

// The SQL functions tarn adds, for the store's times (date_time is
// milliseconds since 1970, UTC) and for ids that logs write otherwise:
//   ts(TEXT)   the milliseconds of a date or ISO 8601 time, as `tarn export
//              --from` and `tarn ingest` read them: ts('2023-08-16'),
//              ts('2023-08-16 14:00'), ts('2023-08-16T14:00:00.250+02:00');
//              without a zone the time is UTC. A number stays as it is,
//              NULL gives NULL; any other text fails the statement.
//   iso(MS)    the ISO 8601 form of milliseconds: '2023-08-16T14:00:00.250Z'.
//   puid(TEXT) the puid that an imported Windows log gives the process of a
//              ProcessGuid ('{5AA13A44-0D08-68FC-DC1D-000000004002}', braces
//              and case aside), to find its rows: WHERE puid = puid('{...}').
//              NULL gives NULL; a text that is no GUID (or the zero GUID)
//              fails the statement.
// False with `error` when SQLite refuses them.
bool RegisterSqlFunctions(sqlite3* db, std::string& error);

}  // namespace Tarn::Tool
