// tarn ingest: synthetic events, or events from a JSON lines file.

#include <CLI/CLI.hpp>

#include <google/protobuf/message.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/host/EventFeed.h"
#include "tarn/import/FileImport.h"
#include "tarn/cli/Progress.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreStats.h"
#include "tarn/synthetic/Synthetic.h"
#include "tarn/cli/TextForms.h"
#include "tarn/import/WindowsEvents.h"
#include "tarn/import/WindowsImport.h"

namespace Tarn::Tool {
namespace {

constexpr int64_t kDayMs = 86'400'000;

double SecondsSince(std::chrono::steady_clock::time_point start) {
  return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

// Hands the open block over (so every event is in a compressed block and
// readable), prints a telemetry report when asked, and closes the store.
bool Finish(ModuleHost& host, bool telemetry, std::string& error) {
  if (auto* storage = host.Storage()) {
    // The writer may still be compressing: say so rather than sit silent.
    if (Progress::Shown()) std::fputs("writing the last blocks...", stderr);
    storage->Flush();
    if (Progress::Shown()) std::fputs("\r\x1b[K", stderr);
  }
  if (telemetry && host.module()->OnNotification(1) && host.reports().SentCount() == 0) {
    std::fprintf(stderr, "tarn: the store sent no telemetry report (it wrote no block)\n");
  }
  return host.Close(error);
}

void PrintSummary(const std::string& store, const IngestResult& result) {
  std::printf(
      "stored %s (%s of records) in %s: %s events/s\n", Counted(result.stored, "event").c_str(),
      FormatBytes(result.record_bytes).c_str(), FormatSeconds(result.seconds).c_str(),
      FormatCount(result.seconds > 0
                      ? static_cast<uint64_t>(static_cast<double>(result.stored) / result.seconds)
                      : result.stored)
          .c_str());
  if (result.cut != 0) {
    std::printf("longest texts cut to fit a record (65,535 bytes) in %s\n",
                Counted(result.cut, "event").c_str());
  }
  if (result.stored != 0) {
    std::printf("time span %s to %s\n", FormatTime(result.first_ms).c_str(),
                FormatTime(result.last_ms).c_str());
  }
  StoreStats stats;
  std::string error;
  if (GatherStats(store, false, stats, error)) {
    std::printf("the store now holds %s in %s on disk",
                Counted(stats.events + stats.pending_events, "event").c_str(),
                FormatBytes(stats.listing.total_size).c_str());
    if (stats.raw_bytes != 0) std::printf(" (compression ratio %.3f)", stats.Ratio());
    std::printf("\n");
  }
}

// ---- From a file ------------------------------------------------------------

// Windows events when the option says so, or when the first line looks like
// one; else rows in the form export writes.
bool IsWindows(const IngestOptions& options, LineReader& lines) {
  if (options.format != "auto") return options.format == "windows";
  return Windows::LooksLikeEvent(lines.Peek());
}

int IngestFile(const IngestOptions& options) {
  std::ifstream file;
  std::istream* in = &std::cin;
  uint64_t size = 0;
  if (options.from != "-") {
    file.open(options.from, std::ios::binary);
    if (!file) {
      PrintError("cannot open " + options.from);
      return 1;
    }
    std::error_code ec;
    size = std::filesystem::file_size(options.from, ec);
    if (ec) size = 0;
    in = &file;
  }
  ModuleHost host;
  std::string error;
  if (!host.Open(options.host, error)) {
    PrintError(error);
    return 1;
  }
  EventFeed feed(host, host.NewestStoredAtOpen());
  LineReader lines(*in, size);
  auto start = std::chrono::steady_clock::now();
  // Each import drops its row messages before it returns: closing the store
  // shuts protobuf down.
  const ImportOutcome outcome = IsWindows(options, lines)
                                    ? ImportWindowsEvents(options, feed, lines)
                                    : ImportRowLines(options, feed, lines);
  const IngestResult result{feed.Stored(), feed.RecordBytes(), SecondsSince(start),
                            outcome.first_ms, outcome.last_ms, feed.Cut()};
  bool closed = Finish(host, options.telemetry, error);
  if (!closed) PrintError(error);
  if (!outcome.complete && !options.skip_bad) {
    const uint64_t kept = feed.Stored();
    const std::string before =
        kept == 0   ? "nothing before it was stored"
        : kept == 1 ? "the event before it is stored"
                    : "the " + Counted(kept, "event") + " before it are stored";
    std::fprintf(stderr, "tarn: import stopped at the line above; %s\n", before.c_str());
  } else if (outcome.refused != 0) {
    std::fprintf(stderr, "tarn: %s refused, %s stored\n", Counted(outcome.refused, "line").c_str(),
                 Counted(feed.Stored(), "event").c_str());
  }
  PrintSummary(options.host.store, result);
  std::fputs(outcome.summary.c_str(), stdout);
  return outcome.complete && closed ? 0 : 1;
}

}  // namespace

namespace {

// The span of time synthetic events fill, from --end and --days; false,
// with `error`, when the options do not make one.
bool SyntheticSpan(const IngestOptions& options, int64_t& start, int64_t& end,
                   std::string& error) {
  const int64_t now = RealNowMs();
  end = now;
  if (!options.end.empty()) {
    if (!ParseTime(options.end, true, end)) {
      error = "--end takes a date or time such as 2026-11-21 or 2026-11-21T08:00:00Z, not \"" +
              options.end + "\"";
      return false;
    }
    if (end > now) {
      error = "--end " + options.end + " lies in the future; synthetic events are always past";
      return false;
    }
    end = std::min(end + 1, now);  // --end names the last moment events may have
  }
  if (options.days == 0 || options.events == 0) {
    error = "--days and --events must be at least 1";
    return false;
  }
  start = end - int64_t{options.days} * kDayMs;
  return true;
}

}  // namespace

bool IngestSynthetic(const IngestOptions& options, IngestResult& result, std::string& error) {
  int64_t start = 0;
  int64_t end = 0;
  if (!SyntheticSpan(options, start, end, error)) return false;
  ModuleHost host;
  if (!host.Open(options.host, error)) return false;
  const int64_t newest = host.NewestStoredAtOpen();
  if (newest >= start) {
    // The store only moves forward in time: begin after what it holds.
    start = (newest / 1000 + 1) * 1000;
    if (start >= end) {
      error = "the store already holds events up to " + FormatTime(newest) +
              ", so there is no room before --end for new ones; choose a later --end or another "
              "store";
      return false;
    }
    std::fprintf(stderr, "tarn: the store holds events up to %s; the new ones start after it\n",
                 FormatTime(newest).c_str());
  }
  EventFeed feed(host, newest);
  auto started = std::chrono::steady_clock::now();
  bool ok = true;
  {
    // The row messages go before the store closes: closing shuts protobuf down.
    SyntheticEvents events({options.events, options.seed, start, end});
    Progress progress("ingest", options.events, "events");
    while (const google::protobuf::Message* row = events.Next()) {
      if (!feed.Add(*row, error)) {
        ok = false;
        break;
      }
      progress.Update(feed.Stored());
    }
  }
  std::string close_error;
  bool closed = Finish(host, options.telemetry, close_error);
  result.stored = feed.Stored();
  result.record_bytes = feed.RecordBytes();
  result.seconds = SecondsSince(started);
  result.first_ms = start;
  result.last_ms = end - 1;
  if (ok && !closed) error = close_error;
  return ok && closed;
}

namespace {

int RunIngest(const IngestOptions& options) {
  if (options.synthetic == !options.from.empty()) {
    PrintError("ingest takes either --synthetic or --from FILE");
    return kUsageError;
  }
  if (!options.from.empty()) return IngestFile(options);
  IngestResult result;
  std::string error;
  int64_t start = 0;
  int64_t end = 0;
  if (!SyntheticSpan(options, start, end, error)) {
    PrintError(error);
    return kUsageError;
  }
  if (!IngestSynthetic(options, result, error)) {
    PrintError(error);
    return 1;
  }
  PrintSummary(options.host.store, result);
  return 0;
}

}  // namespace

class IngestCommand : public Command {
 public:
  CLI::App* Add(CLI::App& app) override {
    CLI::App* command = app.add_subcommand(
        "ingest", "Put events into a store: synthetic ones, or JSON lines from a file");
    command->footer(
        "Events go in through the storage module, each filed on its own day and "
        "second. Times must lie in the past and not before the newest stored "
        "event. Limits apply to this run; give the same ones each time.");
    AddStoreOption(command, options_.host.store);
    CLI::Option* synthetic = command->add_flag(
        "--synthetic", options_.synthetic,
        "events of a simulated endpoint (all 135 tables), ending now or at --end");
    command->add_option("--days", options_.days, "days the synthetic events span (7)");
    command->add_option("--events", options_.events, "how many synthetic events (100000)");
    command->add_option("--seed", options_.seed, "the same seed gives the same events (1)");
    command->add_option("--end", options_.end,
                        "last moment of the synthetic span (a date or ISO 8601 time; now)");
    CLI::Option* from = command->add_option(
        "--from", options_.from,
        "JSON lines to import, as `tarn export` writes them or Windows event logs (\"-\": "
        "standard input)");
    synthetic->excludes(from);
    command
        ->add_option("--format", options_.format,
                     "what the file holds: tarn (rows as `tarn export` writes them), windows "
                     "(Windows event logs as JSON lines: Sysmon, Security, System, PowerShell) "
                     "or auto (known by its first line; the default)")
        ->check(CLI::IsMember({"auto", "tarn", "windows"}));
    command->add_flag("--sort", options_.sort, "order the file's events by time before storing");
    command->add_flag("--skip-bad", options_.skip_bad,
                      "report refused lines and go on (without it the first one stops the "
                      "import)");
    command->add_flag("--telemetry", options_.telemetry,
                      "print the store's telemetry report for this ingest at the end");
    command->add_option("--report-dir", options_.host.report_dir,
                        "write telemetry reports into this directory instead of printing them");
    AddLimits(command, limits_);
    return command;
  }

  int Run() override {
    return ReadHostOptions(options_.host, limits_) ? RunIngest(options_) : kUsageError;
  }

 private:
  IngestOptions options_;
  LimitTexts limits_;
};

std::unique_ptr<Command> MakeIngestCommand() { return std::make_unique<IngestCommand>(); }

}  // namespace Tarn::Tool
