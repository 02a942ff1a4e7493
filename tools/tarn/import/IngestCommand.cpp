// tarn ingest: synthetic events, or events from a JSON lines file.

#include <CLI/CLI.hpp>

#include <google/protobuf/message.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <iterator>
#include <sstream>

#include "tarn/cli/Command.h"
#include "tarn/cli/CommonOptions.h"
#include "tarn/host/EventFeed.h"
#include "tarn/import/FileImport.h"
#include "tarn/cli/Progress.h"
#include "tarn/offline/StoreFiles.h"
#include "tarn/offline/StoreStats.h"
#include "tarn/synthetic/Synthetic.h"
#include "tarn/cli/TextForms.h"
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

// ---- From files --------------------------------------------------------------

// The message and exit status of an import that did not go as asked.
void TellIncomplete(const ImportOutcome& outcome, uint64_t stored, bool stopped) {
  if (stopped) {
    const std::string before =
        stored == 0   ? "nothing before it was stored"
        : stored == 1 ? "the event before it is stored"
                      : "the " + Counted(stored, "event") + " before it are stored";
    std::fprintf(stderr, "tarn: import stopped at the line above; %s\n", before.c_str());
  } else if (outcome.refused != 0) {
    std::fprintf(stderr, "tarn: %s refused, %s stored\n", Counted(outcome.refused, "line").c_str(),
                 Counted(stored, "event").c_str());
  }
}

int Finished(const IngestOptions& options, ModuleHost& host, EventFeed& feed,
             const ImportOutcome& outcome, bool stopped,
             std::chrono::steady_clock::time_point start) {
  const IngestResult result{feed.Stored(), feed.RecordBytes(), SecondsSince(start),
                            outcome.first_ms, outcome.last_ms, feed.Cut()};
  std::string error;
  const bool closed = Finish(host, options.telemetry, error);
  if (!closed) PrintError(error);
  TellIncomplete(outcome, feed.Stored(), stopped);
  PrintSummary(options.host.store, result);
  std::fputs(outcome.summary.c_str(), stdout);
  return closed && outcome.complete ? 0 : 1;
}

// Standard input's first line that is not blank, and how many lines it took.
struct FirstLine {
  std::string text;
  uint64_t number = 0;
};

FirstLine ReadFirstLine(std::istream& in) {
  FirstLine first;
  while (std::getline(in, first.text)) {
    ++first.number;
    if (first.text.find_first_not_of(" \t\r") != std::string::npos) return first;
  }
  first.text.clear();
  return first;
}

// Rows in the form `tarn export` writes, from one file or standard input
// (whose first line was read to tell what it holds).
ImportOutcome IngestRows(const IngestOptions& options, EventFeed& feed, const FirstLine& first) {
  const std::string& from = options.from.front();
  std::ifstream file;
  std::istream* in = &std::cin;
  uint64_t size = 0;
  if (from != "-") {
    file.open(from, std::ios::binary);
    if (!file) {
      PrintError("cannot open " + from);
      ImportOutcome outcome;
      outcome.complete = false;
      return outcome;
    }
    std::error_code ec;
    size = std::filesystem::file_size(from, ec);
    if (ec) size = 0;
    in = &file;
  }
  LineReader lines(*in, size);
  if (from == "-" && first.number != 0) lines.PutBack(first.text, first.number);
  return ImportRowLines(options, feed, lines);
}

// Whether the inputs are rows of `tarn export`: as --format says, or, for
// one file, as its first line says.
bool IsTarnRows(const IngestOptions& options, const FirstLine& first) {
  if (options.format != "auto") return options.format == "tarn";
  if (options.from.size() != 1) return false;
  if (options.from.front() == "-") return HoldsTarnRows(first.text);
  std::ifstream file(options.from.front(), std::ios::binary);
  std::string line;
  return file && std::getline(file, line) && HoldsTarnRows(line);
}

int IngestFiles(const IngestOptions& options) {
  const bool piped =
      std::find(options.from.begin(), options.from.end(), "-") != options.from.end();
  const bool tarn_rows = options.format == "tarn";
  if (tarn_rows && (options.from.size() != 1)) {
    PrintError("rows of `tarn export` are imported from one file at a time");
    return kUsageError;
  }
  // The store first: its lock tells another tarn at once that it is in use,
  // before a long input is read.
  ModuleHost host;
  std::string error;
  if (!host.Open(options.host, error)) {
    PrintError(error);
    return 1;
  }
  EventFeed feed(host, host.NewestStoredAtOpen());
  const auto start = std::chrono::steady_clock::now();
  const FirstLine first = piped ? ReadFirstLine(std::cin) : FirstLine{};
  // Each import drops its row messages before it returns: closing the store
  // shuts protobuf down.
  if (IsTarnRows(options, first)) {
    const ImportOutcome outcome = IngestRows(options, feed, first);
    return Finished(options, host, feed, outcome, !outcome.complete && !options.skip_bad, start);
  }
  std::string standard_input;
  if (piped) {
    standard_input = first.text + "\n";
    standard_input.append(std::istreambuf_iterator<char>(std::cin), {});
  }
  WindowsImport import(options);
  const bool read = import.Read(standard_input);
  const ImportOutcome outcome = read ? import.Store(feed) : import.Stopped();
  return Finished(options, host, feed, outcome, !read, start);
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
  if (!options.from.empty()) return IngestFiles(options);
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
        "ingest",
        "Put events into a store: synthetic ones, Windows event logs, or rows from `tarn export`");
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
        "event logs to import: .evtx files, JSON of the evtx dump tools or of log shippers, or "
        "rows as `tarn export` writes them; files, folders, .zip and .gz archives (\"-\": "
        "standard input)");
    synthetic->excludes(from);
    command
        ->add_option("--format", options_.format,
                     "what the inputs hold: tarn (rows as `tarn export` writes them), windows "
                     "(Windows event logs: Sysmon, Security, System, PowerShell) or auto (known "
                     "by their first bytes; the default)")
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
