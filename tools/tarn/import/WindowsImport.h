#pragma once

// Imports Windows event logs: .evtx files, the JSON of the evtx dump tools
// and the JSON lines of log shippers, from files, folders and archives
// (ImportInputs). Every event is read and made into rows first, then the
// rows are stored in time order across all files, since logs come channel
// by channel and file by file, each in its own order. Between the two, the
// process starts and ends that Security repeats after Sysmon are left out,
// and the processes the log shows already running are recorded
// (ProcessLedger). The summary says how many went into which table, how
// many no table takes (by channel and event id), and what could not be read.

#include <memory>
#include <string>
#include <vector>

#include "tarn/import/FileImport.h"

namespace Tarn::Tool {

class WindowsImport {
 public:
  explicit WindowsImport(const IngestOptions& options);
  ~WindowsImport();

  // Reads every document of options.from ("-" reads `standard_input`).
  // False when a refused event stopped it (without --skip-bad).
  bool Read(const std::string& standard_input);

  // Stores what Read read, in time order.
  ImportOutcome Store(EventFeed& feed);

  // The outcome when Read stopped: nothing stored.
  ImportOutcome Stopped();

 private:
  class Events;
  std::unique_ptr<Events> events_;
};

// Whether `text` (the start of a document) holds rows in the form `tarn
// export` writes rather than Windows events.
bool HoldsTarnRows(std::string_view text);

}  // namespace Tarn::Tool
