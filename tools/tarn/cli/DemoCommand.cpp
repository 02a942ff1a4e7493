// tarn demo: a fresh store, a few days of a synthetic endpoint in it, and
// what the store made of them.

#include <CLI/CLI.hpp>

#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/import/Ingest.h"
#include "tarn/cli/Progress.h"
#include "tarn/offline/StoreStats.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

struct DemoOptions {
  std::string store;  // empty: a fresh temporary directory, removed afterwards
  uint32_t days = 3;
  uint64_t events = 60'000;
  uint64_t seed = 1;
  bool keep = false;
};


// Small blocks compress quickly, so the demo's store is written in seconds.
constexpr uint32_t kDemoBlockSize = 256 * 1024;
constexpr size_t kDemoTopTables = 12;
constexpr size_t kDemoCellWidth = 56;

std::string MakeTemporaryStore(std::string& error) {
  const char* base = std::getenv("TMPDIR");
  std::string pattern =
      std::string(base != nullptr && base[0] != '\0' ? base : "/tmp") + "/tarn-demo-XXXXXX";
  if (mkdtemp(pattern.data()) == nullptr) {
    error = "cannot create a temporary directory from " + pattern;
    return "";
  }
  return pattern;
}

// What an investigator asks of an endpoint's week, over the synthetic
// endpoint's story: each a title and its SQL.
struct DemoQuery {
  const char* title;
  const char* sql;
};

const DemoQuery kDemoQueries[] = {
    {"Encoded PowerShell command lines (the first step of many intrusions)",
     "SELECT datetime(date_time / 1000, 'unixepoch') AS time, parent_pid, pid,\n"
     "       substr(command_line, instr(command_line, ' -')) AS arguments\n"
     "FROM edr_process_create WHERE command_line LIKE '%powershell% -enc %'\n"
     "ORDER BY date_time"},
    {"Executables written under a temporary or download folder, then run",
     "SELECT f.path AS executable, datetime(f.date_time / 1000, 'unixepoch') AS written,\n"
     "       (p.date_time - f.date_time) / 1000 AS run_after_s, w.process_name AS written_by\n"
     "FROM edr_file_create f\n"
     "JOIN edr_process_create p ON p.path = f.path AND p.date_time >= f.date_time\n"
     "LEFT JOIN edr_process_create w ON w.puid = f.puid\n"
     "WHERE f.path LIKE '%\\Temp\\%.exe' OR f.path LIKE '%\\Downloads\\%.exe'\n"
     "ORDER BY f.date_time LIMIT 10"},
    {"Remote addresses that no installed program talks to, and who does",
     "WITH conn AS (\n"
     "  SELECT puid, remote_ip, remote_port FROM edr_network_generic_connect UNION ALL\n"
     "  SELECT puid, remote_ip, remote_port FROM edr_network_ssl_connect UNION ALL\n"
     "  SELECT puid, remote_ip, remote_port FROM edr_network_http_connect)\n"
     "SELECT c.remote_ip AS address, c.remote_port AS port, count(*) AS connections,\n"
     "       count(DISTINCT p.path) AS programs, min(p.path) AS for_example\n"
     "FROM conn c JOIN edr_process_create p ON p.puid = c.puid\n"
     "GROUP BY 1, 2\n"
     "HAVING max(p.path LIKE 'C:\\Program Files%' OR p.path LIKE 'C:\\Windows\\%'\n"
     "           OR p.path LIKE '/usr/%' OR p.path LIKE '/bin/%') = 0\n"
     "ORDER BY connections DESC"},
    {"Top parents by child count (a parent started before the first event shows its pid)",
     "SELECT c.parent_pid, count(*) AS children, count(DISTINCT c.process_name) AS programs,\n"
     "       group_concat(DISTINCT c.process_name) AS started\n"
     "FROM edr_process_create c GROUP BY c.parent_puid ORDER BY children DESC LIMIT 8"},
};

