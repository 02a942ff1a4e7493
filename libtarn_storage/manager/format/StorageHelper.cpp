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

}  // namespace Tarn::Storage::Utils
