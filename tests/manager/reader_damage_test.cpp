// Damaged day files under a running store: the damaged block is unavailable
// and stays out of the cache, nothing crashes, and other blocks still read.

#include <gtest/gtest.h>

#include <cstdio>
#include <functional>
#include <set>

#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Events/Record.h"
#include "reader_fixture.h"
#include "support/log_capture.h"

namespace Tarn::Storage {
namespace {

using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

// Day 9000 holds blocks A (3 events) and B (2 events) in one file; day 9001
// holds block C. Offsets of the two blocks of day 9000's file:
constexpr uint32_t kBlockA = 20;

uint32_t Word(const std::string& bytes, uint32_t at) {
  return Events::Record::LoadUInt32(reinterpret_cast<const uint8_t*>(bytes.data()) + at);
}
uint32_t BlockB(const std::string& file) { return kBlockA + 12 + Word(file, kBlockA); }

struct Damage {
  const char* name;
  std::function<void(std::string& file)> apply;  // rewrites day 9000's file
  std::set<uint32_t> unavailable;                // blocks of day 9000 it spoils
  bool delete_file = false;
};

class ReaderDamageTest : public ::testing::TestWithParam<Damage> {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.Open());
    ASSERT_TRUE(store_.Block(9000, {10, 11, 12}));
    ASSERT_TRUE(store_.Block(9000, {20, 21}));
    ASSERT_TRUE(store_.Block(9001, {5}));
  }
  bool Matches(uint64_t position, size_t fed) {
    Events::GenericEventHolder holder;
    if (!store_.reader().GetEvent(position, &holder)) return false;
    return std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size()) ==
           store_.fed()[fed];
  }
  uint32_t Misses() { return store_.manager().telemetry().snapshot().cache_miss_count; }

  tarn::test::ReaderStore store_;
};

TEST_P(ReaderDamageTest, DamagedBlockIsUnavailableAndNotCached) {
  const Damage& damage = GetParam();
  const std::string path = store_.DayFile(9000);
  std::string original = ReadWholeFile(path);
  std::string file = original;
  if (damage.delete_file) {
    ASSERT_EQ(std::remove(path.c_str()), 0);
  } else {
    damage.apply(file);
    WriteWholeFile(path, file);
  }

  tarn::test::LogCapture log;
  EventStorageProvider& reader = store_.reader();
  // Blocks A, B of day 9000 and C of day 9001; the first fed event of each.
  const uint64_t blocks[] = {RawIterator(9000, 0, 0), RawIterator(9000, 1, 0),
                             RawIterator(9001, 0, 0)};
  const size_t first_fed[] = {0, 3, 5};
  for (uint32_t b = 0; b < 3; ++b) {
    bool spoiled = b < 2 && damage.unavailable.count(b) != 0;
    SCOPED_TRACE(b);
    for (int attempt = 0; attempt < 2; ++attempt) {
      uint32_t misses = Misses();
      EXPECT_EQ(Matches(blocks[b], first_fed[b]), !spoiled);
      // A spoiled block is tried again each time: nothing was cached for it.
      EXPECT_EQ(Misses() - misses, (spoiled || attempt == 0) ? 1u : 0u);
    }
    Keel::OS::DateTime time;
    EXPECT_EQ(reader.GetTime(blocks[b], time), !spoiled);
  }
  EXPECT_EQ(reader.CachedBlockCount(), 3 - damage.unavailable.size());
  // The index still steps over the damage, and by time the block is gone.
  uint64_t p = RawIterator(9000, 0, 2);
  EXPECT_TRUE(reader.Increment(p));
  EXPECT_EQ(p, RawIterator(9000, 1, 0));
  uint64_t found = reader.GetIterVal(tarn::test::TimeOf(9000, 11), Comm::Interface::Exact);
  EXPECT_EQ(found == RawIterator(9000, 0, 1), damage.unavailable.count(0) == 0);
  EXPECT_GT(log.CountFrom(Keel::Log::StorageProvider, Keel::Log::Error), 0u);

  // Mended, every block reads again.
  WriteWholeFile(path, original);
  for (uint32_t b = 0; b < 3; ++b) EXPECT_TRUE(Matches(blocks[b], first_fed[b]));
}

INSTANTIATE_TEST_SUITE_P(
    Kinds, ReaderDamageTest,
    ::testing::Values(
        Damage{"FlippedPayloadByte",
               [](std::string& f) { f[kBlockA + 12 + Word(f, kBlockA) / 2] ^= 0x10; },
               {0}},
        Damage{"ComplementedPayload",
               [](std::string& f) {
                 for (uint32_t i = 0; i < Word(f, kBlockA); ++i) f[kBlockA + 12 + i] ^= 0xFF;
               },
               {0}},
        Damage{"TruncatedInsideTheSecondBlock",
               [](std::string& f) { f.resize(BlockB(f) + 12 + Word(f, BlockB(f)) / 2); },
               {1}},
        Damage{
            "TruncatedInsideTheSecondFrame", [](std::string& f) { f.resize(BlockB(f) + 6); }, {1}},
        Damage{"FrameDisagreesWithTheIndex",
               [](std::string& f) {
                 uint32_t table = Word(f, kBlockA + 8) - 8;  // one more entry than indexed
                 Events::Record::StoreUInt32(reinterpret_cast<uint8_t*>(&f[kBlockA + 8]), table);
               },
               {0}},
        Damage{"HeaderVersionDiffersFromTheName", [](std::string& f) { f[8] = 1; }, {0, 1}},
        Damage{"HeaderMagicGone", [](std::string& f) { f[0] = 'X'; }, {0, 1}},
        Damage{"DeletedDayFile", nullptr, {0, 1}, true}),
    [](const ::testing::TestParamInfo<Damage>& kind) { return std::string(kind.param.name); });

}  // namespace
}  // namespace Tarn::Storage
