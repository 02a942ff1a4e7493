#pragma once

// Putting events into a store: what `tarn ingest` was asked to do, and what
// it did.

#include <cstdint>
#include <string>
#include <vector>

#include "tarn/host/ModuleHost.h"

namespace Tarn::Tool {

struct IngestOptions {
  HostOptions host;
  // Synthetic events.
  bool synthetic = false;
  uint32_t days = 7;
  uint64_t events = 100'000;
  uint64_t seed = 1;
  std::string end;  // a time; empty: now
  // Event logs: files, folders, archives ("-": standard input).
  std::vector<std::string> from;
  std::string format = "auto";  // "tarn" (export's rows), "windows" (event logs), "auto"
  bool sort = false;
  bool skip_bad = false;
  // Print the store's telemetry report once the events are in.
  bool telemetry = false;
};

// What an ingest did, for its summary and for the demo.
struct IngestResult {
  uint64_t stored = 0;
  uint64_t record_bytes = 0;
  double seconds = 0;
  int64_t first_ms = 0;
  int64_t last_ms = 0;
  uint64_t cut = 0;  // events larger than a record, stored with texts cut
};

// Ingests synthetic events with `options` into the store; false with
// `error` when it could not.
bool IngestSynthetic(const IngestOptions& options, IngestResult& result, std::string& error);

}  // namespace Tarn::Tool
