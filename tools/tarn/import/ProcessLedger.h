#pragma once

// The processes a Windows log shows, across its channels: which process
// starts and ends two channels both logged, and which processes the log
// first shows already running (started before it began), so that their
// events can be tied to an image as an agent ties those it finds running
// when it starts.

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace Tarn::Tool::Windows {

// The process recorded for one that the log shows already running gets this
// process_origin (the agent's own records use 1 and 2).
inline constexpr uint32_t kOriginAlreadyRunning = 3;

// Two channels' records of one process start (or end) lie this close.
inline constexpr int64_t kSameProcessMs = 2'000;

struct LoggedProcess {
  std::string guid;  // Sysmon's ProcessGuid, braces and case as written
  uint64_t pid = 0;
  std::string image;
  std::string command_line;
};

// What one event says about processes.
struct ProcessFacts {
  enum class Kind : uint8_t { kOther, kSysmonStart, kSysmonEnd, kSecurityStart, kSecurityEnd };
  Kind kind = Kind::kOther;
  std::string host;
  LoggedProcess self;    // the process it is about, or that acted
  LoggedProcess parent;  // a start's parent (Sysmon)
  LoggedProcess target;  // the process acted on (Sysmon 8, 10)
};

ProcessFacts FactsOf(const nlohmann::json& fields, std::string_view channel, uint32_t id);

struct LedgerEntry {
  int64_t time_ms = 0;
  const ProcessFacts* facts = nullptr;
};

// The entries (in time order) that are Security starts or ends of a process
// Sysmon logged too: same host, pid and image (case aside) within
// kSameProcessMs.
std::vector<size_t> RepeatedBySysmon(std::span<const LedgerEntry> entries);

// A process Sysmon names but whose start Sysmon did not log. When the
// Security log holds its start (a 4688 of its host, pid and image, the last
// before its first Sysmon event and not ended since), that start is its
// own: `security_start` is that entry, whose row takes the process's puid.
// Else it is recorded as already running: `fields` are those of a Sysmon
// process start at the time of its first event, which it goes before.
struct RunningProcess {
  size_t before = 0;  // the entry of its first event
  nlohmann::json fields;
  std::string guid;
  std::optional<size_t> security_start;
};

// Every process a Sysmon event names (acting, parent or target) whose first
// event is not its own start; its image and command line from whatever the
// log says of it (a child's ParentImage and ParentCommandLine included).
std::vector<RunningProcess> AlreadyRunning(std::span<const LedgerEntry> entries);

}  // namespace Tarn::Tool::Windows
