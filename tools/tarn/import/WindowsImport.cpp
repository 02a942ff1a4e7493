#include "tarn/import/WindowsImport.h"

#include <google/protobuf/descriptor.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <vector>

#include "tarn/cli/CommonOptions.h"
#include "tarn/cli/Progress.h"
#include "tarn/cli/TextForms.h"
#include "tarn/import/EvtxRecords.h"
#include "tarn/import/ImportInputs.h"
#include "tarn/import/JsonValues.h"
#include "tarn/import/ProcessLedger.h"
#include "tarn/import/WindowsDocuments.h"
#include "tarn/import/WindowsEvents.h"
#include "tarn/import/WindowsValues.h"

namespace Tarn::Tool {
namespace {

using Json = nlohmann::json;
using Counts = std::map<std::string, uint64_t>;

// Kinds of events without a table listed one by one in the summary.
constexpr size_t kListedKinds = 10;

// Lines of "  name   count", the largest counts first, at most `limit`.
std::string CountLines(const Counts& counts, size_t limit) {
  std::vector<std::pair<std::string, uint64_t>> sorted(counts.begin(), counts.end());
  std::stable_sort(sorted.begin(), sorted.end(),
                   [](const auto& a, const auto& b) { return a.second > b.second; });
  size_t width = 0;
  for (const auto& entry : sorted) width = std::max(width, entry.first.size());
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

// The form of a text document, by its first value.
enum class TextForm { kDumpEvents, kShipperLines, kArray, kTarnRows, kUnknown };

TextForm FormOf(const Json& first) {
  if (first.is_array()) return TextForm::kArray;
  if (!first.is_object()) return TextForm::kUnknown;
  if (Windows::IsDumpEvent(first)) return TextForm::kDumpEvents;
  if (first.contains("table")) return TextForm::kTarnRows;
  if (first.contains("Channel") && first.contains("EventID")) return TextForm::kShipperLines;
  return TextForm::kUnknown;
}

}  // namespace

bool HoldsTarnRows(std::string_view text) {
  JsonValues values(text);
  std::string_view first;
  uint64_t line = 0;
  std::string error;
  if (!values.Next(first, line, error)) return false;
  return FormOf(Json::parse(first, nullptr, false)) == TextForm::kTarnRows;
}

class WindowsImport::Events {
 public:
  explicit Events(const IngestOptions& options) : options_(options), progress_("read", 0, "events") {}

  bool Read(const std::string& standard_input);
  ImportOutcome Store(EventFeed& feed);
  ImportOutcome Stopped();

 private:
  struct Pending {
    int64_t time_ms;
    uint32_t document;
    uint64_t position;  // a line, or a record's number
    std::vector<std::unique_ptr<google::protobuf::Message>> rows;
    Windows::ProcessFacts facts;
  };

  bool Document(InputDocument& document);
  bool Text(const std::string& name, std::string_view text);
  bool ShipperLines(std::string_view text);
  bool Evtx(InputDocument& document);
  // One event's flat fields; false when its refusal stops the import.
  bool Add(const Json& fields, uint64_t position);
  bool Refuse(uint64_t position, const std::string& error);
  std::string Where(uint32_t document, uint64_t position) const;
  void Problem(const std::string& name, const std::string& what);
  bool StoreRows(EventFeed& feed, Pending& pending, ImportOutcome& outcome);
  void TakePuid(Pending& start, const std::string& guid);
  bool StoreRunning(EventFeed& feed, const Windows::RunningProcess& process, const Pending& first,
                    ImportOutcome& outcome);
  std::string Summary() const;

