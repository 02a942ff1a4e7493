#pragma once

#include "tarn/import/FileImport.h"

namespace Tarn::Tool {

// Imports Windows events (WindowsEvents): every line is read and made into
// a row first, then the rows are stored in time order, since exported logs
// come channel by channel, each in its own order. The summary says how many
// went into which table, how many no table takes (by channel and event id)
// and how many were cut to fit a record.
ImportOutcome ImportWindowsEvents(const IngestOptions& options, EventFeed& feed,
                                  LineReader& lines);

}  // namespace Tarn::Tool
