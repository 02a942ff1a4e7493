#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include <google/protobuf/message.h>

#include "osquery/Tables.h"

namespace Tarn::Tool {

// The JSON lines form of events: one object per line, "table" first, then
// every column of the table in schema order. Numbers are JSON numbers (a
// uint64 keeps all its digits), texts are strings, and address and list
// columns carry their row forms ("10.0.0.5", "a,b", "1,2"), so that what
// export writes, import reads back to the same event.
//
//   {"table":"edr_process_create","date_time":1763712000123,"pid":4242,...}
class RowJson {
 public:
  RowJson() = default;
  RowJson(const RowJson&) = delete;
  RowJson& operator=(const RowJson&) = delete;

  // Reads one line into the row message of its table, owned by this object
  // and reused by the next call for that table. Columns the line leaves out
  // are 0 or empty. "date_time" is required: milliseconds since 1970, or an
  // ISO 8601 text. False with `error` naming what is wrong.
  bool Parse(std::string_view line, google::protobuf::Message*& row, std::string& error);

  // The blank row message of a table, or null when there is no such table.
  google::protobuf::Message* Blank(std::string_view table);

  // The line of a row (no newline).
  static std::string Write(const google::protobuf::Message& row);

  // The table of a row message, or null.
  static const Storage::OSQuery::TableInfo* TableOf(const google::protobuf::Message& row);

 private:
  std::map<std::string, std::unique_ptr<google::protobuf::Message>, std::less<>> rows_;
};

}  // namespace Tarn::Tool