  const IngestOptions& options_;
  Progress progress_;
  std::vector<Pending> pending_;
  std::vector<std::string> documents_;
  std::vector<bool> is_evtx_;
  uint64_t read_ = 0;
  uint64_t refused_ = 0;
  uint64_t problems_ = 0;
  uint64_t passed_over_ = 0;  // files in folders that hold no event log
  uint64_t unreadable_records_ = 0;
  uint64_t nul_events_ = 0;
  uint64_t repeated_starts_ = 0;
  uint64_t repeated_ends_ = 0;
  uint64_t running_ = 0;
  uint64_t security_only_starts_ = 0;  // starts only Security logged, of processes Sysmon names
  uint64_t evtx_files_ = 0;
  uint64_t json_files_ = 0;
  Counts by_table_;
  Counts without_table_;  // by "channel event id"
};

std::string WindowsImport::Events::Where(uint32_t document, uint64_t position) const {
  return documents_[document] + (is_evtx_[document] ? " record " : ":") + std::to_string(position);
}

void WindowsImport::Events::Problem(const std::string& name, const std::string& what) {
  ++problems_;
  std::fprintf(stderr, "tarn: %s %s\n", name.c_str(), what.c_str());
}

bool WindowsImport::Events::Refuse(uint64_t position, const std::string& error) {
  ++refused_;
  std::fprintf(stderr, "%s: %s\n",
               Where(static_cast<uint32_t>(documents_.size() - 1), position).c_str(),
               error.c_str());
  return options_.skip_bad;
}

bool WindowsImport::Events::Add(const Json& fields, uint64_t position) {
  ++read_;
  progress_.Update(read_);
  Windows::Event event;
  std::string error;
  if (!Windows::ReadFields(fields, event, error)) return Refuse(position, error);
  if (event.rows.empty()) {
    ++without_table_[event.channel + " " + std::to_string(event.id)];
    return true;
  }
  if (event.nul_texts) ++nul_events_;
  pending_.push_back({event.time_ms, static_cast<uint32_t>(documents_.size() - 1), position,
                      std::move(event.rows), Windows::FactsOf(fields, event.channel, event.id)});
  return true;
}

bool WindowsImport::Events::ShipperLines(std::string_view text) {
  uint64_t line = 0;
  for (size_t at = 0; at < text.size();) {
    size_t end = text.find('\n', at);
    if (end == std::string_view::npos) end = text.size();
    const std::string_view content = text.substr(at, end - at);
    ++line;
    at = end + 1;
    if (content.find_first_not_of(" \t\r") == std::string_view::npos) continue;
    const Json fields = Json::parse(content, nullptr, false);
    if (!fields.is_object()) {
      if (!Refuse(line, fields.is_discarded() ? "not valid JSON" : "not a JSON object")) {
        return false;
      }
      continue;
    }
    if (!Add(fields, line)) return false;
  }
  return true;
}

bool WindowsImport::Events::Text(const std::string& name, std::string_view text) {
  JsonValues values(text);
  std::string_view value;
  uint64_t line = 0;
  std::string error;
  if (!values.Next(value, line, error)) {
    Problem(name, error.empty() ? "is empty" : "is not JSON: " + error);
    return true;
  }
  Json first = Json::parse(value, nullptr, false);
  switch (FormOf(first)) {
    case TextForm::kShipperLines: ++json_files_; return ShipperLines(text);
    case TextForm::kTarnRows:
      Problem(name, "holds rows as `tarn export` writes them; import it on its own (--format tarn)");
      return true;
    case TextForm::kUnknown:
      Problem(name, first.is_discarded()
                        ? "is not valid JSON at line " + std::to_string(line)
                        : "is JSON of no form the import reads: its first object has neither "
                          "\"Event\" (the evtx dump tools) nor \"Channel\" and \"EventID\" (log "
                          "shippers)");
      return true;
    case TextForm::kArray:
    case TextForm::kDumpEvents: break;
  }
  ++json_files_;
  // Dump events, one after another, or all in one array.
  Json fields;
  for (bool more = true; more;) {
    Json parsed = Json::parse(value, nullptr, false);
    const Json& items = parsed.is_array() ? parsed : Json::array({std::move(parsed)});
    for (const Json& item : items) {
      const bool flat = item.is_object() && !Windows::IsDumpEvent(item);
      if (item.is_discarded() || !item.is_object()) {
        if (!Refuse(line, item.is_discarded() ? "not valid JSON" : "not a JSON object")) {
          return false;
        }
      } else if (!flat && !Windows::FlattenDumpEvent(item, fields, error)) {
        if (!Refuse(line, error)) return false;
      } else if (!Add(flat ? item : fields, line)) {
        return false;
      }
    }
    // A stray line is refused and the values after it still read.
    while (!(more = values.Next(value, line, error)) && !error.empty()) {
      if (!Refuse(line, error)) return false;
    }
  }
  return true;
}

bool WindowsImport::Events::Evtx(InputDocument& document) {
  ++evtx_files_;
  std::unique_ptr<TemporaryCopy> copy;
  std::string path = document.path;
  if (path.empty()) {
    // The library reads files: one unpacked from an archive is written out.
    copy = std::make_unique<TemporaryCopy>(document.bytes);
    document.bytes.clear();
    if (copy->path().empty()) {
      Problem(document.name, "cannot be read: " + copy->error());
      return true;
    }
    path = copy->path();
  }
  bool going = true;
  Json fields;
  std::string error;
  const EvtxReport report = ReadEvtxRecords(
      path,
      [&](uint64_t number, std::string_view xml) {
        if (!going) return;
        if (!Windows::FlattenEventXml(xml, fields, error)) {
          going = Refuse(number, error);
        } else {
          going = Add(fields, number);
        }
      },
      [&](uint64_t index, std::string_view why) {
        std::fprintf(stderr, "tarn: %s: the record at index %llu cannot be read: %.*s\n",
                     document.name.c_str(), static_cast<unsigned long long>(index),
                     static_cast<int>(why.size()), why.data());
      });
  unreadable_records_ += report.unreadable;
  if (!report.failure.empty()) {
    Problem(document.name, (report.records == 0 ? "cannot be read: " : "cannot be read whole: ") +
                               report.failure);
  } else if (report.unreadable != 0) {
    ++problems_;  // each was told above
  } else if (report.damaged) {
    Problem(document.name, "is damaged (cut short or overwritten): the event log library read " +
                               Counted(report.records, "record") +
                               " of it; those of its damaged chunks are lost");
  }
  return going;
}

bool WindowsImport::Events::Document(InputDocument& document) {
  documents_.push_back(document.name);
  is_evtx_.push_back(document.kind == DocumentKind::kEvtx);
  if (document.kind == DocumentKind::kEvtx) return Evtx(document);
  const std::string bytes = std::move(document.bytes);
  return Text(document.name, bytes);
}

bool WindowsImport::Events::Read(const std::string& standard_input) {
  const DocumentSink sink{
      [&](InputDocument& document) { return Document(document); },
      [&](const std::string& name, const std::string& what) { Problem(name, what); },
      [&](const std::string&) { ++passed_over_; }};
  const bool read = ForEachDocument(options_.from, standard_input, sink);
  progress_.Finish();
  return read;
}

bool WindowsImport::Events::StoreRows(EventFeed& feed, Pending& pending, ImportOutcome& outcome) {
  std::string error;
  for (auto& row : pending.rows) {
    if (!feed.Add(*row, error)) {
      ++refused_;
      std::fprintf(stderr, "%s: %s\n", Where(pending.document, pending.position).c_str(),
                   error.c_str());
      if (!options_.skip_bad) return false;
      continue;
    }
    ++by_table_[row->GetDescriptor()->name()];
    if (outcome.first_ms == 0) outcome.first_ms = pending.time_ms;
    outcome.last_ms = pending.time_ms;
  }
  pending.rows.clear();  // every row is in memory: each goes once stored
  return true;
}

// A Security process start whose process Sysmon names: the row takes the
// puid Sysmon's events give it.
void WindowsImport::Events::TakePuid(Pending& start, const std::string& guid) {
  for (auto& row : start.rows) {
    const auto* puid = row->GetDescriptor()->FindFieldByName("puid");
    row->GetReflection()->SetUInt64(row.get(), puid, Windows::PuidOf(guid));
  }
  ++security_only_starts_;
}

bool WindowsImport::Events::StoreRunning(EventFeed& feed, const Windows::RunningProcess& process,
                                         const Pending& first, ImportOutcome& outcome) {
  Windows::Event event;
  std::string error;
  if (!Windows::ReadFields(process.fields, event, error)) return true;  // its fields are ours
  for (auto& row : event.rows) {
    const auto* origin = row->GetDescriptor()->FindFieldByName("process_origin");
    row->GetReflection()->SetUInt32(row.get(), origin, Windows::kOriginAlreadyRunning);
  }
  Pending recorded{first.time_ms, first.document, first.position, std::move(event.rows), {}};
  if (!StoreRows(feed, recorded, outcome)) return false;
  ++running_;
  return true;
}

ImportOutcome WindowsImport::Events::Store(EventFeed& feed) {
  ImportOutcome outcome;
  std::stable_sort(pending_.begin(), pending_.end(),
                   [](const Pending& a, const Pending& b) { return a.time_ms < b.time_ms; });
  std::vector<Windows::LedgerEntry> ledger;
  ledger.reserve(pending_.size());
  for (const Pending& p : pending_) ledger.push_back({p.time_ms, &p.facts});
  for (size_t i : Windows::RepeatedBySysmon(ledger)) {
    (pending_[i].facts.kind == Windows::ProcessFacts::Kind::kSecurityStart ? repeated_starts_
                                                                          : repeated_ends_)++;
    pending_[i].rows.clear();
  }
  std::vector<Windows::RunningProcess> running = Windows::AlreadyRunning(ledger);
  for (const Windows::RunningProcess& process : running) {
    if (process.security_start) TakePuid(pending_[*process.security_start], process.guid);
  }
  size_t next_running = 0;
  bool going = true;
  for (size_t i = 0; i < pending_.size() && going; ++i) {
    for (; next_running < running.size() && running[next_running].before == i; ++next_running) {
      if (!running[next_running].security_start) going = StoreRunning(feed, running[next_running], pending_[i], outcome);
    }
    if (going) going = StoreRows(feed, pending_[i], outcome);
  }
  pending_.clear();
  outcome.refused = refused_;
  outcome.complete = going && refused_ == 0 && problems_ == 0;
  outcome.summary = Summary();
  return outcome;
}

ImportOutcome WindowsImport::Events::Stopped() {
  ImportOutcome outcome;
  outcome.complete = false;
  outcome.refused = refused_;
  pending_.clear();
  outcome.summary = Summary();
  return outcome;
}

std::string WindowsImport::Events::Summary() const {
  uint64_t rows = 0;
  uint64_t without = 0;
  for (const auto& entry : by_table_) rows += entry.second;
  for (const auto& entry : without_table_) without += entry.second;
  std::string sources;
  if (evtx_files_ != 0) sources = Counted(evtx_files_, ".evtx file");
  if (json_files_ != 0) sources += (sources.empty() ? "" : " and ") + Counted(json_files_, "JSON file");
  std::string out = "windows events: " + FormatCount(read_) + " read" +
                    (sources.empty() ? "" : " from " + sources) + ", " + Counted(rows, "row") +
                    " stored in " + Counted(by_table_.size(), "table") + ", " +
                    FormatCount(without) + " without a table, " + FormatCount(refused_) +
                    " refused\n";
  out += CountLines(by_table_, by_table_.size());
  if (repeated_starts_ + repeated_ends_ != 0) {
    out += "logged by Sysmon and Security both, stored once: " +
           Counted(repeated_starts_, "process start") + " (4688), " +
           Counted(repeated_ends_, "process end") + " (4689)\n";
  }
  if (security_only_starts_ != 0) {
    out += "process starts only Security logged, tied to the Sysmon events of their process: " +
           FormatCount(security_only_starts_) + "\n";
  }
  if (running_ != 0) {
    out += "processes the log shows already running, recorded at their first event: " +
           FormatCount(running_) + "\n";
  }
  if (nul_events_ != 0) {
    out += "texts holding NUL bytes, kept with \u2400 in their place: " +
           Counted(nul_events_, "event") + "\n";
  }
  if (unreadable_records_ != 0) {
    out += ".evtx records the library could not read: " + FormatCount(unreadable_records_) + "\n";
  }
  if (passed_over_ != 0) {
    out += "files in the folders that hold no event log, passed over: " +
           FormatCount(passed_over_) + "\n";
  }
  if (problems_ != 0) {
    out += "inputs not read whole: " + FormatCount(problems_) + " (told above)\n";
  }
  if (!without_table_.empty()) {
    out += "without a table, by channel and event id:\n" + CountLines(without_table_, kListedKinds);
  }
  return out;
}

WindowsImport::WindowsImport(const IngestOptions& options)
    : events_(std::make_unique<Events>(options)) {}
WindowsImport::~WindowsImport() = default;

bool WindowsImport::Read(const std::string& standard_input) {
  std::string error;
  if (!Windows::CheckRules(error)) {
    PrintError("the Windows mapping does not fit the tables: " + error);
    return false;
  }
  return events_->Read(standard_input);
}

ImportOutcome WindowsImport::Store(EventFeed& feed) { return events_->Store(feed); }
ImportOutcome WindowsImport::Stopped() { return events_->Stopped(); }

}  // namespace Tarn::Tool
