// Positions in the corners a random workload does not reach: days the index
// holds without a block, the ordering of positions, the in-block half of the
// by-time search and times before 2000. Walks, searches, times and windows
// of ordinary stores are held against a model in store_model_test.cpp.

#include <gtest/gtest.h>

#include "manager/index/TimeIndex.h"
#include "reader_fixture.h"
#include "support/log_capture.h"

namespace Tarn::Storage {
namespace {

using Comm::Interface::AtOrAfter;
using Comm::Interface::AtOrBefore;
using Comm::Interface::Exact;
using tarn::test::TimeOf;

constexpr uint64_t kInvalid = RawIterator::Invalid;

uint64_t At(uint16_t day, uint32_t block, uint32_t event) { return RawIterator(day, block, event); }

class ReaderNavigationTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(store_.Open()); }
  EventStorageProvider& reader() { return store_.reader(); }
  uint64_t ByTime(uint16_t day, uint32_t second, uint32_t strategy) {
    return reader().GetIterVal(TimeOf(day, second),
                               static_cast<Comm::Interface::SearchStrategy>(strategy));
  }
  size_t ProviderErrors(const tarn::test::LogCapture& log) {
    return log.CountFrom(Keel::Log::StorageProvider, Keel::Log::Error);
  }

  tarn::test::ReaderStore store_;
};

TEST_F(ReaderNavigationTest, AnEmptyNeighbouringDayEndsTheWalkInsteadOfBeingSkipped) {
  ASSERT_TRUE(store_.Block(9000, {10}));
  ASSERT_TRUE(store_.EmptyDay(9001));
  ASSERT_TRUE(store_.Block(9002, {20}));
  EXPECT_EQ(reader().GetFirstIterVal(), At(9000, 0, 0));
  EXPECT_EQ(reader().GetLastIterVal(), At(9002, 0, 0));

  tarn::test::LogCapture log;
  uint64_t p = At(9000, 0, 0);
  EXPECT_FALSE(reader().Increment(p));
  EXPECT_EQ(p, kInvalid);
  p = At(9002, 0, 0);
  EXPECT_FALSE(reader().Decrement(p));
  EXPECT_EQ(p, kInvalid);
  EXPECT_EQ(ProviderErrors(log), 2u);
  // The by-time search does not pass over it either.
  EXPECT_EQ(ByTime(9000, 50, AtOrAfter), kInvalid);
  EXPECT_EQ(ByTime(9002, 5, AtOrBefore), kInvalid);
  EXPECT_EQ(ByTime(9001, 5, AtOrAfter), kInvalid);
}

TEST_F(ReaderNavigationTest, AnEmptyFirstDayHasNoFirstPositionWhileEmptyLastDaysAreSkipped) {
  ASSERT_TRUE(store_.EmptyDay(9000));
  ASSERT_TRUE(store_.Block(9001, {10, 11}));
  ASSERT_TRUE(store_.EmptyDay(9002));
  ASSERT_TRUE(store_.EmptyDay(9003));
  EXPECT_EQ(reader().GetFirstIterVal(), kInvalid);
  EXPECT_EQ(reader().GetLastIterVal(), At(9001, 0, 1));
  DateTimeInterval window;
  EXPECT_FALSE(reader().GetStorageTimeWindow(window));
}

TEST_F(ReaderNavigationTest, CompareOrdersDayThenBlockThenEventAndReadsNothing) {
  EventStorageProvider& r = reader();
  EXPECT_EQ(r.Compare(At(5, 1, 2), At(5, 1, 2)), 0);
  EXPECT_EQ(r.Compare(At(5, 0, 9), At(5, 1, 0)), -1);
  EXPECT_EQ(r.Compare(At(5, 1, 0), At(5, 0, 9)), 1);
  EXPECT_EQ(r.Compare(At(4, 7, 7), At(5, 0, 0)), -1);  // day outranks block and event
  EXPECT_EQ(r.Compare(At(5, 2, 0), At(5, 1, 99)), 1);  // block outranks event
  EXPECT_EQ(r.Compare(kInvalid, At(0xFFFE, 0xFFFFFF, 0xFFFFFF)), 1);
  EXPECT_EQ(r.Compare(At(70, 0, 0), At(0x1FF, 0, 0)), -1);  // unsigned, not bytewise
  EXPECT_TRUE(r.IsValid(0));
  EXPECT_FALSE(r.IsValid(kInvalid));
  EXPECT_EQ(r.GetIterVal(uint64_t{12345}), 12345u);
}

TEST_F(ReaderNavigationTest, TheBlockOfTenTwentyTwentyThirty) {
  // The day-level search is held against a model in store_model_test.cpp.
  ASSERT_TRUE(store_.Block(9000, {10, 20, 20, 30}));
  EXPECT_EQ(reader().GetIterVal(TimeOf(9000, 30)), At(9000, 0, 3));  // slot 6 is Exact

  // The in-block search alone is strict where the day-level one retargets.
  BlockCache::BlockPtr block = reader().GetBlockFromCache(At(9000, 0, 0));
  ASSERT_NE(block, nullptr);
  auto in_block = [&](uint32_t second, uint32_t strategy) {
    return EventStorageProvider::GetEventIndexFromBlock(
        *block, TimeIndex{9000, second}, static_cast<Comm::Interface::SearchStrategy>(strategy));
  };
  constexpr uint32_t kNone = EventStorageProvider::kNoEvent;
  EXPECT_EQ(in_block(20, Exact), 1u);
  EXPECT_EQ(in_block(25, Exact), kNone);
  EXPECT_EQ(in_block(25, AtOrAfter), 3u);
  EXPECT_EQ(in_block(25, AtOrBefore), 2u);
  EXPECT_EQ(in_block(5, AtOrBefore), kNone);
  EXPECT_EQ(in_block(35, AtOrBefore), kNone);
  EXPECT_EQ(in_block(35, AtOrAfter), kNone);
  EXPECT_EQ(in_block(5, AtOrAfter), 0u);
  EXPECT_EQ(in_block(10, 3), kNone);

  // The block half of the search alone: event number 0 of the block.
  ASSERT_TRUE(store_.Block(9002, {50}));
  EXPECT_EQ(reader().GetBlockIterValEx(TimeOf(9001, 0), AtOrAfter), At(9002, 0, 0));
  EXPECT_EQ(reader().GetBlockIterValEx(TimeOf(9001, 0), AtOrBefore), At(9000, 0, 0));
  EXPECT_EQ(reader().GetBlockIterValEx(TimeOf(9010, 0), AtOrAfter), kInvalid);
}

TEST_F(ReaderNavigationTest, TimesBefore2000WrapToAFarDay) {
  ASSERT_TRUE(store_.Block(9000, {100, 110}));
  ASSERT_TRUE(store_.Block(9001, {7}));
  for (int64_t seconds : {int64_t{946'684'799}, int64_t{0}, int64_t{-31'536'000}}) {
    SCOPED_TRACE(seconds);
    Keel::OS::DateTime time(seconds);
    TimeIndex wrapped = ToTimeIndex(static_cast<uint64_t>(seconds));
    ASSERT_GT(wrapped.day, 9001);  // later than every stored day
    EXPECT_EQ(reader().GetIterVal(time, AtOrAfter), kInvalid);
    EXPECT_EQ(reader().GetIterVal(time, AtOrBefore), At(9001, 0, 0));
    EXPECT_EQ(reader().GetIterVal(time, Exact), kInvalid);
  }
}

}  // namespace
}  // namespace Tarn::Storage
