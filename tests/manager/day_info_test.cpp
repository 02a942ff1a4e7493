#include "manager/index/DayInfo.h"

#include <gtest/gtest.h>

#include "Keel/Collections/Buffer.h"
#include "Keel/Collections/RedBlackTree.h"
#include "Keel/Collections/StreamBuffer.h"
#include "manager/index/RawIterator.h"
#include "support/log_capture.h"

namespace Tarn::Storage {
namespace {

BlockInfo Block(uint32_t offset, uint32_t events, uint32_t start, uint32_t end, uint8_t version) {
  return BlockInfo{offset, events, start, end, version};
}

TEST(DayInfoTest, FreshDayHasOnlyAnEmptyInitialVersion) {
  DayInfo day;
  ASSERT_TRUE(day.Create());
  EXPECT_EQ(day.GetBlockCount(), 0u);
  ASSERT_EQ(day.GetVersionCount(), 1u);
  EXPECT_EQ(day.GetVersion(0)->version, 2);
  EXPECT_EQ(day.GetVersion(0)->on_disk_size, 0u);
  EXPECT_FALSE(day.validate(2));
  EXPECT_EQ(day.totalOnDiskSize(), 0u);
  EXPECT_EQ(day.events_count(), 0u);
  EXPECT_EQ(day.GetFirstEventSecondOfDay(), DayInfo::InvalidSecond);
  EXPECT_EQ(day.GetLastEventSecondOfDay(), DayInfo::InvalidSecond);
}

TEST(DayInfoTest, SizesAndEventCountsAddUpAcrossVersions) {
  DayInfo day;
  ASSERT_TRUE(day.Create());
  ASSERT_TRUE(day.AddVersion(0, 10));
  ASSERT_TRUE(day.AddVersion(1, 20));
  EXPECT_EQ(day.addOnDiskSize(2, 5), 5u);
  EXPECT_EQ(day.addOnDiskSize(2, 7), 12u);
  EXPECT_TRUE(day.setOnDiskSize(0, 1));
  EXPECT_EQ(day.totalOnDiskSize(), 33u);
  EXPECT_TRUE(day.validate(2));
  // Versions stay sorted whatever the order they were added in.
  for (uint32_t i = 0; i < day.GetVersionCount(); ++i) EXPECT_EQ(day.GetVersion(i)->version, i);

  tarn::test::LogCapture log;
  EXPECT_EQ(day.__get_vi(7), nullptr);
  EXPECT_FALSE(day.setOnDiskSize(7, 1));
  EXPECT_EQ(day.onDiskSize(7), 0u);
  EXPECT_EQ(log.Count(Keel::Log::Error), 3u);

  ASSERT_TRUE(day.AddBlock(Block(20, 3, 10, 20, 2)));
  ASSERT_TRUE(day.AddBlock(Block(100, 4, 20, 86399, 2)));
  EXPECT_EQ(day.events_count(), 7u);
  EXPECT_EQ(day.GetFirstEventSecondOfDay(), 10u);
  EXPECT_EQ(day.GetLastEventSecondOfDay(), 86399u);
  EXPECT_EQ(day.GetBlock(2), nullptr);
}

TEST(DayInfoTest, ClearingVersionsKeepsOtherBlocksInOrder) {
  DayInfo day;
  ASSERT_TRUE(day.Create());
  ASSERT_TRUE(day.AddVersion(1, 300));
  day.addOnDiskSize(2, 500);
  ASSERT_TRUE(day.AddBlock(Block(20, 1, 1, 2, 1)));
  ASSERT_TRUE(day.AddBlock(Block(20, 1, 3, 4, 2)));
  ASSERT_TRUE(day.AddBlock(Block(60, 1, 5, 6, 1)));
  ASSERT_TRUE(day.AddBlock(Block(90, 1, 7, 8, 2)));

  day.ClearVersion(2);
  ASSERT_EQ(day.GetBlockCount(), 2u);
  EXPECT_EQ(*day.GetBlock(0), Block(20, 1, 1, 2, 1));
  EXPECT_EQ(*day.GetBlock(1), Block(60, 1, 5, 6, 1));
  ASSERT_EQ(day.GetVersionCount(), 2u);
  EXPECT_EQ(*day.GetVersion(0), (VersionInfo{1, 300}));
  EXPECT_EQ(*day.GetVersion(1), (VersionInfo{2, 0}));

  // Clearing another version does not bring it back.
  day.ClearVersion(1);
  EXPECT_EQ(day.GetBlockCount(), 0u);
  ASSERT_EQ(day.GetVersionCount(), 1u);
  EXPECT_EQ(day.GetVersion(0)->version, 2);

  // Clearing all leaves no version at all.
  ASSERT_TRUE(day.AddBlock(Block(20, 1, 1, 2, 2)));
  day.ClearAll();
  EXPECT_EQ(day.GetBlockCount(), 0u);
  EXPECT_EQ(day.GetVersionCount(), 0u);
  EXPECT_FALSE(day.HasVersion(2));
}

TEST(DayInfoTest, CopiesAreIndependentAndTheGenericFlatFormIsRefused) {
  DayInfo day;
  ASSERT_TRUE(day.Create());
  ASSERT_TRUE(day.AddBlock(Block(20, 5, 1, 2, 2)));
  DayInfo copy = day;
  ASSERT_TRUE(copy.AddBlock(Block(40, 5, 3, 4, 2)));
  EXPECT_EQ(day.GetBlockCount(), 1u);
  EXPECT_EQ(copy.GetBlockCount(), 2u);
  DayInfo moved = std::move(copy);
  EXPECT_EQ(moved.events_count(), 10u);

  Keel::Collections::Buffer out;
  ASSERT_TRUE(out.Create(256));
  EXPECT_FALSE(day.Serialize(out, nullptr));
  Keel::Collections::StreamBuffer in(out);
  EXPECT_FALSE(day.Deserialize(in, nullptr));

  // Nor can a tree of days be written in that form, once it has held one:
  // nobody persists the index through it by mistake.
  Keel::Collections::RedBlackTree<uint16_t, DayInfo> tree;
  ASSERT_TRUE(tree.Create(4, 512, 100, false, Keel::Collections::GrowType::Percent));
  EXPECT_TRUE(tree.Serialize(out, nullptr));
  ASSERT_TRUE(tree.Insert(7, day));
  out.Reset();
  tarn::test::LogCapture log;
  EXPECT_FALSE(tree.Serialize(out, nullptr));
  EXPECT_GE(log.Count(Keel::Log::Error), 1u);
  ASSERT_TRUE(tree.Erase(7));  // an erased day leaves a slot that cannot be written
  EXPECT_FALSE(tree.Serialize(out, nullptr));
}

TEST(RawIteratorTest, PacksAndSplitsPositions) {
  RawIterator it(0x1234, 0x56789A, 0xBCDEF0);
  EXPECT_EQ(static_cast<uint64_t>(it), 0xBCDEF056789A1234ull);
  EXPECT_EQ(it.AsKey(), 0x56789A1234ull);
  EXPECT_EQ(it.Day(), 0x1234);
  EXPECT_EQ(it.Block(), 0x56789Au);
  EXPECT_EQ(it.Event(), 0xBCDEF0u);

  // High bits beyond each field's width are dropped, not carried over.
  RawIterator wide(0x11234, 0x1000001, 0xFFFFFFFF);
  EXPECT_EQ(wide.Day(), 0x1234);
  EXPECT_EQ(wide.Block(), 1u);
  EXPECT_EQ(wide.Event(), 0xFFFFFFu);

  EXPECT_FALSE(RawIterator().IsValid());
  EXPECT_FALSE(static_cast<bool>(RawIterator(RawIterator::Invalid)));
  EXPECT_TRUE(RawIterator(0xFFFF, 0xFFFFFF, 0xFFFFFE).IsValid());
  EXPECT_TRUE(RawIterator(0, 0, 0).IsValid());
  EXPECT_TRUE(it == 0xBCDEF056789A1234ull);
  EXPECT_TRUE(it != 0);
}

}  // namespace
}  // namespace Tarn::Storage
