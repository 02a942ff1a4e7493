#include "tarn/cli/TextForms.h"

#include <cctype>
#include <charconv>
#include <chrono>
#include <cstdio>

#include "Keel/OS/Time.h"

namespace Tarn::Tool {
namespace {

constexpr int64_t kDayMs = 86'400'000;
constexpr int64_t kEpoch2000 = 946'684'800;

bool HasZone(std::string_view text) {
  if (text.empty()) return false;
  if (text.back() == 'Z' || text.back() == 'z') return true;
  // An offset sits after the seconds, which end at position 19.
  return text.size() > 19 && text.find_first_of("+-", 19) != std::string_view::npos;
}

}  // namespace

int64_t RealNowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

bool ParseTime(std::string_view text, bool end_of_day, int64_t& ms) {
  if (text == "now") {
    ms = RealNowMs();
    return true;
  }
  std::string iso(text);
  bool date_only = iso.size() == 10;
  if (date_only) iso += "T00:00:00";
  if (iso.size() > 10 && iso[10] == ' ') iso[10] = 'T';
  if (iso.size() == 16) iso += ":00";  // minutes without seconds
  if (!HasZone(iso)) iso += 'Z';
  if (!iso.empty() && iso.back() == 'z') iso.back() = 'Z';
  Keel::OS::DateTime time;
  if (!Keel::OS::DateTime::ParseIso8601(iso, time)) return false;
  ms = time.ToMilliseconds();
  if (date_only && end_of_day) ms += kDayMs - 1;
  return true;
}

std::string FormatTime(int64_t ms, bool with_ms) {
  Keel::OS::DateTime time = Keel::OS::DateTime::FromMilliseconds(ms);
  return time.FormatIso8601(with_ms && time.Millisecond() != 0).str();
}

std::string FormatDay(uint16_t day) {
  std::string text = FormatTime((kEpoch2000 + int64_t{day} * 86'400) * 1000);
  return text.substr(0, 10);
}

bool ParseSize(std::string_view text, uint64_t& bytes) {
  uint64_t value = 0;
  auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (ec != std::errc() || end == text.data()) return false;
  std::string unit;
  for (const char* p = end; p != text.data() + text.size(); ++p) {
    unit.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(*p))));
  }
  if (unit.size() == 3 && unit.substr(1) == "IB") unit.resize(1);
  if (unit.size() == 2 && unit[1] == 'B') unit.resize(1);
  int shift = 0;
  if (unit.empty() || unit == "B") {
    shift = 0;
  } else if (unit == "K") {
    shift = 10;
  } else if (unit == "M") {
    shift = 20;
  } else if (unit == "G") {
    shift = 30;
  } else if (unit == "T") {
    shift = 40;
  } else {
    return false;
  }
  if (shift != 0 && value > (~0ull >> shift)) return false;
  bytes = value << shift;
  return true;
}

std::string FormatBytes(uint64_t bytes) {
  static const char* const kUnits[] = {"KiB", "MiB", "GiB", "TiB"};
  if (bytes < 1024) return std::to_string(bytes) + " B";
  double value = static_cast<double>(bytes);
  int unit = -1;
  while (value >= 1024 && unit < 3) {
    value /= 1024;
    ++unit;
  }
  char text[32];
  std::snprintf(text, sizeof(text), value < 10 ? "%.2f %s" : "%.1f %s", value, kUnits[unit]);
  return text;
}

std::string FormatCount(uint64_t value) {
  std::string digits = std::to_string(value);
  std::string out;
  for (size_t i = 0; i < digits.size(); ++i) {
    if (i != 0 && (digits.size() - i) % 3 == 0) out.push_back(',');
    out.push_back(digits[i]);
  }
  return out;
}

std::string Counted(uint64_t n, const std::string& noun) {
  return FormatCount(n) + " " + noun + (n == 1 ? "" : "s");
}

std::string FormatSeconds(double seconds) {
  char text[32];
  if (seconds < 1) {
    std::snprintf(text, sizeof(text), "%.0f ms", seconds * 1000);
  } else {
    std::snprintf(text, sizeof(text), "%.1f s", seconds);
  }
  return text;
}

}  // namespace Tarn::Tool
