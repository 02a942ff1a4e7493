#include "Keel/OS/Time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>

namespace {

using Keel::OS::DateTime;

DateTime At(int64_t year, uint32_t month, uint32_t day, uint32_t hour = 0, uint32_t minute = 0,
            uint32_t second = 0, uint32_t millisecond = 0) {
  DateTime time;
  DateTime::Fields fields{year, month, day, hour, minute, second, millisecond};
  EXPECT_TRUE(DateTime::FromFields(fields, time)) << year << "-" << month << "-" << day;
  return time;
}

bool IsValidDate(int64_t year, uint32_t month, uint32_t day) {
  DateTime unused;
  return DateTime::FromFields({year, month, day, 0, 0, 0, 0}, unused);
}

std::string Iso(const DateTime& time, bool ms = false) { return time.FormatIso8601(ms).str(); }

TEST(DateTimeTest, KnownEpochSeconds) {
  EXPECT_EQ(At(1970, 1, 1).ToSecondsSinceEpoch(), 0);
  EXPECT_EQ(At(2000, 1, 1).ToSecondsSinceEpoch(), 946684800);
  EXPECT_EQ(At(2026, 11, 22, 2, 9, 52).ToSecondsSinceEpoch(), 1795313392);
  EXPECT_EQ(At(1969, 12, 31, 23, 59, 59).ToSecondsSinceEpoch(), -1);
  EXPECT_EQ(At(1900, 1, 1).ToSecondsSinceEpoch(), -2208988800);
  EXPECT_EQ(At(1600, 3, 1).ToSecondsSinceEpoch(), -11670912000);
  EXPECT_EQ(At(2100, 3, 1).ToSecondsSinceEpoch(), 4107542400);
  EXPECT_EQ(Iso(DateTime(1795313392)), "2026-11-22T02:09:52Z");
  EXPECT_EQ(Iso(DateTime(-1)), "1969-12-31T23:59:59Z");
  EXPECT_EQ(Iso(DateTime(-2208988800)), "1900-01-01T00:00:00Z");
}

TEST(DateTimeTest, LeapYearRules) {
  EXPECT_TRUE(IsValidDate(2000, 2, 29));   // divisible by 400
  EXPECT_FALSE(IsValidDate(2100, 2, 29));  // by 100 only
  EXPECT_FALSE(IsValidDate(1900, 2, 29));
  EXPECT_TRUE(IsValidDate(2024, 2, 29));
  EXPECT_FALSE(IsValidDate(2023, 2, 29));
  EXPECT_EQ(At(2000, 3, 1).ToSecondsSinceEpoch() - At(2000, 2, 28).ToSecondsSinceEpoch(),
            2 * 86400);
  EXPECT_EQ(At(2100, 3, 1).ToSecondsSinceEpoch() - At(2100, 2, 28).ToSecondsSinceEpoch(), 86400);
}

TEST(DateTimeTest, RejectsOutOfRangeFields) {
  EXPECT_FALSE(IsValidDate(2021, 4, 31));
  EXPECT_FALSE(IsValidDate(2021, 0, 1));
  EXPECT_FALSE(IsValidDate(2021, 13, 1));
  EXPECT_FALSE(IsValidDate(2021, 1, 0));
  EXPECT_FALSE(IsValidDate(DateTime::kMaxYear + 1, 1, 1));
  DateTime unused;
  EXPECT_FALSE(DateTime::FromFields({2021, 1, 1, 24, 0, 0, 0}, unused));
  EXPECT_FALSE(DateTime::FromFields({2021, 1, 1, 0, 60, 0, 0}, unused));
  EXPECT_FALSE(DateTime::FromFields({2021, 1, 1, 0, 0, 60, 0}, unused));  // no leap seconds
  EXPECT_FALSE(DateTime::FromFields({2021, 1, 1, 0, 0, 0, 1000}, unused));
}

// Walks the calendar day by day with its own month lengths, across two
// 400-year cycles either side of 1970, and checks both conversions.
TEST(DateTimeTest, EveryDayAgreesWithAPlainCalendarWalk) {
  auto days_in = [](int64_t y, uint32_t m) -> uint32_t {
    if (m == 2) return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0 ? 29 : 28;
    return m == 4 || m == 6 || m == 9 || m == 11 ? 30 : 31;
  };
  int64_t year = 1170;
  uint32_t month = 1, day = 1;
  int64_t seconds = At(1170, 1, 1).ToSecondsSinceEpoch();
  int failures = 0;
  while (year < 2770 && failures < 5) {
    DateTime::Fields f = DateTime(seconds + 3723).ToFields();
    if (f.year != year || f.month != month || f.day != day || f.hour != 1 || f.minute != 2 ||
        f.second != 3) {
      ADD_FAILURE() << seconds << " gave " << f.year << "-" << f.month << "-" << f.day;
      ++failures;
    }
    DateTime back;
    if (!DateTime::FromFields({year, month, day, 0, 0, 0, 0}, back) ||
        back.ToSecondsSinceEpoch() != seconds) {
      ADD_FAILURE() << year << "-" << month << "-" << day << " gave " << back.ToSecondsSinceEpoch();
      ++failures;
    }
    seconds += 86400;
    if (++day > days_in(year, month)) {
      day = 1;
      if (++month > 12) {
        month = 1;
        ++year;
      }
    }
  }
  EXPECT_EQ(seconds, At(2770, 1, 1).ToSecondsSinceEpoch());
}

TEST(DateTimeTest, MillisecondsFloorTowardsThePast) {
  DateTime before = DateTime::FromMilliseconds(-1);
  EXPECT_EQ(before.ToSecondsSinceEpoch(), -1);
  EXPECT_EQ(before.Millisecond(), 999u);
  EXPECT_EQ(Iso(before, true), "1969-12-31T23:59:59.999Z");
  for (int64_t ms :
       {0ll, 1ll, 999ll, 1000ll, -1000ll, -1001ll, 1795313392123ll, -2208988800001ll}) {
    EXPECT_EQ(DateTime::FromMilliseconds(ms).ToMilliseconds(), ms);
  }
  EXPECT_EQ(DateTime(INT64_MAX).ToMilliseconds(), INT64_MAX);
  EXPECT_EQ(DateTime(INT64_MIN).ToMilliseconds(), INT64_MIN);
  EXPECT_LT(DateTime::FromMilliseconds(-1), DateTime(0));
  EXPECT_LT(DateTime::FromMilliseconds(5), DateTime::FromMilliseconds(6));
}

TEST(DateTimeTest, ParsesWhatItFormats) {
  for (int64_t ms :
       {0ll, 946684800000ll, 1795313392123ll, -1ll, -2208988800500ll, 253402300799999ll}) {
    DateTime time = DateTime::FromMilliseconds(ms), parsed;
    ASSERT_TRUE(DateTime::ParseIso8601(Iso(time, true), parsed)) << Iso(time, true);
    EXPECT_EQ(parsed, time);
    ASSERT_TRUE(DateTime::ParseIso8601(Iso(time), parsed));
    EXPECT_EQ(parsed.ToSecondsSinceEpoch(), time.ToSecondsSinceEpoch());
    EXPECT_EQ(parsed.Millisecond(), 0u);
  }
}

TEST(DateTimeTest, ParsesFractionsAndOffsets) {
  DateTime t;
  ASSERT_TRUE(DateTime::ParseIso8601("2000-01-01T00:00:00.5Z", t));
  EXPECT_EQ(t.ToMilliseconds(), 946684800500);
  ASSERT_TRUE(DateTime::ParseIso8601("2000-01-01T00:00:00.123456789Z", t));
  EXPECT_EQ(t.ToMilliseconds(), 946684800123);
  ASSERT_TRUE(DateTime::ParseIso8601("2000-01-01T02:30:00+02:30", t));
  EXPECT_EQ(t.ToSecondsSinceEpoch(), 946684800);
  ASSERT_TRUE(DateTime::ParseIso8601("1999-12-31T23:00:00-01:00", t));
  EXPECT_EQ(t.ToSecondsSinceEpoch(), 946684800);
}

TEST(DateTimeTest, RejectsMalformedText) {
  DateTime t(12345);
  for (const char* text :
       {"", "2000-01-01", "2000-01-01T00:00:00", "2000-01-01 00:00:00Z", "2000-01-01t00:00:00Z",
        "2000-1-01T00:00:00Z", "2000-01-01T00:00:00Zjunk", "2000-01-01T00:00:00.Z",
        "2000-01-01T00:00:00.1234567890Z", "2000-02-30T00:00:00Z", "2000-01-01T24:00:00Z",
        "2000-01-01T23:59:60Z", "2000-01-01T00:00:00+2:00", "2000-01-01T00:00:00+24:00",
        "+2000-01-01T00:00:00Z", " 2000-01-01T00:00:00Z"}) {
    EXPECT_FALSE(DateTime::ParseIso8601(text, t)) << text;
  }
  EXPECT_EQ(t.ToSecondsSinceEpoch(), 12345);  // untouched by failures
}

std::atomic<uint64_t> g_fake_ms{0};
uint64_t FakeClock() { return g_fake_ms.load(); }

uint64_t RealNowMs() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

TEST(TimeTest, HostClockSourceReplacesTheRealClockUntilRemoved) {
  namespace Time = Keel::OS::Time;
  g_fake_ms = 946684800999;
  Time::SetClockSource(&FakeClock);
  EXPECT_EQ(Time::GetSystemTime(), 946684800999u);
  uint64_t out = 0;
  EXPECT_EQ(Time::GetEpochTime(&out), 946684800u);
  EXPECT_EQ(out, 946684800u);
  EXPECT_EQ(DateTime::Now(), DateTime::FromMilliseconds(946684800999));
  g_fake_ms = 1000;
  EXPECT_EQ(Time::GetEpochTime(nullptr), 1u);

  Time::SetClockSource(nullptr);
  uint64_t before = RealNowMs();
  uint64_t now = Time::GetSystemTime();
  uint64_t after = RealNowMs();
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);
  EXPECT_NEAR(static_cast<double>(Time::GetEpochTime()), after / 1000.0, 2.0);
}

}  // namespace
