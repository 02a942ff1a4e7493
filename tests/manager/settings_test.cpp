#include "manager/writer/Settings.h"

#include <gtest/gtest.h>

#include <functional>
#include <limits>

#include "support/log_capture.h"

namespace Tarn::Storage {
namespace {

struct Case {
  const char* name;
  std::function<void(Settings&)> change;
  bool valid;
};

TEST(SettingsTest, DefaultsAreValidAndZeroRecordIsNot) {
  Settings d = Settings::default_();
  EXPECT_EQ(d.max_storage_size, 209'715'200u);
  EXPECT_EQ(d.max_days, 60u);
  EXPECT_EQ(d.block_buffer_size, 10'485'760u);
  EXPECT_EQ(d.reset_mode, 0u);
  EXPECT_FALSE(d.telemetry_to_disk);
  EXPECT_EQ(d.osquery, (OSQuerySettings{50'000'000, 500'000, 4, false}));
  EXPECT_TRUE(Settings::Validate(d));

  tarn::test::LogCapture log;
  EXPECT_FALSE(Settings::Validate(Settings{}));
  // The all-zero record is caught by the first rule, the day bound.
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].message, 1u);
  EXPECT_EQ(log.Records()[0].values[1], 2u);
  EXPECT_EQ(log.Records()[0].values[2], 512u);
}

TEST(SettingsTest, EveryBoundaryOfEveryRule) {
  constexpr uint64_t kAllOnes = std::numeric_limits<uint64_t>::max();
  const Case cases[] = {
      {"days 1", [](Settings& s) { s.max_days = 1; }, false},
      {"days 2", [](Settings& s) { s.max_days = 2; }, true},
      {"days 511", [](Settings& s) { s.max_days = 511; }, true},
      {"days 512", [](Settings& s) { s.max_days = 512; }, false},
      {"size 50MiB-1", [](Settings& s) { s.max_storage_size = 52'428'799; }, false},
      {"size 50MiB", [](Settings& s) { s.max_storage_size = 52'428'800; }, true},
      {"size all ones", [](Settings& s) { s.max_storage_size = kAllOnes; }, false},
      {"size all ones - 1", [](Settings& s) { s.max_storage_size = kAllOnes - 1; }, true},
      {"block 102399", [](Settings& s) { s.block_buffer_size = 102'399; }, false},
      {"block 102400", [](Settings& s) { s.block_buffer_size = 102'400; }, true},
      {"block 524288000",
       [](Settings& s) {
         s.block_buffer_size = 524'288'000;
         s.max_storage_size = 1ull << 40;
       },
       false},
      {"block 524287999 with room",
       [](Settings& s) {
         s.block_buffer_size = 524'287'999;
         s.max_storage_size = 524'287'999;
       },
       true},
      {"block 524287999 without room",
       [](Settings& s) {
         s.block_buffer_size = 524'287'999;
         s.max_storage_size = 524'287'998;
       },
       false},
      {"block above 50MiB store",
       [](Settings& s) {
         s.max_storage_size = 52'428'800;
         s.block_buffer_size = 52'428'801;
       },
       false},
      {"answer 10MiB-1", [](Settings& s) { s.osquery.size_limit = 10'485'759; }, false},
      {"answer 10MiB", [](Settings& s) { s.osquery.size_limit = 10'485'760; }, true},
      {"answer 250M", [](Settings& s) { s.osquery.size_limit = 250'000'000; }, true},
      {"answer 250M+1", [](Settings& s) { s.osquery.size_limit = 250'000'001; }, false},
      {"rows 999", [](Settings& s) { s.osquery.row_limit = 999; }, false},
      {"rows 1000", [](Settings& s) { s.osquery.row_limit = 1'000; }, true},
      {"rows 49999999", [](Settings& s) { s.osquery.row_limit = 49'999'999; }, true},
      {"rows 50000000", [](Settings& s) { s.osquery.row_limit = 50'000'000; }, false},
      {"aux 0", [](Settings& s) { s.osquery.aux_limit = 0; }, false},
      {"aux 1", [](Settings& s) { s.osquery.aux_limit = 1; }, true},
      {"aux 1023", [](Settings& s) { s.osquery.aux_limit = 1'023; }, true},
      {"aux 1024", [](Settings& s) { s.osquery.aux_limit = 1'024; }, false},
      {"unvalidated fields",
       [](Settings& s) {
         s.reset_mode = 7;
         s.telemetry_to_disk = true;
         s.osquery.aux_flag = true;
       },
       true},
  };
  for (const Case& c : cases) {
    Settings s = Settings::default_();
    c.change(s);
    tarn::test::LogCapture log;
    EXPECT_EQ(Settings::Validate(s), c.valid) << c.name;
    // A rejection is logged exactly once, as an error; acceptance is silent.
    EXPECT_EQ(log.Count(Keel::Log::Error), c.valid ? 0u : 1u) << c.name;
  }
}

TEST(SettingsTest, RulesApplyInOrderAndLogTheirBounds) {
  tarn::test::LogCapture log;
  Settings s = Settings::default_();
  s.max_days = 600;
  s.osquery.aux_limit = 0;
  EXPECT_FALSE(Settings::Validate(s));
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].message, 1u);  // days, not aux
  EXPECT_EQ(log.Records()[0].values[0], 600u);

  log.Clear();
  s = Settings::default_();
  s.osquery.size_limit = 1;
  EXPECT_FALSE(Settings::Validate(s));
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].values[1], 10'485'760u);
  EXPECT_EQ(log.Records()[0].values[2], 250'000'001u);  // logged as exclusive

  log.Clear();
  s = Settings::default_();
  s.max_storage_size = 60'000'000;
  s.block_buffer_size = 70'000'000;
  EXPECT_FALSE(Settings::Validate(s));
  ASSERT_EQ(log.Records().size(), 1u);
  EXPECT_EQ(log.Records()[0].message, 4u);
  EXPECT_EQ(log.Records()[0].values[0], 0u);  // the size rule logs no values
}

TEST(SettingsTest, LoadAppliesAllOrNothing) {
  Settings live = Settings::default_();
  Settings before = live;

  Settings bad = Settings::default_();
  bad.max_days = 30;
  bad.osquery.row_limit = 50'000'000;
  EXPECT_FALSE(live.Load(bad));
  Settings copy = live;
  EXPECT_EQ(copy, before);

  Settings good = Settings::default_();
  good.max_days = 30;
  good.reset_mode = 2;
  good.telemetry_to_disk = true;
  good.osquery = {20'000'000, 2'000, 9, true};
  tarn::test::LogCapture log;
  EXPECT_TRUE(live.Load(good));
  EXPECT_EQ(live, good);
  ASSERT_EQ(log.Count(Keel::Log::Information), 1u);
  EXPECT_EQ(log.Records()[0].values[0], 30u);
}

}  // namespace
}  // namespace Tarn::Storage
