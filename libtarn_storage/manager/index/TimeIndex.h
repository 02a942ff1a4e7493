#pragma once

#include <cstdint>

namespace Tarn::Storage {

// Seconds from the Unix epoch to 2000-01-01 00:00:00 UTC, where day 0 starts.
constexpr uint64_t kEpoch2000 = 946'684'800;
constexpr uint64_t kDayLengthSeconds = 86'400;

// A moment as the store keys it: day number since 2000-01-01 (16 bits) and
// second of that day.
struct TimeIndex {
  uint16_t day = 0;
  uint32_t second = 0;

  bool operator==(const TimeIndex&) const = default;
};

// The arithmetic is unsigned on purpose: a time before 2000 wraps to a large
// day number (kept to 16 bits) rather than a negative one, the same way for
// the writer and every reader.
constexpr TimeIndex ToTimeIndex(uint64_t epoch_seconds) {
  uint64_t since = epoch_seconds - kEpoch2000;
  return TimeIndex{static_cast<uint16_t>(since / kDayLengthSeconds),
                   static_cast<uint32_t>(since % kDayLengthSeconds)};
}

// The writer's form: a reading the day number cannot hold (before 2000, or
// past day 65535) is refused instead of wrapped, so that no event is ever
// filed on a day the clock never saw. False leaves `out` unchanged.
constexpr bool ToStoreTime(uint64_t epoch_seconds, TimeIndex& out) {
  if (epoch_seconds < kEpoch2000) return false;
  const uint64_t since = epoch_seconds - kEpoch2000;
  if (since / kDayLengthSeconds > 0xFFFF) return false;
  out = TimeIndex{static_cast<uint16_t>(since / kDayLengthSeconds),
                  static_cast<uint32_t>(since % kDayLengthSeconds)};
  return true;
}

// The epoch second of a second of a day, for days after 2000.
constexpr uint64_t ToEpochSeconds(uint16_t day, uint32_t second) {
  return kEpoch2000 + static_cast<uint64_t>(day) * kDayLengthSeconds + second;
}

}  // namespace Tarn::Storage
