#pragma once

#include <cstdio>
#include <string>
#include <string_view>
#include <vector>

#include "tarn/sql/SqlValue.h"

namespace Tarn::Tool {

enum class ResultFormat { kTable, kCsv, kJson };

// Reads "table", "csv" or "json"; false for anything else.
bool ParseResultFormat(std::string_view text, ResultFormat& format);

// Writes the results of SQL statements, one after another:
//   table  aligned columns under a header, numbers to the right, long cells
//          cut to `max_width` characters, and the row count below;
//   csv    a header line, then one line per row, quoted as RFC 4180 says;
//          as in sqlite3, NULL is an empty field and an empty text "";
//   json   one array of objects per statement, one object per line, keys in
//          column order (numbers as numbers, NULL as null, blobs as hex).
// Integers marked as_unsigned (64-bit ids) show their 64 bits unsigned.
class ResultPrinter {
 public:
  // `max_width` 0: cells are never cut.
  ResultPrinter(ResultFormat format, std::FILE* out, size_t max_width = 0);

  void Begin(std::vector<std::string> columns);
  void Row(std::vector<SqlValue> values);
  // Ends the statement's result; a table is written only now, once every
  // row is known.
  void End();
  // Ends a result that failed part way, returning the rows written of it: a
  // table shows nothing of it, CSV keeps the rows written, and JSON is left
  // without its closing "]", so that no reader takes a failed answer for a
  // whole one.
  size_t Abandon();

  // How one cell reads in text (for table and csv).
  static std::string Text(const SqlValue& value);

 private:
  void WriteTable();
  // `values` tells an empty text from NULL; none: a header.
  void WriteCsvRow(const std::vector<SqlValue>& values, const std::vector<std::string>& fields);
  void WriteJsonRow(const std::vector<SqlValue>& values);

  ResultFormat format_;
  std::FILE* out_;
  size_t max_width_;
  size_t results_ = 0;  // statements written so far
  size_t rows_ = 0;     // rows of the current one
  std::vector<std::string> columns_;
  std::vector<std::vector<SqlValue>> table_;  // rows a table holds back
};

}  // namespace Tarn::Tool
