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

// TokenElevationType as the Security log writes it.
constexpr Named kElevationTypes[] = {{"%%1936", 1}, {"%%1937", 2}, {"%%1938", 3}};

// SERVICE_*_START as System 7045 writes them.
constexpr Named kStartTypes[] = {{"boot start", 0},   {"system start", 1}, {"auto start", 2},
                                 {"demand start", 3}, {"disabled", 4}};

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

// Names of values (integrity levels, elevation and start types) are read
// leniently: a name the table does not hold (a localized log, a new
// Windows) leaves the column 0 rather than lose the event.
uint64_t ValueNamed(std::span<const Named> names, std::string_view text) {
  uint64_t value = 0;
  if (ReadNumber(text, value)) return value;
  const std::string key = Lower(text);
  for (const Named& n : names) {
    if (n.name == key) return n.value;
  }
  return 0;
}

uint64_t IntegrityOf(std::string_view text) {
  constexpr std::string_view kLabelPrefix = "S-1-16-";  // a mandatory label SID
  if (text.substr(0, kLabelPrefix.size()) == kLabelPrefix) text.remove_prefix(kLabelPrefix.size());
  return ValueNamed(kIntegrityLevels, text);
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

// A registry value's path: its key, all before the last "\" (none without one).
std::string_view KeyOf(std::string_view path) {
  const size_t slash = path.rfind('\\');
  return slash == std::string_view::npos ? std::string_view() : path.substr(0, slash);
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
    case Convert::kRegistryName:  // all of a path without a "\" (npos + 1 is 0)
      out = text.substr(text.rfind('\\') + 1);
      return true;
    case Convert::kTaskCommands: out = TaskActions(text, true); return true;
    case Convert::kTaskPrograms: out = TaskActions(text, false); return true;
    case Convert::kIpProtocol: out = ProtocolName(text); return true;
    default: return Refuse(error, "a text", text);
  }
}

}  // namespace Tarn::Tool::Windows
