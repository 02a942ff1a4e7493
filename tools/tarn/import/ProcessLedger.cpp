#include "tarn/import/ProcessLedger.h"

#include <algorithm>
#include <cctype>
#include <map>
#include <unordered_map>
#include <unordered_set>

#include "tarn/import/WindowsValues.h"

namespace Tarn::Tool::Windows {
namespace {

using Json = nlohmann::json;

constexpr std::string_view kSysmon = "Microsoft-Windows-Sysmon/Operational";
constexpr std::string_view kSecurity = "Security";

std::string Lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

// The first of `names` the event has, as text.
std::string Field(const Json& fields, std::initializer_list<const char*> names) {
  for (const char* name : names) {
    auto it = fields.find(name);
    if (it == fields.end() || it->is_null()) continue;
    return it->is_string() ? it->get<std::string>() : it->dump();
  }
  return "";
}

uint64_t Pid(const Json& fields, std::initializer_list<const char*> names) {
  uint64_t pid = 0;
  return ReadNumber(Field(fields, names), pid) ? pid : 0;
}

// One process's identity across channels.
std::string StartKey(const std::string& host, uint64_t pid, const std::string& image) {
  return Lower(host) + '\n' + std::to_string(pid) + '\n' + Lower(image);
}

// A GUID's digits, the same for "{A-B}" and "a-b"; empty for none.
std::string GuidKey(const std::string& guid) {
  std::string key;
  for (char c : guid) {
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      key.push_back(static_cast<char>(std::tolower(static_cast<unsigned char>(c))));
    }
  }
  if (key.size() != 32 || key.find_first_not_of('0') == std::string::npos) return "";
  return key;
}

void Merge(LoggedProcess& into, const LoggedProcess& from) {
  if (into.pid == 0) into.pid = from.pid;
  if (into.image.empty()) into.image = from.image;
  if (into.command_line.empty()) into.command_line = from.command_line;
}

}  // namespace

ProcessFacts FactsOf(const Json& fields, std::string_view channel, uint32_t id) {
  using Kind = ProcessFacts::Kind;
  ProcessFacts facts;
  facts.host = Field(fields, {"Computer", "Hostname"});
  if (channel == kSecurity && (id == 4688 || id == 4689)) {
    facts.kind = id == 4688 ? Kind::kSecurityStart : Kind::kSecurityEnd;
    facts.self.pid = Pid(fields, {id == 4688 ? "NewProcessId" : "ProcessId"});
    facts.self.image = Field(fields, {id == 4688 ? "NewProcessName" : "ProcessName"});
    return facts;
  }
  if (channel != kSysmon) return facts;
  facts.self = {Field(fields, {"ProcessGuid", "SourceProcessGuid", "SourceProcessGUID"}),
                Pid(fields, {"ProcessId", "SourceProcessId"}),
                Field(fields, {"Image", "SourceImage"}), ""};
  if (id == 1) {
    facts.kind = Kind::kSysmonStart;
    facts.self.command_line = Field(fields, {"CommandLine"});
    facts.parent = {Field(fields, {"ParentProcessGuid"}), Pid(fields, {"ParentProcessId"}),
                    Field(fields, {"ParentImage"}), Field(fields, {"ParentCommandLine"})};
  } else if (id == 5) {
    facts.kind = Kind::kSysmonEnd;
  }
  facts.target = {Field(fields, {"TargetProcessGuid", "TargetProcessGUID"}),
                  Pid(fields, {"TargetProcessId"}), Field(fields, {"TargetImage"}), ""};
  return facts;
}

