// Where `tarn sql` may cut a scan's time: block edges read from the index,
// parts that cover the range exactly, and no cut at all in a store whose
// blocks went back in time.

#include <gtest/gtest.h>

#include <vector>

#include "manager/index/DayInfo.h"
#include "manager/index/Index.h"
#include "manager/writer/Settings.h"
#include "manager/index/TimeIndex.h"
#include "support/temp_dir.h"
#include "tarn/sql/TimeSlices.h"

namespace {

using Tarn::Tool::SecondRange;
using Tarn::Tool::TimeSlices;

constexpr uint16_t kDay = 9000;

// Writes an index whose day kDay holds blocks over these seconds of the day.
void WriteIndex(const std::string& directory,
                const std::vector<std::pair<uint32_t, uint32_t>>& blocks) {
  using namespace Tarn::Storage;
  Index index;
  index.set_directory(directory);
  Settings settings = Settings::default_();
  ASSERT_TRUE(index.load(settings));
  DayInfo day;
  ASSERT_TRUE(day.Create());
  uint32_t offset = 20;
  for (const auto& [first, last] : blocks) {
    ASSERT_TRUE(day.AddBlock(BlockInfo{offset, 10, first, last, 2}));
    offset += 1000;
  }
  ASSERT_TRUE(index.tree().Insert(kDay, std::move(day)));
  ASSERT_TRUE(index.save(ToEpochSeconds(kDay, blocks.back().second)));
}

uint64_t At(uint32_t second) { return Tarn::Storage::ToEpochSeconds(kDay, second); }

TEST(TimeSlices, PartsCoverTheRangeExactlyAndCutInsideBlocks) {
  tarn::test::TempDir dir;
  // Blocks that touch (one ends in the second the next starts), blocks with
  // a gap, and three blocks within one second.
  const std::vector<std::pair<uint32_t, uint32_t>> blocks = {
      {100, 200}, {200, 300}, {350, 360}, {500, 500}, {500, 500}, {500, 500}, {501, 900}};
  WriteIndex(dir.path(), blocks);
  TimeSlices slices;
  slices.Load(dir.path());
  ASSERT_TRUE(slices.CanCut());
  EXPECT_EQ(slices.BlocksIn({At(0), At(86399)}), blocks.size());
  EXPECT_EQ(slices.BlocksIn({At(250), At(355)}), 2u);

  for (size_t per_part = 1; per_part <= blocks.size() + 1; ++per_part) {
    SCOPED_TRACE(per_part);
    for (const SecondRange range : {SecondRange{0, ~uint64_t{0} / 2}, SecondRange{At(150), At(600)},
                                    SecondRange{At(360), At(501)}}) {
      const std::vector<SecondRange> parts = slices.Cut(range, per_part);
      ASSERT_FALSE(parts.empty());
      EXPECT_EQ(parts.front().first, range.first);
      EXPECT_EQ(parts.back().last, range.last);
      for (size_t i = 0; i + 1 < parts.size(); ++i) {
        EXPECT_LE(parts[i].first, parts[i].last);
        EXPECT_EQ(parts[i].last + 1, parts[i + 1].first) << "parts leave no second out";
        // A cut falls where a block starts or inside one.
        const uint64_t cut = parts[i + 1].first;
        bool at_block = false;
        for (const auto& [first, last] : blocks) at_block |= cut >= At(first) && cut <= At(last);
        EXPECT_TRUE(at_block) << cut - At(0);
      }
      if (per_part == 1 && range.first == 0) {
        EXPECT_GE(parts.size(), 4u);
      }
      if (per_part > blocks.size()) {
        EXPECT_EQ(parts.size(), 1u);
      }
    }
  }
}

TEST(TimeSlices, BlocksThatGoBackInTimeAreNeverCut) {
  tarn::test::TempDir dir;
  WriteIndex(dir.path(), {{100, 200}, {300, 400}, {150, 160}});
  TimeSlices slices;
  slices.Load(dir.path());
  EXPECT_FALSE(slices.CanCut());

  tarn::test::TempDir empty;
  slices.Load(empty.path());  // no index at all
  EXPECT_FALSE(slices.CanCut());
}

}  // namespace
