#pragma once

// Which table and columns each Windows event goes to: the mapping as data,
// one entry per channel and event id (or per variant of one, chosen by a
// field), read by WindowsEvents. docs/windows-import.md shows it for people.

#include <cstdint>
#include <span>
#include <string_view>

namespace Tarn::Tool::Windows {

// How a field of the event becomes the value of a column.
enum class Convert : uint8_t {
  kText,          // as written
  kNumber,        // decimal or 0x hexadecimal; "-" and "" are 0
  kFlag,          // "true" 1, "false" 0
  kPuid,          // a ProcessGuid: a 64-bit hash of it, the same in every event
  kStartTime,     // a ProcessGuid: the second its process started, in ms
  kPidPuid,       // a process id: a hash of it with the event's host and time, the
                  // puid of a process its log names by pid alone (never 0)
  kEventTime,     // the event's own time (no field)
  kEventId,       // the event's id (no field)
  kFileName,      // a path: its last part
  kPathHash,      // a path: the 32-bit hash parent_path_crc holds
  kArgOffsets,    // a command line: where its arguments start
  kProgram,       // a command line: the program it runs
  kIntegrity,     // "Medium" or "S-1-16-8192": the mandatory label's RID, 0x2000
  kElevation,     // "%%1936", "%%1937", "%%1938": token elevation types 1, 2, 3
  kPrivileges,    // privilege names ("SeDebugPrivilege ..."): bit N for the one whose LUID is N
  kAddress,       // an IPv4 or IPv6 address; "-" is none
  kPipe,          // a pipe name: its path, \\.\pipe\name
  kRegistryKey,   // a registry value's path: its key
  kRegistryName,  // a registry value's path: the value's name (all after the key
                  // when the key is one whose values are named by paths)
  kRegistryType,  // Sysmon's Details ("DWORD (0x00000001)"): the REG_* type number
  kDriver,        // a service type: 1 for a driver, else 0
  kStartType,     // a service start type, a number or in words: 0 to 4
                  // (kIntegrity, kElevation, kStartType: kUnknownNamed when the
                  // text names no value they know)
  kTaskCommands,  // a task's XML: the command lines of its actions
  kTaskPrograms,  // a task's XML: the programs its actions run
  kIpProtocol,    // an IP protocol number: "tcp", "udp", "icmp" as Sysmon writes them
  kExtra,         // appended to extra_keys and extra_values under its field's name
  kConstant,      // the rule's `field` is the value itself
};

struct FieldRule {
  std::string_view field;   // the event's field, or the value for kConstant
  std::string_view column;  // empty for kExtra
  Convert convert = Convert::kText;
};

// Chooses between the rules of one event id: the field's text equals
// `equals`, or, when `bits` is set, its number has all of them.
struct Condition {
  std::string_view field;  // empty: always
  std::string_view equals;
  uint64_t bits = 0;
};

struct EventRule {
  std::string_view channel;
  uint32_t event_id;
  Condition when;
  std::string_view table;
  std::span<const FieldRule> fields;
  bool and_next = false;  // the event takes the rules after this one too
};

// Every rule. The rules of one event id follow each other; the first whose
// condition holds is the event's, and when it says `and_next` the first of
// the rules after it whose condition holds as well (a row in each table).
// Conditions compare as Windows does, case aside.
std::span<const EventRule> Rules();

// The fields that may hold an event's time, the first present wins: the
// time the log stamped it, the same clock for every channel.
inline constexpr std::string_view kTimeFields[] = {"@timestamp", "TimeCreated", "UtcTime"};

}  // namespace Tarn::Tool::Windows
