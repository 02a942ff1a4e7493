// How date_time constraints narrow the scanned seconds, before the store is
// asked anything.

#include <gtest/gtest.h>

#include "osquery/ResponseBuffer.h"
#include "osquery/TimeRange.h"
#include "row_model.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::Filter;

constexpr uint64_t kMs = 1'700'000'000'500ull;  // second 1,700,000,000 and a half
constexpr uint64_t kSecond = 1'700'000'000ull;

uint8_t Narrow(const std::vector<Filter>& filters, TimeRange& range) {
  ConstraintsList list;
  EXPECT_TRUE(list.Parse(tarn::test::ConstraintsJson(filters)));
  return NarrowTimeRange(list, range);
}

Filter Time(uint32_t op, std::string value, std::string affinity = "bigint") {
  return Filter{"date_time", op, std::move(value), std::move(affinity)};
}

TEST(TimeRangeTest, ContradictionsAndUnsupportedOperatorsAreStatusFour) {
  const std::string t = std::to_string(kMs);
  const std::vector<std::vector<Filter>> bad = {
      {Time(2, "0")},                                 // equality below the lowest bound
      {Time(16, "0")},                                // nothing is before second 0
      {Time(16, "999")},                              // still second 0
      {Time(8, "0")},                                 // "<=" takes the "<" rule too
      {Time(2, t), Time(2, std::to_string(kMs + 1000))},  // two different equalities
      {Time(2, t), Time(4, t)},                       // equality outside the bounds
      {Time(65, t, "text")},                          // like: not a time operator
      {Time(1, t)},                                   // unique
      {Time(2, "yesterday", "text")},                 // not a number
  };
  for (const auto& filters : bad) {
    TimeRange range;
    EXPECT_EQ(Narrow(filters, range), kStatusBadTimeRange) << tarn::test::ConstraintsJson(filters);
  }

  // Equalities naming the same second (not the same millisecond) agree.
  TimeRange range;
  EXPECT_EQ(Narrow({Time(2, t), Time(2, std::to_string(kMs - 500)), Time(32, t)}, range),
            kStatusComplete);
  EXPECT_EQ(range.lower, kSecond);
  EXPECT_EQ(range.upper, kSecond);
}

TEST(TimeRangeTest, ValuesAreUnsignedMillisecondsWhateverTheAffinity) {
  // A time is read as 64 bits whatever width the requester named: "integer"
  // too, though 32 bits of milliseconds would reach only into January 1970.
  for (std::string affinity : {"integer", "bigint", "unsigned bigint", "double", "text", "blob"}) {
    TimeRange range;
    EXPECT_EQ(Narrow({Time(16, std::to_string(kMs), affinity)}, range), kStatusComplete)
        << affinity;
    EXPECT_EQ(range.upper, kSecond - 1) << affinity;
  }
  // A negative value wraps: "> -1" starts after every time there is.
  TimeRange wrapped;
  EXPECT_EQ(Narrow({Time(4, "-1")}, wrapped), kStatusComplete);
  EXPECT_EQ(wrapped.lower, ~uint64_t{0} / 1000 + 1);
  EXPECT_GT(wrapped.lower, wrapped.upper);
  // Fractions of a millisecond are cut off.
  TimeRange fraction;
  EXPECT_EQ(Narrow({Time(4, "1700000000999.9", "double")}, fraction), kStatusComplete);
  EXPECT_EQ(fraction.lower, kSecond + 1);
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
