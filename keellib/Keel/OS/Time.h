#pragma once

#include <compare>
#include <cstdint>
#include <string_view>

#include "Keel/Export.h"
#include "Keel/Utils/String.h"

namespace Keel::OS::Time {

// A host's clock: milliseconds since 1970-01-01 UTC.
using ClockSource = uint64_t (*)();

// Seconds since 1970-01-01 UTC; also stored in *out when out is not null.
KEEL_API uint64_t GetEpochTime(uint64_t* out = nullptr);
// Milliseconds since 1970-01-01 UTC.
KEEL_API uint64_t GetSystemTime();
// Makes every clock reading above come from `source` (null: the real clock
// again). Safe to call while other threads read the clock.
KEEL_API void SetClockSource(ClockSource source);

}  // namespace Keel::OS::Time

namespace Keel::OS {

// A point in time, UTC, to the millisecond. Times before 1970 are negative
// seconds; calendar conversions use the proleptic Gregorian calendar and no
// leap seconds, so they never depend on the process's locale or time zone.
class KEEL_API DateTime {
 public:
  struct Fields {
    int64_t year = 1970;
    uint32_t month = 1;  // 1-12
    uint32_t day = 1;    // 1-31
    uint32_t hour = 0;
    uint32_t minute = 0;
    uint32_t second = 0;  // 0-59
    uint32_t millisecond = 0;
  };

  // Years FromFields accepts, either side of year 0.
  static constexpr int64_t kMaxYear = 1000000000;

  DateTime() = default;  // 1970-01-01T00:00:00Z
  explicit DateTime(int64_t seconds_since_epoch) : seconds_(seconds_since_epoch) {}

  static DateTime FromMilliseconds(int64_t milliseconds_since_epoch);
  // The current time of the (possibly host-installed) clock.
  static DateTime Now();
  // Fails when a field is out of range, including days past the month's end.
  static bool FromFields(const Fields& fields, DateTime& out);
  // "YYYY-MM-DDTHH:MM:SS", then optionally "." and 1-9 digits of fraction
  // (kept to the millisecond), then "Z" or an offset "+HH:MM" / "-HH:MM".
  static bool ParseIso8601(std::string_view text, DateTime& out);

  int64_t ToSecondsSinceEpoch() const { return seconds_; }
  // Saturates at the int64 limits (some 292 million years out).
  int64_t ToMilliseconds() const;
  uint32_t Millisecond() const { return millisecond_; }
  Fields ToFields() const;
  // "2026-11-22T02:09:52Z", or "2026-11-22T02:09:52.123Z" with milliseconds.
  Utils::String FormatIso8601(bool with_milliseconds = false) const;

  auto operator<=>(const DateTime&) const = default;

 private:
  int64_t seconds_ = 0;
  uint32_t millisecond_ = 0;  // 0-999
};

}  // namespace Keel::OS
