#include "Keel/OS/Time.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <initializer_list>
#include <string>
#include <utility>

namespace {

using Keel::OS::DateTime;

DateTime At(int64_t year, uint32_t month, uint32_t day) {
  DateTime time;
  EXPECT_TRUE(DateTime::FromFields({year, month, day, 0, 0, 0, 0}, time)) << year;
  return time;
}

std::string Iso(const DateTime& time, bool ms = false) { return time.FormatIso8601(ms).str(); }

// The day walk below checks every other date against these anchors.
TEST(DateTimeTest, KnownEpochSecondsBothWays) {
  struct Case {
    DateTime::Fields fields;
    int64_t seconds;
    const char* iso;
  };
  for (const Case& c : {Case{{1970, 1, 1}, 0, "1970-01-01T00:00:00Z"},
                        Case{{2026, 11, 22, 2, 9, 52}, 1795313392, "2026-11-22T02:09:52Z"},
                        Case{{1969, 12, 31, 23, 59, 59}, -1, "1969-12-31T23:59:59Z"},
                        Case{{1900, 1, 1}, -2208988800, "1900-01-01T00:00:00Z"}}) {
    DateTime time;
    ASSERT_TRUE(DateTime::FromFields(c.fields, time)) << c.iso;
    EXPECT_EQ(time.ToSecondsSinceEpoch(), c.seconds) << c.iso;
    EXPECT_EQ(Iso(DateTime(c.seconds)), c.iso);
  }
}

// 2100 and 1900 are divisible by 100 but not by 400; there are no leap seconds.
TEST(DateTimeTest, RejectsOutOfRangeFields) {
  const DateTime::Fields bad[] = {
      {2100, 2, 29},    {1900, 2, 29},       {2023, 2, 29},          {2021, 4, 31},
      {2021, 0, 1},     {2021, 13, 1},       {2021, 1, 0},           {DateTime::kMaxYear + 1, 1, 1},
      {2021, 1, 1, 24}, {2021, 1, 1, 0, 60}, {2021, 1, 1, 0, 0, 60}, {2021, 1, 1, 0, 0, 0, 1000}};
  DateTime unused;
  for (const DateTime::Fields& f : bad) {
    EXPECT_FALSE(DateTime::FromFields(f, unused))
        << f.year << "-" << f.month << "-" << f.day << " " << f.hour << ":" << f.minute << ":"
        << f.second << "." << f.millisecond;
  }
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

TEST(DateTimeTest, ParsesWhatItFormatsFractionsAndOffsets) {
  for (int64_t ms :
       {0ll, 946684800000ll, 1795313392123ll, -1ll, -2208988800500ll, 253402300799999ll}) {
    DateTime time = DateTime::FromMilliseconds(ms), parsed;
    ASSERT_TRUE(DateTime::ParseIso8601(Iso(time, true), parsed)) << Iso(time, true);
    EXPECT_EQ(parsed, time);
    ASSERT_TRUE(DateTime::ParseIso8601(Iso(time), parsed));
    EXPECT_EQ(parsed, DateTime(time.ToSecondsSinceEpoch()));
  }
  for (const auto& [text, ms] : std::initializer_list<std::pair<const char*, int64_t>>{
           {"2000-01-01T00:00:00.5Z", 946684800500},
           {"2000-01-01T00:00:00.123456789Z", 946684800123},  // cut, not rounded
           {"2000-01-01T02:30:00+02:30", 946684800000},
           {"1999-12-31T23:00:00-01:00", 946684800000}}) {
    DateTime t;
    ASSERT_TRUE(DateTime::ParseIso8601(text, t)) << text;
    EXPECT_EQ(t.ToMilliseconds(), ms) << text;
  }
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
  auto real_ms = [] {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
  };
  uint64_t before = real_ms();
  uint64_t now = Time::GetSystemTime();
  uint64_t after = real_ms();
  EXPECT_GE(now, before);
  EXPECT_LE(now, after);
  EXPECT_NEAR(static_cast<double>(Time::GetEpochTime()), after / 1000.0, 2.0);
}

}  // namespace
