// Blocks as the reader fetches them: the cache, ProcessBlocks' ranges and
// tokens, DecodeBlock, and reads the position does not allow.

#include <gtest/gtest.h>

#include "Keel/OS/Path.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "reader_fixture.h"
#include "support/log_capture.h"

namespace Tarn::Storage {
namespace {

constexpr uint64_t kInvalid = RawIterator::Invalid;

uint64_t At(uint16_t day, uint32_t block, uint32_t event) { return RawIterator(day, block, event); }

class ReaderBlocksTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(store_.Open()); }
  EventStorageProvider& reader() { return store_.reader(); }
  uint32_t Misses() { return store_.manager().telemetry().snapshot().cache_miss_count; }
  bool Read(uint64_t position) {
    Events::GenericEventHolder holder;
    return reader().GetEvent(position, &holder);
  }
  std::vector<uint64_t> SentBlocks(uint64_t from, uint64_t to, bool* ok = nullptr) {
    std::vector<uint64_t> keys;
    bool done = reader().ProcessBlocks(
        from, to,
        [&](const EventStorageProvider::DecodeToken& token, const Keel::Collections::Buffer&) {
          keys.push_back(token.block_key);
        });
    if (ok != nullptr) *ok = done;
    return keys;
  }

  tarn::test::ReaderStore store_;
};

TEST_F(ReaderBlocksTest, CacheKeepsNineBlocksAndDropsTheLeastRecentlyUsed) {
  for (uint32_t b = 0; b < 11; ++b) ASSERT_TRUE(store_.Block(9000, {b * 10, b * 10 + 1}));
  const uint32_t start = Misses();
  for (uint32_t b = 0; b < 9; ++b) ASSERT_TRUE(Read(At(9000, b, 1)));
  EXPECT_EQ(Misses() - start, 9u);
  EXPECT_EQ(reader().CachedBlockCount(), 9u);
  // Every event of a cached block is served without decoding again.
  for (uint32_t b = 0; b < 9; ++b) ASSERT_TRUE(Read(At(9000, b, 0)));
  EXPECT_EQ(Misses() - start, 9u);

  ASSERT_TRUE(Read(At(9000, 0, 0)));  // block 0 is now the most recent
  ASSERT_TRUE(Read(At(9000, 9, 0)));  // evicts block 1, the least recent
  EXPECT_EQ(Misses() - start, 10u);
  ASSERT_TRUE(Read(At(9000, 0, 1)));
  ASSERT_TRUE(Read(At(9000, 2, 1)));
  EXPECT_EQ(Misses() - start, 10u);
  ASSERT_TRUE(Read(At(9000, 1, 0)));
  EXPECT_EQ(Misses() - start, 11u);
  EXPECT_EQ(reader().CachedBlockCount(), 9u);
}

TEST_F(ReaderBlocksTest, PositionsPastABlockOrWithoutAHolderReadNothing) {
  ASSERT_TRUE(store_.Block(9000, {10, 20, 30}));
  tarn::test::LogCapture log;
  EXPECT_FALSE(reader().GetEvent(At(9000, 0, 0), nullptr));
  EXPECT_EQ(Misses(), 0u);
  EXPECT_EQ(reader().CachedBlockCount(), 0u);

  RawEventsBlockMetadata meta;
  Keel::Collections::Buffer stored;
  EXPECT_FALSE(reader().GetBlock(At(9000, 0, 3), meta, stored));
  EXPECT_EQ(reader().GetBlockFromCache(At(9000, 0, 3)), nullptr);
  EXPECT_FALSE(Read(At(9000, 0, 3)));
  EXPECT_FALSE(Read(At(9000, 1, 0)));
  EXPECT_FALSE(Read(At(9001, 0, 0)));
  EXPECT_FALSE(Read(kInvalid));
  EXPECT_EQ(reader().CachedBlockCount(), 0u);

  unsigned int version = 0;
  EXPECT_TRUE(reader().GetBlockVersion(At(9000, 0, 7), version));  // the index alone
  EXPECT_EQ(version, 2u);
  EXPECT_FALSE(reader().GetBlockVersion(At(9000, 1, 0), version));
  EXPECT_FALSE(reader().GetBlockVersion(At(8999, 0, 0), version));

  ASSERT_TRUE(reader().GetBlock(At(9000, 0, 2), meta, stored));
  EXPECT_EQ(meta.event_count, 3u);
  EXPECT_EQ(meta.version, 2u);
  EXPECT_EQ(meta.decoded_size, meta.event_table_offset + 3 * 8);
  EXPECT_GT(log.CountFrom(Keel::Log::StorageProvider, Keel::Log::Error), 0u);
}

TEST_F(ReaderBlocksTest, ProcessBlocksOverAnEmptyOrInvalidRange) {
  ASSERT_TRUE(store_.Block(9000, {10, 11, 12}));
  ASSERT_TRUE(store_.Block(9003, {6, 7}));
  bool ok = false;
  EXPECT_TRUE(SentBlocks(At(9003, 0, 0), At(9000, 0, 0), &ok).empty());
  EXPECT_TRUE(ok);
  EXPECT_TRUE(SentBlocks(kInvalid, At(9003, 0, 0), &ok).empty());
  EXPECT_FALSE(ok);
  EXPECT_TRUE(SentBlocks(At(9000, 0, 0), kInvalid, &ok).empty());
  EXPECT_FALSE(ok);
  EXPECT_FALSE(reader().ProcessBlocks(At(9000, 0, 0), At(9003, 0, 0), nullptr));
}