// Runs `tarn sql` on one query in a fresh run of this program: the store's
// module shuts protobuf down when it goes, and the ingest's has gone.
bool RunSqlProgram(const std::string& store, const char* sql) {
  std::fflush(stdout);
  std::fflush(stderr);
  const std::string width = std::to_string(kDemoCellWidth);
  const pid_t child = fork();
  if (child == 0) {
    execl("/proc/self/exe", "tarn", "--quiet", "sql", "--store", store.c_str(), "--width",
          width.c_str(), sql, static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  if (child < 0 || waitpid(child, &status, 0) != child) return false;
  return WIFEXITED(status) && WEXITSTATUS(status) == 0;
}

// False when a query failed (said on standard error).
bool RunDemoQueries(const std::string& store) {
  for (const DemoQuery& query : kDemoQueries) {
    std::printf("\n== %s\n\n%s\n\n", query.title, query.sql);
    const int64_t started = RealNowMs();
    if (!RunSqlProgram(store, query.sql)) {
      PrintError("the query did not run");
      return false;
    }
    std::printf("%s\n", FormatSeconds(static_cast<double>(RealNowMs() - started) / 1000).c_str());
  }
  return true;
}


int RunDemo(const DemoOptions& options) {
  std::string error;
  const bool temporary = options.store.empty();
  const std::string store = temporary ? MakeTemporaryStore(error) : AbsoluteStore(options.store);
  if (store.empty()) {
    PrintError(error);
    return 1;
  }
  std::printf("tarn demo: %s synthetic events of one endpoint over %u days into %s\n\n",
              FormatCount(options.events).c_str(), options.days, store.c_str());
  std::fflush(stdout);

  IngestOptions ingest;
  ingest.host.store = store;
  ingest.host.limits.block_size = kDemoBlockSize;
  ingest.synthetic = true;
  ingest.days = options.days;
  ingest.events = options.events;
  ingest.seed = options.seed;
  IngestResult result;
  bool ok = IngestSynthetic(ingest, result, error);
  if (!ok) {
    PrintError(error);
  } else {
    std::printf("ingested %s events (%s of records) in %s: %s events/s\n\n",
                FormatCount(result.stored).c_str(), FormatBytes(result.record_bytes).c_str(),
                FormatSeconds(result.seconds).c_str(),
                FormatCount(static_cast<uint64_t>(static_cast<double>(result.stored) /
                                                  std::max(result.seconds, 1e-3)))
                    .c_str());
    StoreStats stats;
    ok = GatherStats(store, true, stats, error);
    if (ok) {
      std::fputs(FormatStats(store, stats, kDemoTopTables).c_str(), stdout);
      ok = stats.events == result.stored && stats.unreadable_blocks == 0;
      if (!ok) PrintError("the store does not hold every event it was given");
    } else {
      PrintError(error);
    }
    if (!RunDemoQueries(store)) ok = false;
  }
  if (temporary && !options.keep) {
    std::error_code ec;
    std::filesystem::remove_all(store, ec);
  } else {
    std::printf("\nthe store stays in %s (try `tarn info --store %s`)\n", store.c_str(),
                store.c_str());
  }
  return ok ? 0 : 1;
}

class DemoCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(
        "demo", "Fill a temporary store with a few days of a synthetic endpoint and show it");
    command->add_option("--store", options_.store, "use this directory and keep it");
    command->add_option("--days", options_.days, "days of events (3)");
    command->add_option("--events", options_.events, "how many events (60000)");
    command->add_option("--seed", options_.seed, "the same seed gives the same events (1)");
    command->add_flag("--keep", options_.keep, "keep the temporary store");
    return command;
  }

  int Run() override { return RunDemo(options_); }

 private:
  DemoOptions options_;
};

}  // namespace

std::unique_ptr<Command> MakeDemoCommand() { return std::make_unique<DemoCommand>(); }

}  // namespace Tarn::Tool