std::vector<size_t> RepeatedBySysmon(std::span<const LedgerEntry> entries) {
  using Kind = ProcessFacts::Kind;
  // The times Sysmon logged each start and end.
  std::unordered_map<std::string, std::vector<int64_t>> sysmon[2];
  for (const LedgerEntry& entry : entries) {
    const ProcessFacts& f = *entry.facts;
    if (f.kind == Kind::kSysmonStart || f.kind == Kind::kSysmonEnd) {
      sysmon[f.kind == Kind::kSysmonEnd][StartKey(f.host, f.self.pid, f.self.image)].push_back(
          entry.time_ms);
    }
  }
  std::vector<size_t> repeated;
  for (size_t i = 0; i < entries.size(); ++i) {
    const ProcessFacts& f = *entries[i].facts;
    if (f.kind != Kind::kSecurityStart && f.kind != Kind::kSecurityEnd) continue;
    const auto& times = sysmon[f.kind == Kind::kSecurityEnd];
    auto found = times.find(StartKey(f.host, f.self.pid, f.self.image));
    if (found == times.end()) continue;
    // Times are in order: the nearest lies beside the first not earlier.
    const std::vector<int64_t>& at = found->second;
    auto next = std::lower_bound(at.begin(), at.end(), entries[i].time_ms);
    const bool near = (next != at.end() && *next - entries[i].time_ms <= kSameProcessMs) ||
                      (next != at.begin() && entries[i].time_ms - *std::prev(next) <= kSameProcessMs);
    if (near) repeated.push_back(i);
  }
  return repeated;
}

std::vector<RunningProcess> AlreadyRunning(std::span<const LedgerEntry> entries) {
  using Kind = ProcessFacts::Kind;
  std::unordered_set<std::string> started;
  for (const LedgerEntry& entry : entries) {
    if (entry.facts->kind == Kind::kSysmonStart) started.insert(GuidKey(entry.facts->self.guid));
  }
  struct Seen {
    size_t first;
    std::string host;
    LoggedProcess process;
  };
  std::map<std::string, Seen> running;  // by GUID
  for (size_t i = 0; i < entries.size(); ++i) {
    const ProcessFacts& f = *entries[i].facts;
    for (const LoggedProcess* named : {&f.self, &f.parent, &f.target}) {
      const std::string key = GuidKey(named->guid);
      if (key.empty() || started.count(key) != 0) continue;
      auto [it, added] = running.try_emplace(key, Seen{i, f.host, *named});
      if (!added) Merge(it->second.process, *named);
    }
  }
  // Security's starts and ends of each process, in time order.
  std::unordered_map<std::string, std::vector<size_t>> security;
  for (size_t i = 0; i < entries.size(); ++i) {
    const ProcessFacts& f = *entries[i].facts;
    if (f.kind == Kind::kSecurityStart || f.kind == Kind::kSecurityEnd) {
      security[StartKey(f.host, f.self.pid, f.self.image)].push_back(i);
    }
  }
  std::vector<RunningProcess> out;
  for (auto& [key, seen] : running) {
    RunningProcess process;
    process.before = seen.first;
    process.guid = seen.process.guid;
    const int64_t first_ms = entries[seen.first].time_ms;
    auto logged = security.find(StartKey(seen.host, seen.process.pid, seen.process.image));
    if (logged != security.end()) {
      for (size_t i : logged->second) {
        if (entries[i].time_ms > first_ms + kSameProcessMs) break;
        const bool start = entries[i].facts->kind == Kind::kSecurityStart;
        process.security_start = start ? std::optional<size_t>(i) : std::nullopt;
      }
    }
    if (!process.security_start) {
      process.fields = {{"Channel", std::string(kSysmon)},
                        {"EventID", 1},
                        {"@timestamp", first_ms},
                        {"ProcessGuid", seen.process.guid},
                        {"ProcessId", seen.process.pid}};
      if (!seen.host.empty()) process.fields["Computer"] = seen.host;
      if (!seen.process.image.empty()) process.fields["Image"] = seen.process.image;
      if (!seen.process.command_line.empty()) {
        process.fields["CommandLine"] = seen.process.command_line;
      }
    }
    out.push_back(std::move(process));
  }
  std::stable_sort(out.begin(), out.end(),
                   [](const RunningProcess& a, const RunningProcess& b) { return a.before < b.before; });
  return out;
}

}  // namespace Tarn::Tool::Windows
