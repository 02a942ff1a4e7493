#include "osquery/TimeRange.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <optional>

#include "Keel/Log.h"
#include "manager/reader/EventStorageProvider.h"
#include "osquery/NameHash.h"
#include "osquery/ResponseBuffer.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kNotANumber = 110,      // a = operator
  kEqualities = 111,      // a = first second, b = other second
  kOverflow = 112,        // a = operator, b = second
  kUnsupported = 113,     // a = operator
  kEqualityOutside = 114, // a = second, b = lower, c = upper
  kZeroBound = 115,       // a = lower, b = upper
  kNoWindow = 116,        // a = window start, b = window end
  kNoStart = 117,         // a = lower
  kNoEnd = 118,           // a = upper
};

uint8_t Reject(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageQuery, message, a, b, c);
  return kStatusBadTimeRange;
}

// The constraint's value as an unsigned number of milliseconds: negative
// values wrap, as the front end's 64-bit value would. Texts must be whole
// decimal integers.
std::optional<uint64_t> Milliseconds(const Constraint& c) {
  switch (c.affinity) {
    case kIntegerAffinity: return c.number.u64;  // read as 64 bits for date_time
    case kBigIntAffinity: return static_cast<uint64_t>(c.number.i64);
    case kUnsignedBigIntAffinity: return c.number.u64;
    case kDoubleAffinity: {
      double value = std::trunc(c.number.f64);
      if (value >= 0 && value < 18446744073709551616.0) return static_cast<uint64_t>(value);
      if (value < 0 && value >= -9223372036854775808.0) {
        return static_cast<uint64_t>(static_cast<int64_t>(value));
      }
      return std::nullopt;
    }
    default: {
      const char* first = c.expr.data();
      const char* last = first + c.expr.size();
      uint64_t unsigned_value = 0;
      auto parsed = std::from_chars(first, last, unsigned_value);
      if (parsed.ec == std::errc() && parsed.ptr == last) return unsigned_value;
      int64_t signed_value = 0;
      parsed = std::from_chars(first, last, signed_value);
      if (parsed.ec == std::errc() && parsed.ptr == last) {
        return static_cast<uint64_t>(signed_value);
      }
      return std::nullopt;
    }
  }
}

// One before the first event after `upper`, or the last event when nothing
// lies after it. The range's lower bound is not before the first event, so
// an event at or before `upper` exists and the step back stays in the store.
uint64_t BeforeFirstAfter(EventStorageProvider& provider, uint64_t upper, uint64_t stored_end) {
  if (upper >= stored_end) {
    // Unless the writer stored later events since the window was read.
    const uint64_t last = provider.GetLastIterVal();
    Keel::OS::DateTime time;
    if (provider.IsValid(last) && provider.GetTime(last, time) &&
        static_cast<uint64_t>(time.ToSecondsSinceEpoch()) <= upper) {
      return last;
    }
  }
  uint64_t position = provider.GetIterVal(Keel::OS::DateTime(static_cast<int64_t>(upper + 1)),
                                          Comm::Interface::AtOrAfter);
  if (!provider.IsValid(position) || !provider.Decrement(position)) return RawIterator::Invalid;
  return position;
}

// The last event whose second is at most `upper`. The reader's AtOrBefore
// search lands on the first of the events that share the last stored second
// at or before `upper` (which is `upper` itself, or an earlier one when
// `upper` falls in a gap), so the others are added from the same (already
// decoded) block; only when they run to its end is the next block consulted.
uint64_t LastEventUpTo(EventStorageProvider& provider, uint64_t upper, uint64_t stored_end) {
  const uint64_t found = provider.GetIterVal(Keel::OS::DateTime(static_cast<int64_t>(upper)),
                                             Comm::Interface::AtOrBefore);
  if (!provider.IsValid(found)) return RawIterator::Invalid;
  const RawIterator at(found);
  BlockCache::BlockPtr block = provider.GetBlockFromCache(at);
  if (block == nullptr) return RawIterator::Invalid;
  const uint32_t second = block->Second(at.Event());
  uint32_t last = at.Event();
  while (last + 1 < block->EventCount() && block->Second(last + 1) == second) ++last;
  if (last + 1 == block->EventCount()) {
    return BeforeFirstAfter(provider, ToEpochSeconds(at.Day(), second), stored_end);
  }
  return RawIterator(at.Day(), at.Block(), last);
}
}  // namespace

uint8_t NarrowTimeRange(const ConstraintsList& constraints, TimeRange& range) {
  std::optional<uint64_t> equal;
  for (const Constraint& c : constraints.ForField(kDateTimeHash)) {
    std::optional<uint64_t> ms = Milliseconds(c);
    if (!ms) return Reject(kNotANumber, c.op);
    const uint64_t second = *ms / 1000;
    switch (c.op) {
      case kEquals:
        if (equal && *equal != second) return Reject(kEqualities, *equal, second);
        equal = second;
        break;
      case kGreater:
        if (second == std::numeric_limits<uint64_t>::max()) return Reject(kOverflow, c.op, second);
        range.lower = std::max(range.lower, second + 1);
        break;
      case kLessOrEqual:
      case kLess:
        // "<=" goes through the "<" rule as well: both end one second before
        // the value's second. Kept on purpose; requesters rely on it.
        if (c.op == kLessOrEqual) range.upper = std::min(range.upper, second);
        if (second == 0) return Reject(kOverflow, c.op, second);
        range.upper = std::min(range.upper, second - 1);
        break;
      case kGreaterOrEqual:
        range.lower = std::max(range.lower, second);
        break;
      default:
        return Reject(kUnsupported, c.op);
    }
  }
  if (equal) {
    if (*equal < range.lower || *equal > range.upper) {
      return Reject(kEqualityOutside, *equal, range.lower, range.upper);
    }
    range.lower = range.upper = *equal;
  }
  if (range.lower == 0 || range.upper == 0) return Reject(kZeroBound, range.lower, range.upper);
  return kStatusComplete;
}

uint8_t LocateTimeRange(EventStorageProvider& provider, TimeRange& range, ScanBounds& bounds) {
  DateTimeInterval window;
  if (!provider.GetStorageTimeWindow(window) || window.start <= 0 || window.end <= 0) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoWindow, window.start, window.end, 0);
    return kStatusInternal;
  }
  range.lower = std::max(range.lower, static_cast<uint64_t>(window.start));
  range.upper = std::min(range.upper, static_cast<uint64_t>(window.end));
  if (range.lower > range.upper) return kStatusOutsideStore;
  if (range.IsDefault()) return kStatusDefaultRange;

  bounds.start = provider.GetIterVal(Keel::OS::DateTime(static_cast<int64_t>(range.lower)),
                                     Comm::Interface::AtOrAfter);
  if (!provider.IsValid(bounds.start)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoStart, range.lower, 0, 0);
    return kStatusInternal;
  }
  bounds.end = LastEventUpTo(provider, range.upper, static_cast<uint64_t>(window.end));
  if (!provider.IsValid(bounds.end)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoEnd, range.upper, 0, 0);
    return kStatusInternal;
  }
  return kStatusComplete;
}

}  // namespace Tarn::Storage::OSQuery
