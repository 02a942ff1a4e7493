#include "tarn/import/FileImport.h"

#include <google/protobuf/descriptor.h>
#include <google/protobuf/message.h>

#include <algorithm>
#include <cstdio>
#include <vector>

#include "tarn/import/RowJson.h"

namespace Tarn::Tool {
namespace {

bool IsBlank(std::string_view line) {
  return line.find_first_not_of(" \t\r") == std::string_view::npos;
}

int64_t TimeOf(const google::protobuf::Message& row) {
  return static_cast<int64_t>(
      row.GetReflection()->GetUInt64(row, row.GetDescriptor()->FindFieldByName("date_time")));
}

class RowLines {
 public:
  RowLines(const IngestOptions& options, EventFeed& feed, ImportOutcome& outcome)
      : options_(options), feed_(feed), outcome_(outcome) {}

  // False when a line stopped the import.
  bool Run(LineReader& lines);

 private:
  struct Pending {
    int64_t time_ms;
    uint64_t line;
    std::string text;
  };

  bool Store(uint64_t line, std::string_view text);

  const IngestOptions& options_;
  EventFeed& feed_;
  ImportOutcome& outcome_;
  RowJson rows_;
};

bool RowLines::Store(uint64_t line, std::string_view text) {
  google::protobuf::Message* row = nullptr;
  std::string error;
  if (!rows_.Parse(text, row, error) || !feed_.Add(*row, error)) {
    return ReportRefused(options_, line, error, outcome_);
  }
  if (outcome_.first_ms == 0) outcome_.first_ms = TimeOf(*row);
  outcome_.last_ms = TimeOf(*row);
  return true;
}

bool RowLines::Run(LineReader& lines) {
  std::string text;
  std::vector<Pending> pending;
  while (lines.Next(text)) {
    if (!options_.sort) {
      if (!Store(lines.Line(), text)) return false;
      continue;
    }
    // Sorting needs every time first: read them now, store in order later.
    google::protobuf::Message* row = nullptr;
    std::string error;
    if (!rows_.Parse(text, row, error)) {
      if (!ReportRefused(options_, lines.Line(), error, outcome_)) return false;
      continue;
    }
    pending.push_back({TimeOf(*row), lines.Line(), std::move(text)});
  }
  std::stable_sort(pending.begin(), pending.end(),
                   [](const Pending& a, const Pending& b) { return a.time_ms < b.time_ms; });
  for (const Pending& p : pending) {
    if (!Store(p.line, p.text)) return false;
  }
  return true;
}

}  // namespace

LineReader::LineReader(std::istream& in, uint64_t size)
    : in_(in), progress_("import", size, "bytes") {}

bool LineReader::ReadAhead() {
  while (std::getline(in_, ahead_)) {
    ++ahead_line_;
    read_ += ahead_.size() + 1;
    progress_.Update(read_);
    if (!IsBlank(ahead_)) return has_ahead_ = true;
  }
  ahead_.clear();
  return has_ahead_ = false;
}

void LineReader::PutBack(std::string text, uint64_t number) {
  ahead_ = std::move(text);
  ahead_line_ = number;
  has_ahead_ = true;
}

const std::string& LineReader::Peek() {
  if (!has_ahead_) ReadAhead();
  return ahead_;
}

bool LineReader::Next(std::string& text) {
  if (!has_ahead_ && !ReadAhead()) return false;
  text = std::move(ahead_);
  line_ = ahead_line_;
  has_ahead_ = false;
  return true;
}

bool ReportRefused(const IngestOptions& options, uint64_t line, const std::string& error,
                   ImportOutcome& outcome) {
  ++outcome.refused;
  outcome.complete = false;
  std::fprintf(stderr, "%s:%llu: %s\n", options.from.front().c_str(), static_cast<unsigned long long>(line),
               error.c_str());
  return options.skip_bad;
}

ImportOutcome ImportRowLines(const IngestOptions& options, EventFeed& feed, LineReader& lines) {
  ImportOutcome outcome;
  RowLines(options, feed, outcome).Run(lines);
  lines.Finish();
  return outcome;
}

}  // namespace Tarn::Tool
