#include "manager/format/StorageHelper.h"

#include <cstring>

#include "Keel/Log.h"
#include "Keel/Utils/String.h"

namespace Tarn::Storage::Utils {
namespace {

// Keel::Log::StorageManager identifiers of this file; the file formats of
// the store share the 300s.
enum Message : uint32_t {
  kNameLength = 301,
  kBadDay = 302,
  kBadVersion = 303,
  kFormatFailed = 304,
};

// A 0 stands for any decimal digit; every other character must be itself.
constexpr char kTemplate[] = "storage.00000.000.db";
constexpr uint32_t kTemplateLength = sizeof(kTemplate) - 1;
constexpr uint32_t kDayPosition = 8;
constexpr uint32_t kDayDigits = 5;
constexpr uint32_t kVersionPosition = 14;
constexpr uint32_t kVersionDigits = 3;

bool MatchesTemplate(const char* name) {
  for (uint32_t i = 0; i < kTemplateLength; ++i) {
    bool digit = name[i] >= '0' && name[i] <= '9';
    if (kTemplate[i] == '0' ? !digit : name[i] != kTemplate[i]) return false;
  }
  return true;
}

}  // namespace

bool IsStorageFile(const char* name, bool is_directory, uint16_t& day, uint8_t& version) {
  day = 0;
  if (is_directory || name == nullptr) return false;
  // Bounded: a name one longer than the template is already wrong.
  size_t length = strnlen(name, kTemplateLength + 1);
  if (length != kTemplateLength) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageManager, kNameLength, length, kTemplateLength, 0);
    return false;
  }
  if (!MatchesTemplate(name)) return false;

  using Keel::Utils::String;
  uint16_t parsed_day = 0;
  uint8_t parsed_version = 0;
  if (!String::ConvertToUInt16(name + kDayPosition, 10, kDayDigits, parsed_day)) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageManager, kBadDay, 0, 0, 0);
    return false;
  }
  if (!String::ConvertToUInt8(name + kVersionPosition, 10, kVersionDigits, parsed_version)) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageManager, kBadVersion, parsed_day, 0, 0);
    return false;
  }
  day = parsed_day;
  version = parsed_version;
  return true;
}

std::string DayFileName(uint16_t day, uint8_t version) {
  Keel::Utils::String name;
  if (!name.AddFormat("storage.%05u.%03u.db", static_cast<unsigned>(day),
                      static_cast<unsigned>(version))) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageManager, kFormatFailed, day, version, 0);
    return std::string();
  }
  return name.str();
}

std::string AsideName(const std::string& name, uint32_t attempt) {
  if (attempt == 0) return name + kAsideSuffix;
  return name + "." + std::to_string(attempt) + kAsideSuffix;
}

std::string NameBeforeAside(const std::string& name) {
  const std::string suffix = kAsideSuffix;
  if (name.size() <= suffix.size() ||
      name.compare(name.size() - suffix.size(), suffix.size(), suffix) != 0) {
    return std::string();
  }
  std::string stem = name.substr(0, name.size() - suffix.size());
  const size_t dot = stem.find_last_of('.');
  if (dot != std::string::npos && dot + 1 < stem.size() &&
      stem.find_first_not_of("0123456789", dot + 1) == std::string::npos) {
    const std::string unnumbered = stem.substr(0, dot);
    if (unnumbered.size() > 3 && unnumbered.compare(unnumbered.size() - 3, 3, ".db") == 0) {
      stem = unnumbered;
    }
  }
  uint16_t day = 0;
  uint8_t version = 0;
  if (stem == kFinalFileName || stem == kIndexFileName ||
      IsStorageFile(stem.c_str(), false, day, version)) {
    return stem;
  }
  return std::string();
}

}  // namespace Tarn::Storage::Utils