TEST_F(ReaderBlocksTest, DecodeBlockNeedsTheExactSizeAndLeavesTheStoredBytesComplemented) {
  ASSERT_TRUE(store_.Block(9000, {10, 11, 12}));
  RawEventsBlockMetadata meta;
  Keel::Collections::Buffer stored;
  ASSERT_TRUE(reader().GetBlock(At(9000, 0, 0), meta, stored));
  Keel::Collections::Buffer original;
  ASSERT_TRUE(original.Assign(stored));
  Telemetry::StorageTelemetry& telemetry = store_.manager().telemetry();
  Keel::Collections::Buffer decoded;

  for (uint32_t size : {meta.decoded_size - 1, meta.decoded_size + 1}) {
    ASSERT_TRUE(stored.Assign(original));
    EXPECT_FALSE(EventStorageProvider::DecodeBlock(stored, size, decoded, telemetry));
    EXPECT_TRUE(decoded.Empty());
  }
  ASSERT_TRUE(stored.Assign(original));
  ASSERT_TRUE(EventStorageProvider::DecodeBlock(stored, meta.decoded_size, decoded, telemetry));
  EXPECT_EQ(decoded.Size(), meta.decoded_size);
  // The stored bytes now hold the plain stream, so decoding them again fails.
  EXPECT_EQ(stored.Data()[0], static_cast<uint8_t>(~original.Data()[0]));
  EXPECT_FALSE(EventStorageProvider::DecodeBlock(stored, meta.decoded_size, decoded, telemetry));

  EventsBlock block;
  ASSERT_TRUE(block.Create());
  unsigned int version = 0;
  ASSERT_TRUE(reader().GetBlockDecoded(At(9000, 0, 1), block, stored, version));
  EXPECT_EQ(version, 2u);
  EXPECT_EQ(block.EventCount(), 3u);
  EXPECT_EQ(block.Second(2), 12u);
}

TEST_F(ReaderBlocksTest, IndexDumpHasOneLinePerBlock) {
  ASSERT_TRUE(store_.Block(9000, {10, 11, 12}));
  ASSERT_TRUE(store_.Block(9002, {86'399}));
  ASSERT_TRUE(reader().__dump_index_data());
  std::string text =
      tarn::test::ReadWholeFile(Keel::OS::Path::Join(store_.directory(), "index.json"));
  char first[160];
  std::snprintf(
      first, sizeof(first),
      "- { id: 0x%016llx, d: 009000, b: 0x00000000, e: 0x00000003, s: 000010 t:%32llu }\n",
      static_cast<unsigned long long>(At(9000, 0, 0)),
      static_cast<unsigned long long>(tarn::test::EpochOf(9000, 10)));
  EXPECT_EQ(text.substr(0, text.find('\n') + 1), first);
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 2);
  EXPECT_NE(text.find("d: 009002, b: 0x00000000, e: 0x00000001, s: 086399"), std::string::npos);
  EXPECT_FALSE(reader().__dump_proto_stats(store_.directory().c_str()));
}

// The writer can give a (day, block) key to another block; the cache must
// never hand out the one it held before.
class ReaderCacheTest : public ::testing::Test {
 protected:
  ReaderCacheTest() : store_(Limits()) {}
  static Settings Limits() {
    Settings s = tarn::test::ReaderSettings();
    s.max_days = 2;
    return s;
  }
  void SetUp() override { ASSERT_TRUE(store_.Open()); }
  EventStorageProvider& reader() { return store_.reader(); }
  // The second of the day of the event at `position`, or -1.
  int64_t SecondAt(uint64_t position) {
    Keel::OS::DateTime time;
    if (!reader().GetTime(position, time)) return -1;
    const uint64_t day_start = tarn::test::EpochOf(RawIterator(position).Day(), 0);
    return static_cast<int64_t>(time.ToSecondsSinceEpoch() - day_start);
  }

  tarn::test::ReaderStore store_;
};

TEST_F(ReaderCacheTest, AReplacedFileIsReadAnewAndAnEvictedDayNoLongerAnswers) {
  ASSERT_TRUE(store_.Block(9000, {10, 11}));
  ASSERT_EQ(SecondAt(At(9000, 0, 0)), 10);  // cached now
  // Somebody spoils the file's header; the writer replaces the file, and
  // block 0 of the day is a new block.
  std::string bytes = tarn::test::ReadWholeFile(store_.DayFile(9000));
  bytes[0] = 'X';
  tarn::test::WriteWholeFile(store_.DayFile(9000), bytes);
  ASSERT_TRUE(store_.Block(9000, {30}));
  EXPECT_EQ(SecondAt(At(9000, 0, 0)), 30);
  EXPECT_EQ(reader().GetIterVal(tarn::test::TimeOf(9000, 30), Comm::Interface::Exact),
            At(9000, 0, 0));
  EXPECT_EQ(SecondAt(At(9000, 0, 1)), -1);

  // Two more days: the day limit evicts day 9000, cached or not.
  ASSERT_TRUE(store_.Block(9001, {5}));
  ASSERT_TRUE(store_.Block(9002, {5}));
  Events::GenericEventHolder holder;
  EXPECT_FALSE(reader().GetEvent(At(9000, 0, 0), &holder));
  EXPECT_EQ(SecondAt(At(9000, 0, 0)), -1);

  // A day evicted while ProcessBlocks hands it out breaks the walk, which
  // must not pass for the end of the range.
  std::vector<uint64_t> sent;
  EXPECT_FALSE(reader().ProcessBlocks(
      At(9001, 0, 0), At(9002, 0, 0),
      [&](const EventStorageProvider::DecodeToken& token, const Keel::Collections::Buffer&) {
        sent.push_back(token.block_key);
        if (sent.size() == 1) {
          ASSERT_TRUE(store_.Block(9003, {5}));
        }
      }));
  EXPECT_EQ(sent, std::vector<uint64_t>{At(9001, 0, 0)});
}

}  // namespace
}  // namespace Tarn::Storage
