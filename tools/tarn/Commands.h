#pragma once

// The tool's commands. Each returns the process exit status: 0 done, 1 the
// command ran into a fault (bad input, a damaged store, a store in use).

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "tarn/ModuleHost.h"
#include "tarn/QueryClient.h"

namespace Tarn::Tool {

struct GlobalOptions {
  bool verbose = false;
  bool quiet = false;
};

struct IngestOptions {
  HostOptions host;
  // Synthetic events.
  bool synthetic = false;
  uint32_t days = 7;
  uint64_t events = 100'000;
  uint64_t seed = 1;
  std::string end;  // a time; empty: now
  // Events from a JSON lines file ("-": standard input).
  std::string from;
  std::string format = "auto";  // "tarn" (export's rows), "windows" (event logs), "auto"
  bool sort = false;
  bool skip_bad = false;
  // Print the store's telemetry report once the events are in.
  bool telemetry = false;
};

struct ExportOptions {
  HostOptions host;
  std::vector<std::string> tables;
  std::string from;
  std::string to;
  std::string out;  // empty or "-": standard output
};

struct InfoOptions {
  std::string store;
  bool json = false;
  bool tables = true;
  // When given: how the store stands against them, and what a store opened
  // with them would evict.
  std::optional<uint64_t> max_size;
  std::optional<uint32_t> max_days;
};

struct TelemetryOptions {
  HostOptions host;
};

struct DumpIndexOptions {
  std::string store;
  std::string out;  // empty: "index.json" in the store; "-": standard output
};

struct SqlOptions {
  HostOptions host;
  QueryLimits limits;  // unset: the widest the store accepts
  std::string format = "table";
  uint32_t max_width = 60;  // characters of a table cell; 0: no limit
  bool stats = false;       // what the statements cost, on standard error
  // Each runs in turn, one statement or several separated by ";". "-"
  // reads standard input; none reads it too, or opens the interactive shell
  // when standard input is a terminal.
  std::vector<std::string> statements;
};

struct QueryOptions {
  HostOptions host;
  QueryLimits limits;  // unset: the store's defaults, as an agent's requester meets them
  std::string table;
  std::string columns;
  std::string constraints;
  std::string token;  // the hexadecimal position an earlier answer gave
  uint16_t page = 0;
};

struct DemoOptions {
  std::string store;  // empty: a fresh temporary directory, removed afterwards
  uint32_t days = 3;
  uint64_t events = 60'000;
  uint64_t seed = 1;
  bool keep = false;
};

int RunIngest(const IngestOptions& options);
int RunExport(const ExportOptions& options);
int RunInfo(const InfoOptions& options);
int RunVerify(const std::string& store);
int RunRecover(const std::string& store);
int RunTelemetry(const TelemetryOptions& options);
int RunDumpIndex(const DumpIndexOptions& options);
int RunSql(const SqlOptions& options);
int RunQuery(const QueryOptions& options);
int RunDemo(const DemoOptions& options);

// "tarn: <message>" on standard error.
void PrintError(const std::string& message);
// The storage directory as an absolute path.
std::string AbsoluteStore(const std::string& store);

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
