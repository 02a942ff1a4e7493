// The host's own parts: the replay clock the store reads, the store's lock
// as the tool takes it, and the text forms of times and sizes.

#include <gtest/gtest.h>

#include <thread>

#include "Keel/OS/Time.h"
#include "support/temp_dir.h"
#include "tarn/host/ReplayClock.h"
#include "tarn/offline/StoreLock.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

TEST(ReplayClock, OnlyTheReplayingThreadSeesTheEventsTimeAndNobodySeesBelowTheFloor) {
  const int64_t real = RealNowMs();
  const int64_t floor = real + 10 * 86'400'000;  // a store whose newest day is ahead
  ReplayClock::Install(floor);
  EXPECT_GE(Keel::OS::Time::GetSystemTime(), static_cast<uint64_t>(floor));
  EXPECT_EQ(Keel::OS::Time::GetEpochTime(), static_cast<uint64_t>(floor / 1000));

  const int64_t event = real - 3 * 86'400'000 + 1234;
  ReplayClock::BeginReplay(event);
  EXPECT_EQ(Keel::OS::Time::GetSystemTime(), static_cast<uint64_t>(event));
  uint64_t seen_elsewhere = 0;
  std::thread writer([&] { seen_elsewhere = Keel::OS::Time::GetSystemTime(); });
  writer.join();
  EXPECT_GE(seen_elsewhere, static_cast<uint64_t>(floor)) << "another thread keeps real time";
  ReplayClock::EndReplay();
  EXPECT_GE(Keel::OS::Time::GetSystemTime(), static_cast<uint64_t>(floor));

  ReplayClock::Uninstall();
  const uint64_t after = Keel::OS::Time::GetSystemTime();
  EXPECT_GE(after, static_cast<uint64_t>(real));
  EXPECT_LT(after, static_cast<uint64_t>(floor));
}

TEST(StoreLock, ASecondHolderIsRefusedUntilTheFirstLetsGo) {
  tarn::test::TempDir dir;
  std::string error;
  StoreLock first;
  ASSERT_EQ(first.Acquire(dir.path(), error), StoreLock::Result::kLocked) << error;
  {
    // flock is per open file: a second open, even in this process, is refused.
    StoreLock second;
    EXPECT_EQ(second.Acquire(dir.path(), error), StoreLock::Result::kInUse);
    EXPECT_NE(error.find("in use by another process"), std::string::npos) << error;
  }
  first.Release();
  StoreLock third;
  EXPECT_EQ(third.Acquire(dir.path(), error), StoreLock::Result::kLocked) << error;
  StoreLock nowhere;
  EXPECT_EQ(nowhere.Acquire(dir.File("no/such/dir"), error), StoreLock::Result::kError);
  EXPECT_NE(error.find("cannot open"), std::string::npos) << error;
}

TEST(TextForms, TimesInTheFormsPeopleTypeThem) {
  int64_t ms = 0;
  ASSERT_TRUE(ParseTime("2026-11-21", false, ms));
  EXPECT_EQ(ms, 1795219200000);
  ASSERT_TRUE(ParseTime("2026-11-21", true, ms));
  EXPECT_EQ(ms, 1795219200000 + 86'400'000 - 1) << "a date alone as an end includes the day";
  ASSERT_TRUE(ParseTime("2026-11-21T08:30:00", false, ms));
  EXPECT_EQ(ms, 1795219200000 + 8 * 3'600'000 + 30 * 60'000);
  int64_t minutes = 0;
  ASSERT_TRUE(ParseTime("2026-11-21T08:30", false, minutes));
  EXPECT_EQ(minutes, ms);
  int64_t spaced = 0;
  ASSERT_TRUE(ParseTime("2026-11-21 08:30:00.250", true, spaced));
  EXPECT_EQ(spaced, ms + 250) << "a time with a clock is not stretched to the day's end";
  ASSERT_TRUE(ParseTime("2026-11-21T10:30:00+02:00", false, ms));
  EXPECT_EQ(ms, 1795219200000 + 8 * 3'600'000 + 30 * 60'000);
  ASSERT_TRUE(ParseTime("now", false, ms));
  EXPECT_LE(std::abs(ms - RealNowMs()), 1000);
  for (const char* bad :
       {"", "yesterday", "2026-13-01", "2026-02-30", "21.11.2026", "1763000000"}) {
    EXPECT_FALSE(ParseTime(bad, false, ms)) << bad;
  }
  EXPECT_EQ(FormatTime(1795219200250), "2026-11-21T00:00:00Z");
  EXPECT_EQ(FormatTime(1795219200250, true), "2026-11-21T00:00:00.250Z");
  EXPECT_EQ(FormatDay(9821), "2026-11-21");
}

TEST(TextForms, SizesAndCounts) {
  uint64_t bytes = 0;
  struct Case {
    const char* text;
    uint64_t bytes;
  } good[] = {{"512", 512},        {"256K", 262144},   {"256k", 262144},       {"10M", 10485760},
              {"10MiB", 10485760}, {"1G", 1073741824}, {"2GB", 2147483648ull}, {"1T", 1ull << 40}};
  for (const Case& c : good) {
    ASSERT_TRUE(ParseSize(c.text, bytes)) << c.text;
    EXPECT_EQ(bytes, c.bytes) << c.text;
  }
  for (const char* bad : {"", "M", "10X", "-5", "10 M", "99999999999999999999", "20000000T"}) {
    EXPECT_FALSE(ParseSize(bad, bytes)) << bad;
  }
  EXPECT_EQ(FormatBytes(812), "812 B");
  EXPECT_EQ(FormatBytes(4300), "4.20 KiB");
  EXPECT_EQ(FormatBytes(18'140'000), "17.3 MiB");
  EXPECT_EQ(FormatCount(0), "0");
  EXPECT_EQ(FormatCount(999), "999");
  EXPECT_EQ(FormatCount(60000), "60,000");
  EXPECT_EQ(FormatCount(1234567890), "1,234,567,890");
}

}  // namespace
}  // namespace Tarn::Tool
