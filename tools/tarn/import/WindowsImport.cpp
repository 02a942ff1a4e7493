#include "tarn/import/WindowsImport.h"

#include <algorithm>
#include <map>
#include <vector>

#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/TextForms.h"
#include "tarn/import/WindowsEvents.h"

namespace Tarn::Tool {
namespace {

// Kinds of events without a table listed one by one in the summary.
constexpr size_t kListedKinds = 10;

struct Pending {
  int64_t time_ms;
  uint64_t line;
  std::unique_ptr<google::protobuf::Message> row;
};

using Counts = std::map<std::string, uint64_t>;

// Lines of "  name   count", the largest counts first, at most `limit`.
std::string CountLines(const Counts& counts, size_t limit) {
  std::vector<std::pair<std::string, uint64_t>> sorted(counts.begin(), counts.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  size_t width = 0;
  for (const auto& [name, count] : sorted) width = std::max(width, name.size());
  std::string out;
  uint64_t rest = 0;
  for (size_t i = 0; i < sorted.size(); ++i) {
    if (i >= limit) {
      rest += sorted[i].second;
      continue;
    }
    const std::string count = FormatCount(sorted[i].second);
    out += "  " + sorted[i].first + std::string(width - sorted[i].first.size() + 2, ' ') +
           std::string(count.size() < 7 ? 7 - count.size() : 0, ' ') + count + "\n";
  }
  if (rest != 0) {
    out += "  and " + Counted(sorted.size() - limit, "more kind") + " of events, " +
           FormatCount(rest) + " in all\n";
  }
  return out;
}

class WindowsLines {
 public:
  WindowsLines(const IngestOptions& options, EventFeed& feed, ImportOutcome& outcome)
      : options_(options), feed_(feed), outcome_(outcome) {}

  // False when a line stopped the import.
  bool Read(LineReader& lines);
  bool Store();
  std::string Summary() const;

 private:
  const IngestOptions& options_;
  EventFeed& feed_;
  ImportOutcome& outcome_;
  std::vector<Pending> pending_;
  uint64_t read_ = 0;
  Counts by_table_;
  Counts without_table_;  // by "channel event id"
};

bool WindowsLines::Read(LineReader& lines) {
  std::string text;
  std::string error;
  Windows::Event event;
  while (lines.Next(text)) {
    ++read_;
    if (!Windows::ReadEvent(text, event, error)) {
      if (!ReportRefused(options_, lines.Line(), error, outcome_)) return false;
      continue;
    }
    if (event.row == nullptr) {
      ++without_table_[event.channel + " " + std::to_string(event.id)];
      continue;
    }
    pending_.push_back({event.time_ms, lines.Line(), std::move(event.row)});
  }
  return true;
}

bool WindowsLines::Store() {
  std::stable_sort(pending_.begin(), pending_.end(),
                   [](const Pending& a, const Pending& b) { return a.time_ms < b.time_ms; });
  std::string error;
  for (Pending& p : pending_) {
    const bool stored = feed_.Add(*p.row, error);
    if (stored) {
      ++by_table_[p.row->GetDescriptor()->name()];
      if (outcome_.first_ms == 0) outcome_.first_ms = p.time_ms;
      outcome_.last_ms = p.time_ms;
    }
    p.row.reset();  // the file's rows are all in memory: each goes once stored
    if (!stored && !ReportRefused(options_, p.line, error, outcome_)) return false;
  }
  pending_.clear();
  return true;
}

std::string WindowsLines::Summary() const {
  uint64_t stored = 0;
  uint64_t without = 0;
  for (const auto& entry : by_table_) stored += entry.second;
  for (const auto& entry : without_table_) without += entry.second;
  std::string out = "windows events: " + FormatCount(read_) + " read, " + FormatCount(stored) +
                    " stored in " + Counted(by_table_.size(), "table") + ", " +
                    FormatCount(without) + " without a table, " +
                    FormatCount(outcome_.refused) + " refused\n";
  out += CountLines(by_table_, by_table_.size());
  if (!without_table_.empty()) {
    out += "without a table, by channel and event id:\n" +
           CountLines(without_table_, kListedKinds);
  }
  return out;
}

}  // namespace

ImportOutcome ImportWindowsEvents(const IngestOptions& options, EventFeed& feed,
                                  LineReader& lines) {
  ImportOutcome outcome;
  std::string error;
  if (!Windows::CheckRules(error)) {
    PrintError("the Windows mapping does not fit the tables: " + error);
    outcome.complete = false;
    return outcome;
  }
  WindowsLines import(options, feed, outcome);
  const bool read = import.Read(lines);
  lines.Finish();
  if (read) import.Store();
  outcome.summary = import.Summary();
  return outcome;
}

}  // namespace Tarn::Tool
