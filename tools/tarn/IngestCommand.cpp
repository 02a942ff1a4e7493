// tarn ingest: synthetic events, or events from a JSON lines file.

#include <google/protobuf/message.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iostream>

#include "tarn/Commands.h"
#include "tarn/EventFeed.h"
#include "tarn/Progress.h"
#include "tarn/RowJson.h"
#include "tarn/StoreFiles.h"
#include "tarn/StoreStats.h"
#include "tarn/Synthetic.h"
#include "tarn/TextForms.h"

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
      "stored %s events (%s of records) in %s: %s events/s\n", FormatCount(result.stored).c_str(),
      FormatBytes(result.record_bytes).c_str(), FormatSeconds(result.seconds).c_str(),
      FormatCount(result.seconds > 0
                      ? static_cast<uint64_t>(static_cast<double>(result.stored) / result.seconds)
                      : result.stored)
          .c_str());
  if (result.stored != 0) {
    std::printf("time span %s to %s\n", FormatTime(result.first_ms).c_str(),
                FormatTime(result.last_ms).c_str());
  }
  StoreStats stats;
  std::string error;
  if (GatherStats(store, false, stats, error)) {
    std::printf("the store now holds %s events in %s on disk",
                FormatCount(stats.events + stats.pending_events).c_str(),
                FormatBytes(stats.listing.total_size).c_str());
    if (stats.raw_bytes != 0) std::printf(" (compression ratio %.3f)", stats.Ratio());
    std::printf("\n");
  }
}

// ---- From a file ------------------------------------------------------------

struct Pending {
  int64_t time_ms;
  uint64_t line;
  std::string text;
};

class FileImport {
 public:
  FileImport(const IngestOptions& options, EventFeed& feed) : options_(options), feed_(feed) {}

  // False when a line stopped the import (or, with --skip-bad, when any
  // line was refused).
  bool Run(std::istream& in, uint64_t size);
  uint64_t Refused() const { return refused_; }
  int64_t first_ms = 0;
  int64_t last_ms = 0;

 private:
  bool Store(uint64_t line, std::string_view text);
  bool Report(uint64_t line, const std::string& error);

  const IngestOptions& options_;
  EventFeed& feed_;
  RowJson rows_;
  uint64_t refused_ = 0;
};

bool FileImport::Report(uint64_t line, const std::string& error) {
  ++refused_;
  std::fprintf(stderr, "%s:%llu: %s\n", options_.from.c_str(),
               static_cast<unsigned long long>(line), error.c_str());
  return options_.skip_bad;
}

bool FileImport::Store(uint64_t line, std::string_view text) {
  google::protobuf::Message* row = nullptr;
  std::string error;
  if (!rows_.Parse(text, row, error) || !feed_.Add(*row, error)) return Report(line, error);
  int64_t time_ms = static_cast<int64_t>(
      row->GetReflection()->GetUInt64(*row, row->GetDescriptor()->FindFieldByName("date_time")));
  if (first_ms == 0) first_ms = time_ms;
  last_ms = time_ms;
  return true;
}

bool IsBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

bool FileImport::Run(std::istream& in, uint64_t size) {
  Progress progress("import", size, "bytes");
  std::string text;
  uint64_t line = 0;
  uint64_t read = 0;
  std::vector<Pending> pending;
  while (std::getline(in, text)) {
    ++line;
    read += text.size() + 1;
    progress.Update(read);
    if (IsBlank(text)) continue;
    if (!options_.sort) {
      if (!Store(line, text)) return false;
      continue;
    }
    // Sorting needs every time first: read them now, store in order later.
    google::protobuf::Message* row = nullptr;
    std::string error;
    if (!rows_.Parse(text, row, error)) {
      if (!Report(line, error)) return false;
      continue;
    }
    int64_t time_ms = static_cast<int64_t>(
        row->GetReflection()->GetUInt64(*row, row->GetDescriptor()->FindFieldByName("date_time")));
    pending.push_back({time_ms, line, std::move(text)});
  }
  std::stable_sort(pending.begin(), pending.end(),
                   [](const Pending& a, const Pending& b) { return a.time_ms < b.time_ms; });
  for (const Pending& p : pending) {
    if (!Store(p.line, p.text)) return false;
  }
  progress.Finish();
  return refused_ == 0;
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
  IngestResult result;
  bool complete = false;
  uint64_t refused = 0;
  {
    // The row messages go before the store closes: closing shuts protobuf down.
    FileImport import(options, feed);
    auto start = std::chrono::steady_clock::now();
    complete = import.Run(*in, size);
    result = {feed.Stored(), feed.RecordBytes(), SecondsSince(start), import.first_ms,
              import.last_ms};
    refused = import.Refused();
  }
  bool closed = Finish(host, options.telemetry, error);
  if (!closed) PrintError(error);
  if (!complete && !options.skip_bad) {
    std::fprintf(stderr,
                 "tarn: import stopped at the line above; the %s events before it are stored\n",
                 FormatCount(feed.Stored()).c_str());
  } else if (refused != 0) {
    std::fprintf(stderr, "tarn: %s lines refused, %s events stored\n", FormatCount(refused).c_str(),
                 FormatCount(feed.Stored()).c_str());
  }
  PrintSummary(options.host.store, result);
  return complete && closed ? 0 : 1;
}

}  // namespace

bool IngestSynthetic(const IngestOptions& options, IngestResult& result, std::string& error) {
  int64_t now = RealNowMs();
  int64_t end = now;
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
  int64_t start = end - int64_t{options.days} * kDayMs;
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

int RunIngest(const IngestOptions& options) {
  if (options.synthetic == !options.from.empty()) {
    PrintError("ingest takes either --synthetic or --from FILE");
    return 1;
  }
  if (!options.from.empty()) return IngestFile(options);
  IngestResult result;
  std::string error;
  if (!IngestSynthetic(options, result, error)) {
    PrintError(error);
    return 1;
  }
  PrintSummary(options.host.store, result);
  return 0;
}

}  // namespace Tarn::Tool
