#pragma once

#include <cstdint>

#include "osquery/ConstraintsList.h"

namespace Tarn::Storage {
class EventStorageProvider;
}

namespace Tarn::Storage::OSQuery {

// The seconds a query scans, both ends included, from its date_time
// constraints. Without any it is the default range, 2000-01-01 to
// 2080-01-01 UTC.
struct TimeRange {
  static constexpr uint64_t kDefaultLower = 946'684'800;
  static constexpr uint64_t kDefaultUpper = 3'471'292'800;

  uint64_t lower = kDefaultLower;
  uint64_t upper = kDefaultUpper;

  bool IsDefault() const { return lower == kDefaultLower && upper == kDefaultUpper; }
};

// Where a scan starts and ends: the first event at or after the range's
// lower second and the last event at or before its upper second (all the
// events of that second included).
struct ScanBounds {
  uint64_t start = ~uint64_t{0};
  uint64_t end = ~uint64_t{0};
};

// Narrows `range` by every date_time constraint (values in milliseconds,
// taken in whole seconds). "<=" narrows like "<": the upper bound becomes
// the value's second minus one. Answers kStatusComplete, or
// kStatusBadTimeRange for contradictory equalities, an operator the range
// does not support, a value that is not a number, or a bound that becomes 0.
uint8_t NarrowTimeRange(const ConstraintsList& constraints, TimeRange& range);

// Intersects the range with what the store holds and finds its positions.
// Answers kStatusComplete, kStatusOutsideStore (no overlap),
// kStatusDefaultRange (nothing narrowed it) or kStatusInternal.
uint8_t LocateTimeRange(EventStorageProvider& provider, TimeRange& range, ScanBounds& bounds);

}  // namespace Tarn::Storage::OSQuery
