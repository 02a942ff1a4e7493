#include "Keel/OS/Time.h"

#include <atomic>
#include <chrono>

namespace Keel::OS::Time {
namespace {

std::atomic<ClockSource> g_clock_source{nullptr};

uint64_t RealClock() {
  auto now = std::chrono::system_clock::now().time_since_epoch();
  int64_t ms = std::chrono::duration_cast<std::chrono::milliseconds>(now).count();
  return ms < 0 ? 0 : static_cast<uint64_t>(ms);
}

}  // namespace

uint64_t GetSystemTime() {
  ClockSource source = g_clock_source.load(std::memory_order_acquire);
  return source != nullptr ? source() : RealClock();
}

uint64_t GetEpochTime(uint64_t* out) {
  uint64_t seconds = GetSystemTime() / 1000;
  if (out != nullptr) *out = seconds;
  return seconds;
}

void SetClockSource(ClockSource source) { g_clock_source.store(source, std::memory_order_release); }

}  // namespace Keel::OS::Time

namespace Keel::OS {
namespace {

constexpr int64_t kSecondsPerDay = 86400;

// Floor division: -1 s is the last second of 1969-12-31, not of 1970-01-01.
int64_t FloorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

bool IsLeapYear(int64_t y) { return y % 4 == 0 && (y % 100 != 0 || y % 400 == 0); }

uint32_t DaysInMonth(int64_t year, uint32_t month) {
  static constexpr uint8_t kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

// Days since 1970-01-01 of a proleptic Gregorian date. Years are counted in
// 400-year eras starting in March, so the leap day ends each era's year.
int64_t DaysFromCivil(int64_t y, uint32_t m, uint32_t d) {
  y -= m <= 2;
  int64_t era = FloorDiv(y, 400);
  int64_t yoe = y - era * 400;
  int64_t doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
  int64_t doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return era * 146097 + doe - 719468;
}

void CivilFromDays(int64_t z, DateTime::Fields& f) {
  z += 719468;
  int64_t era = FloorDiv(z, 146097);
  int64_t doe = z - era * 146097;
  int64_t yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  int64_t doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  int64_t mp = (5 * doy + 2) / 153;
  f.day = static_cast<uint32_t>(doy - (153 * mp + 2) / 5 + 1);
  f.month = static_cast<uint32_t>(mp < 10 ? mp + 3 : mp - 9);
  f.year = yoe + era * 400 + (f.month <= 2);
}

// Reads exactly `count` decimal digits at `pos`.
bool ReadDigits(std::string_view text, size_t& pos, size_t count, uint32_t& value) {
  if (pos + count > text.size()) return false;
  value = 0;
  for (size_t i = 0; i < count; ++i) {
    char c = text[pos + i];
    if (c < '0' || c > '9') return false;
    value = value * 10 + static_cast<uint32_t>(c - '0');
  }
  pos += count;
  return true;
}

bool Expect(std::string_view text, size_t& pos, char c) {
  if (pos >= text.size() || text[pos] != c) return false;
  ++pos;
  return true;
}

// Optional ".fff…": returns milliseconds, truncating digits past the third.
bool ReadFraction(std::string_view text, size_t& pos, uint32_t& millisecond) {
  millisecond = 0;
  if (pos >= text.size() || text[pos] != '.') return true;
  ++pos;
  size_t digits = 0;
  uint32_t scale = 100;
  while (pos < text.size() && text[pos] >= '0' && text[pos] <= '9') {
    if (digits < 3) millisecond += static_cast<uint32_t>(text[pos] - '0') * scale;
    scale /= 10;
    ++digits;
    ++pos;
  }
  return digits >= 1 && digits <= 9;
}

// "Z", "+HH:MM" or "-HH:MM" ending the text; the offset is in seconds east.
bool ReadZone(std::string_view text, size_t& pos, int64_t& offset) {
  offset = 0;
  if (pos < text.size() && text[pos] == 'Z') return ++pos == text.size();
  if (pos >= text.size() || (text[pos] != '+' && text[pos] != '-')) return false;
  int64_t sign = text[pos++] == '-' ? -1 : 1;
  uint32_t hours, minutes;
  if (!ReadDigits(text, pos, 2, hours) || !Expect(text, pos, ':') ||
      !ReadDigits(text, pos, 2, minutes) || hours > 23 || minutes > 59) {
    return false;
  }
  offset = sign * (hours * 3600 + minutes * 60);
  return pos == text.size();
}

}  // namespace

DateTime DateTime::FromMilliseconds(int64_t milliseconds_since_epoch) {
  DateTime time(FloorDiv(milliseconds_since_epoch, 1000));
  time.millisecond_ = static_cast<uint32_t>(milliseconds_since_epoch - time.seconds_ * 1000);
  return time;
}

DateTime DateTime::Now() {
  uint64_t ms = Time::GetSystemTime();
  DateTime time(static_cast<int64_t>(ms / 1000));
  time.millisecond_ = static_cast<uint32_t>(ms % 1000);
  return time;
}

int64_t DateTime::ToMilliseconds() const {
  constexpr int64_t kLimit = INT64_MAX / 1000 - 1;
  if (seconds_ > kLimit) return INT64_MAX;
  if (seconds_ < -kLimit) return INT64_MIN;
  return seconds_ * 1000 + millisecond_;
}

bool DateTime::FromFields(const Fields& f, DateTime& out) {
  if (f.year > kMaxYear || f.year < -kMaxYear || f.month < 1 || f.month > 12 || f.day < 1 ||
      f.day > DaysInMonth(f.year, f.month) || f.hour > 23 || f.minute > 59 || f.second > 59 ||
      f.millisecond > 999) {
    return false;
  }
  int64_t days = DaysFromCivil(f.year, f.month, f.day);
  out.seconds_ = days * kSecondsPerDay + f.hour * 3600 + f.minute * 60 + f.second;
  out.millisecond_ = f.millisecond;
  return true;
}

DateTime::Fields DateTime::ToFields() const {
  Fields f;
  int64_t days = FloorDiv(seconds_, kSecondsPerDay);
  int64_t second_of_day = seconds_ - days * kSecondsPerDay;
  CivilFromDays(days, f);
  f.hour = static_cast<uint32_t>(second_of_day / 3600);
  f.minute = static_cast<uint32_t>(second_of_day / 60 % 60);
  f.second = static_cast<uint32_t>(second_of_day % 60);
  f.millisecond = millisecond_;
  return f;
}

Utils::String DateTime::FormatIso8601(bool with_milliseconds) const {
  Fields f = ToFields();
  Utils::String text;
  text.AddFormat("%04lld-%02u-%02uT%02u:%02u:%02u", static_cast<long long>(f.year), f.month, f.day,
                 f.hour, f.minute, f.second);
  if (with_milliseconds) text.AddFormat(".%03u", f.millisecond);
  text.Add("Z");
  return text;
}

bool DateTime::ParseIso8601(std::string_view text, DateTime& out) {
  Fields f;
  uint32_t year = 0;
  size_t pos = 0;
  int64_t offset = 0;
  bool ok = ReadDigits(text, pos, 4, year) && Expect(text, pos, '-') &&
            ReadDigits(text, pos, 2, f.month) && Expect(text, pos, '-') &&
            ReadDigits(text, pos, 2, f.day) && Expect(text, pos, 'T') &&
            ReadDigits(text, pos, 2, f.hour) && Expect(text, pos, ':') &&
            ReadDigits(text, pos, 2, f.minute) && Expect(text, pos, ':') &&
            ReadDigits(text, pos, 2, f.second) && ReadFraction(text, pos, f.millisecond) &&
            ReadZone(text, pos, offset);
  f.year = year;
  DateTime local;
  if (!ok || !FromFields(f, local)) return false;
  local.seconds_ -= offset;
  out = local;
  return true;
}

}  // namespace Keel::OS
