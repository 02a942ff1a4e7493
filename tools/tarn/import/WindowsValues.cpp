#include "tarn/import/WindowsValues.h"

#include <algorithm>
#include <cctype>
#include <charconv>

#include "osquery/RecordColumns.h"
#include "tarn/import/CommandLine.h"
#include "tarn/synthetic/Random.h"

namespace Tarn::Tool::Windows {
namespace {

// The first arguments of a command line whose start offsets are kept: a
// record holds 8 bytes per offset, and a line of thousands of short
// arguments would not fit.
constexpr size_t kMaxArgumentOffsets = 256;

struct Named {
  std::string_view name;
  uint64_t value;
};

// Mandatory label RIDs; Sysmon writes them by name.
constexpr Named kIntegrityLevels[] = {
    {"untrusted", 0x0000}, {"low", 0x1000},    {"appcontainer", 0x1000}, {"medium", 0x2000},
    {"mediumplus", 0x2100}, {"high", 0x3000},  {"system", 0x4000},       {"protected", 0x5000},
};

// TokenElevationType as the Security log writes it, and as its message
// shows it.
constexpr Named kElevationTypes[] = {
    {"%%1936", 1},
    {"%%1937", 2},
    {"%%1938", 3},
    {"tokenelevationtypedefault (1)", 1},
    {"tokenelevationtypefull (2)", 2},
    {"tokenelevationtypelimited (3)", 3},
};

// SERVICE_*_START as System 7045 writes them.
constexpr Named kStartTypes[] = {{"boot start", 0},   {"system start", 1}, {"auto start", 2},
                                 {"demand start", 3}, {"disabled", 4}};

// Privileges by the low part of their LUID (SE_*_PRIVILEGE, 2 to 36): a set
// of them is the mask with bit N for privilege N, which fits 64 bits.
constexpr Named kPrivilegeLuids[] = {
    {"secreatetokenprivilege", 2},
    {"seassignprimarytokenprivilege", 3},
    {"selockmemoryprivilege", 4},
    {"seincreasequotaprivilege", 5},
    {"semachineaccountprivilege", 6},
    {"setcbprivilege", 7},
    {"sesecurityprivilege", 8},
    {"setakeownershipprivilege", 9},
    {"seloaddriverprivilege", 10},
    {"sesystemprofileprivilege", 11},
    {"sesystemtimeprivilege", 12},
    {"seprofilesingleprocessprivilege", 13},
    {"seincreasebasepriorityprivilege", 14},
    {"secreatepagefileprivilege", 15},
    {"secreatepermanentprivilege", 16},
    {"sebackupprivilege", 17},
    {"serestoreprivilege", 18},
    {"seshutdownprivilege", 19},
    {"sedebugprivilege", 20},
    {"seauditprivilege", 21},
    {"sesystemenvironmentprivilege", 22},
    {"sechangenotifyprivilege", 23},
    {"seremoteshutdownprivilege", 24},
    {"seundockprivilege", 25},
    {"sesyncagentprivilege", 26},
    {"seenabledelegationprivilege", 27},
    {"semanagevolumeprivilege", 28},
    {"seimpersonateprivilege", 29},
    {"secreateglobalprivilege", 30},
    {"setrustedcredmanaccessprivilege", 31},
    {"serelabelprivilege", 32},
    {"seincreaseworkingsetprivilege", 33},
    {"setimezoneprivilege", 34},
    {"secreatesymboliclinkprivilege", 35},
    {"sedelegatesessionuserimpersonateprivilege", 36},
};

// Keys whose values Windows names by paths (or other texts holding a "\"):
// Sysmon's TargetObject, the key and the value's name joined by "\", does
// not say where such a key ends. Under one of these keys a value's name is
// all of the path after the key; under any other, the path's last part. A
// "*" stands for any text within one part (a SID, a GUID, a control set);
// parts compare case aside.
constexpr std::string_view kKeysOfPathValues[] = {
    // The background and desktop activity moderators: each program's last run.
    R"(HKLM\System\*\Services\bam\State\UserSettings\*)",
    R"(HKLM\System\*\Services\bam\UserSettings\*)",
    R"(HKLM\System\*\Services\dam\State\UserSettings\*)",
    R"(HKLM\System\*\Services\dam\UserSettings\*)",
    // The program compatibility assistant, and compatibility modes.
    R"(HKU\*\Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\)"
    R"(Compatibility Assistant\Store)",
    R"(HKU\*\Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\)"
    R"(Compatibility Assistant\Persisted)",
    R"(HKU\*\Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\Layers)",
    R"(HKLM\Software\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\Layers)",
    R"(HKLM\Software\WOW6432Node\Microsoft\Windows NT\CurrentVersion\AppCompatFlags\Layers)",
    // Programs the user ran from the shell (their paths in ROT13) or switched to.
    R"(HKU\*\Software\Microsoft\Windows\CurrentVersion\Explorer\UserAssist\*\Count)",
    R"(HKU\*\Software\Microsoft\Windows\CurrentVersion\Explorer\FeatureUsage\AppSwitched)",
    R"(HKU\*\Software\Microsoft\Windows\CurrentVersion\Explorer\FeatureUsage\AppLaunch)",
    R"(HKU\*\Software\Microsoft\Windows\CurrentVersion\Explorer\FeatureUsage\ShowJumpView)",
    R"(HKU\*\Software\Microsoft\Windows\CurrentVersion\Explorer\FeatureUsage\AppBadgeUpdated)",
    // The names the shell shows for the programs it ran (the MUI cache).
    R"(HKU\*_Classes\Local Settings\Software\Microsoft\Windows\Shell\MuiCache)",
    R"(HKU\*\Software\Classes\Local Settings\Software\Microsoft\Windows\Shell\MuiCache)",
    // Shared DLLs' reference counts, and the folders installers made.
    R"(HKLM\Software\Microsoft\Windows\CurrentVersion\SharedDLLs)",
    R"(HKLM\Software\WOW6432Node\Microsoft\Windows\CurrentVersion\SharedDLLs)",
    R"(HKLM\Software\Microsoft\Windows\CurrentVersion\Installer\Folders)",
    // The paths and programs Windows Defender leaves alone.
    R"(HKLM\Software\Microsoft\Windows Defender\Exclusions\Paths)",
    R"(HKLM\Software\Microsoft\Windows Defender\Exclusions\Processes)",
    R"(HKLM\Software\Policies\Microsoft\Windows Defender\Exclusions\Paths)",
    R"(HKLM\Software\Policies\Microsoft\Windows Defender\Exclusions\Processes)",
};

// REG_* types Sysmon names in Details; any other text is a string value.
constexpr Named kRegistryTypes[] = {{"DWORD (", 4}, {"QWORD (", 11}, {"Binary Data", 3}};
constexpr uint64_t kRegistryString = 1;

std::string Lower(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool Refuse(std::string& error, std::string_view what, std::string_view text) {
  error = "\"" + std::string(text.substr(0, 60)) + "\" is not " + std::string(what);
  return false;
}

// The 32 hexadecimal digits of a GUID, lower case, or empty when it is none.
std::string GuidDigits(std::string_view guid) {
  if (guid.size() == 38 && guid.front() == '{' && guid.back() == '}') {
    guid = guid.substr(1, 36);
  }
  if (guid.size() != 36) return "";
  std::string digits;
  for (size_t i = 0; i < guid.size(); ++i) {
    const bool dash = i == 8 || i == 13 || i == 18 || i == 23;
    const auto c = static_cast<unsigned char>(guid[i]);
    if (dash != (c == '-') || (!dash && !std::isxdigit(c))) return "";
    if (!dash) digits.push_back(static_cast<char>(std::tolower(c)));
  }
  return digits;
}

// Sysmon writes the second a process started into its ProcessGuid: the
// second group holds the low 16 bits, the third the high ones.
// 0 for anything else, the zero GUID included.
uint64_t StartTimeOf(std::string_view guid) {
  const std::string digits = GuidDigits(guid);
  uint32_t low = 0;
  uint32_t high = 0;
  if (digits.empty()) return 0;
  std::from_chars(digits.data() + 8, digits.data() + 12, low, 16);
  std::from_chars(digits.data() + 12, digits.data() + 16, high, 16);
  return (uint64_t{high} << 16 | low) * 1000;
}

bool SameLetter(char a, char b) {
  return std::tolower(static_cast<unsigned char>(a)) == std::tolower(static_cast<unsigned char>(b));
}

// Whether `text` starts or ends with `part`, case aside.
bool StartsWithLetters(std::string_view text, std::string_view part) {
  return text.size() >= part.size() &&
         std::equal(part.begin(), part.end(), text.begin(), SameLetter);
}
bool EndsWithLetters(std::string_view text, std::string_view part) {
  return text.size() >= part.size() &&
         StartsWithLetters(text.substr(text.size() - part.size()), part);
}

// Names of values (integrity levels, elevation and start types) are read
// leniently: a text that names none of the list (a localized log, a newer
// Windows, "-" or nothing) gives kUnknownNamed rather than lose the event;
// so does a number too large for the 32-bit columns.
uint64_t ValueNamed(std::span<const Named> names, std::string_view text) {
  if (text.empty() || text == "-") return kUnknownNamed;
  uint64_t value = 0;
  if (ReadNumber(text, value)) return std::min(value, kUnknownNamed);
  const std::string key = Lower(text);
  for (const Named& n : names) {
    if (n.name == key) return n.value;
  }
  return kUnknownNamed;
}

uint64_t IntegrityOf(std::string_view text) {
  constexpr std::string_view kLabelPrefix = "S-1-16-";  // a mandatory label SID
  if (!StartsWithLetters(text, kLabelPrefix)) return ValueNamed(kIntegrityLevels, text);
  text.remove_prefix(kLabelPrefix.size());
  uint64_t rid = 0;
  return !text.empty() && ReadNumber(text, rid) ? std::min(rid, kUnknownNamed) : kUnknownNamed;
}

// The mask of the privileges a list names, apart by white space or commas
// (the Security log puts each on a line of its own). A name the list does
// not hold adds nothing.
uint64_t PrivilegesOf(std::string_view list) {
  constexpr std::string_view kApart = " \t\r\n,";
  uint64_t mask = 0;
  size_t start = list.find_first_not_of(kApart);
  while (start != std::string_view::npos) {
    const size_t end = std::min(list.find_first_of(kApart, start), list.size());
    const std::string name = Lower(list.substr(start, end - start));
    for (const Named& n : kPrivilegeLuids) {
      if (n.name == name) mask |= uint64_t{1} << n.value;
    }
    start = list.find_first_not_of(kApart, end);
  }
  return mask;
}

// A service type: SERVICE_KERNEL_DRIVER (1) or SERVICE_FILE_SYSTEM_DRIVER
// (2), as a number (4697) or in words (7045).
uint64_t IsDriver(std::string_view text) {
  uint64_t type = 0;
  if (ReadNumber(text, type)) return (type & 0x3) != 0 ? 1 : 0;
  return Lower(text).find("driver") != std::string::npos ? 1 : 0;
}

uint64_t RegistryTypeOf(std::string_view details) {
  for (const Named& n : kRegistryTypes) {
    if (details.substr(0, n.name.size()) == n.name) return n.value;
  }
  return kRegistryString;
}

std::string Unescaped(std::string_view xml) {
  static constexpr std::pair<std::string_view, char> kEntities[] = {
      {"&amp;", '&'}, {"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}};
  std::string out;
  for (size_t i = 0; i < xml.size(); ++i) {
    auto entity = std::find_if(std::begin(kEntities), std::end(kEntities), [&](const auto& e) {
      return xml.substr(i, e.first.size()) == e.first;
    });
    if (entity == std::end(kEntities)) {
      out.push_back(xml[i]);
    } else {
      out.push_back(entity->second);
      i += entity->first.size() - 1;
    }
  }
  return out;
}

// The text between <tag> and </tag> in `xml`, from `from` on.
std::string_view Element(std::string_view xml, std::string_view tag, size_t from = 0) {
  const std::string open = "<" + std::string(tag) + ">";
  const std::string close = "</" + std::string(tag) + ">";
  const size_t start = xml.find(open, from);
  if (start == std::string_view::npos) return {};
  const size_t end = xml.find(close, start);
  if (end == std::string_view::npos) return {};
  return xml.substr(start + open.size(), end - start - open.size());
}

// The Exec actions of a task's XML: each command with its arguments, or
// the command alone.
std::string TaskActions(std::string_view xml, bool with_arguments) {
  std::vector<std::string> items;
  for (std::string_view exec = Element(xml, "Exec"); !exec.empty();
       exec = Element(xml, "Exec", static_cast<size_t>(exec.data() - xml.data()) + exec.size())) {
    std::string item = Unescaped(Element(exec, "Command"));
    const std::string_view arguments = Element(exec, "Arguments");
    if (with_arguments && !arguments.empty()) item += " " + Unescaped(arguments);
    items.push_back(std::move(item));
  }
  return JoinList(items);
}

// Whether a part of a path matches a part of a key in kKeysOfPathValues:
// the same letters, case aside, a "*" standing for any text.
bool PartMatches(std::string_view part, std::string_view pattern) {
  const size_t star = pattern.find('*');
  if (star == std::string_view::npos) {
    return part.size() == pattern.size() && StartsWithLetters(part, pattern);
  }
  const std::string_view before = pattern.substr(0, star);
  const std::string_view after = pattern.substr(star + 1);
  return !part.empty() && part.size() >= before.size() + after.size() &&
         StartsWithLetters(part, before) && EndsWithLetters(part, after);
}

// The length of the key `pattern` at the start of `path` when the path
// goes on past it with "\" and a value's name; 0 when it does not.
size_t KnownKeyLength(std::string_view path, std::string_view pattern) {
  size_t at = 0;  // where the path's next part starts
  while (true) {
    const size_t pattern_end = std::min(pattern.find('\\'), pattern.size());
    const size_t part_end = std::min(path.find('\\', at), path.size());
    if (!PartMatches(path.substr(at, part_end - at), pattern.substr(0, pattern_end))) return 0;
    if (part_end + 1 >= path.size()) return 0;  // no name after the key, or not all of the key
    if (pattern_end == pattern.size()) return part_end;
    pattern.remove_prefix(pattern_end + 1);
    at = part_end + 1;
  }
}

// Where a registry value's path parts into the key and the value's name:
// the "\" after a key of kKeysOfPathValues, else the last one; npos when
// the path has none.
size_t ValueNameSeparator(std::string_view path) {
  for (std::string_view pattern : kKeysOfPathValues) {
    const size_t length = KnownKeyLength(path, pattern);
    if (length != 0) return length;
  }
  return path.rfind('\\');
}

// A registry value's path: its key (empty for a path without a "\").
std::string_view KeyOf(std::string_view path) {
  const size_t separator = ValueNameSeparator(path);
  return separator == std::string_view::npos ? std::string_view() : path.substr(0, separator);
}

// A registry value's path: the value's name (all of a path without a "\").
std::string_view ValueNameOf(std::string_view path) {
  const size_t separator = ValueNameSeparator(path);
  return separator == std::string_view::npos ? path : path.substr(separator + 1);
}

// Sysmon names pipes from the root of the pipe file system (\name);
// programs open them as \\.\pipe\name. "<Anonymous Pipe>" stays as it is.
std::string PipePath(std::string_view name) {
  if (name.empty() || name.front() != '\\') return std::string(name);
  return "\\\\.\\pipe" + std::string(name);
}

std::string OffsetsOf(std::string_view command_line) {
  std::vector<uint64_t> offsets = ArgumentOffsets(command_line);
  if (offsets.size() > kMaxArgumentOffsets) offsets.resize(kMaxArgumentOffsets);
  std::string out;
  for (uint64_t offset : offsets) out += (out.empty() ? "" : ",") + std::to_string(offset);
  return out;
}

// The Windows Filtering Platform writes the IP protocol's number; Sysmon
// its name.
std::string ProtocolName(std::string_view number) {
  if (number == "6") return "tcp";
  if (number == "17") return "udp";
  if (number == "1" || number == "58") return "icmp";
  return std::string(number);
}

}  // namespace

bool ReadNumber(std::string_view text, uint64_t& out) {
  out = 0;
  if (text.empty() || text == "-") return true;
  int base = 10;
  if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
    text.remove_prefix(2);
    base = 16;
  }
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), out, base);
  return ec == std::errc() && end == text.data() + text.size();
}

uint64_t PuidOf(std::string_view guid) {
  const std::string digits = GuidDigits(guid);
  if (digits.find_first_not_of('0') == std::string::npos) return 0;
  return HashOf(digits);
}

std::string JoinList(const std::vector<std::string>& items) {
  std::string out;
  for (const std::string& item : items) {
    if (!out.empty()) out.push_back(',');
    if (item.find(',') == std::string::npos && (item.empty() || item.front() != '"')) {
      out += item;
      continue;
    }
    out.push_back('"');
    for (char c : item) out += c == '"' ? std::string("\"\"") : std::string(1, c);
    out.push_back('"');
  }
  return out;
}

bool GivesNumber(Convert convert) {
  switch (convert) {
    case Convert::kNumber:
    case Convert::kFlag:
    case Convert::kPuid:
    case Convert::kPidPuid:
    case Convert::kStartTime:
    case Convert::kEventTime:
    case Convert::kEventId:
    case Convert::kPathHash:
    case Convert::kIntegrity:
    case Convert::kElevation:
    case Convert::kPrivileges:
    case Convert::kRegistryType:
    case Convert::kDriver:
    case Convert::kStartType:
      return true;
    default:
      return false;
  }
}

bool ToNumber(Convert convert, std::string_view text, const EventFacts& facts, uint64_t& out,
              std::string& error) {
  switch (convert) {
    case Convert::kNumber:
    case Convert::kConstant:
      return ReadNumber(text, out) || Refuse(error, "a number", text);
    case Convert::kFlag: out = Lower(text) == "true" ? 1 : 0; return true;
    case Convert::kPuid: out = PuidOf(text); return true;
    case Convert::kPidPuid:
      out = HashOf(std::string(facts.host) + " " + std::string(text) + " " +
                   std::to_string(facts.time_ms)) | 1;  // never 0, the puid of no process
      return true;
    case Convert::kStartTime: out = StartTimeOf(text); return true;
    case Convert::kEventTime: out = static_cast<uint64_t>(facts.time_ms); return true;
    case Convert::kEventId: out = facts.event_id; return true;
    case Convert::kPathHash: out = HashOf(text) & 0xFFFFFFFFu; return true;
    case Convert::kIntegrity: out = IntegrityOf(text); return true;
    case Convert::kElevation: out = ValueNamed(kElevationTypes, text); return true;
    case Convert::kPrivileges: out = PrivilegesOf(text); return true;
    case Convert::kRegistryType: out = RegistryTypeOf(text); return true;
    case Convert::kDriver: out = IsDriver(text); return true;
    case Convert::kStartType: out = ValueNamed(kStartTypes, text); return true;
    default: return Refuse(error, "a number", text);
  }
}

bool ToText(Convert convert, std::string_view text, std::string& out, std::string& error) {
  switch (convert) {
    case Convert::kText:
    case Convert::kConstant:
    case Convert::kExtra: out = text; return true;
    case Convert::kFileName: out = text.substr(text.find_last_of("\\/") + 1); return true;
    case Convert::kProgram: out = ProgramOf(text); return true;
    case Convert::kArgOffsets: out = OffsetsOf(text); return true;
    case Convert::kAddress: {
      bool present = false;
      Events::Address address;
      out = text;
      return Storage::OSQuery::ReadAddressText(text, present, address) ||
             Refuse(error, "an IPv4 or IPv6 address", text);
    }
    case Convert::kPipe: out = PipePath(text); return true;
    case Convert::kRegistryKey: out = KeyOf(text); return true;
    case Convert::kRegistryName: out = ValueNameOf(text); return true;
    case Convert::kTaskCommands: out = TaskActions(text, true); return true;
    case Convert::kTaskPrograms: out = TaskActions(text, false); return true;
    case Convert::kIpProtocol: out = ProtocolName(text); return true;
    default: return Refuse(error, "a text", text);
  }
}

}  // namespace Tarn::Tool::Windows
