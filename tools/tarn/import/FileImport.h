#pragma once

// Importing a file of events: its lines, and what became of them.

#include <cstdint>
#include <istream>
#include <string>

#include "tarn/import/Ingest.h"
#include "tarn/host/EventFeed.h"
#include "tarn/cli/Progress.h"

namespace Tarn::Tool {

// The lines of a file or of standard input, blank ones passed over, with a
// progress bar over its bytes.
class LineReader {
 public:
  // `size` 0: not known.
  LineReader(std::istream& in, uint64_t size);

  // The next line that is not blank; false at the end.
  bool Next(std::string& text);
  // The line Next gives next, without taking it ("" at the end).
  const std::string& Peek();
  // Gives `text`, line `number` of the input, read before this reader
  // began, as the next line.
  void PutBack(std::string text, uint64_t number);
  // The number of the line Next gave last, from 1.
  uint64_t Line() const { return line_; }
  void Finish() { progress_.Finish(); }

 private:
  bool ReadAhead();

  std::istream& in_;
  Progress progress_;
  uint64_t read_ = 0;
  uint64_t line_ = 0;       // of the line given last
  uint64_t ahead_line_ = 0; // of the line read ahead
  bool has_ahead_ = false;
  std::string ahead_;
};

// What an import did.
struct ImportOutcome {
  bool complete = true;  // no line stopped it, and none was refused
  uint64_t refused = 0;
  int64_t first_ms = 0;
  int64_t last_ms = 0;
  std::string summary;  // printed after the store's summary
};

// "FILE:LINE: error" on standard error for a refused line; true when the
// import goes on past it (--skip-bad).
bool ReportRefused(const IngestOptions& options, uint64_t line, const std::string& error,
                   ImportOutcome& outcome);

// Lines in the form `tarn export` writes, stored as they come, or all read
// first and stored in time order with --sort.
ImportOutcome ImportRowLines(const IngestOptions& options, EventFeed& feed, LineReader& lines);

}  // namespace Tarn::Tool
