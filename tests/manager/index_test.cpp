// The index file: its layout, what a load takes from it, and saves that fail
// or are cut short. Arbitrary files, loaded, saved and loaded again, are held
// against a plain reading of the format in fuzz/index_fuzz.cpp.

#include "manager/index/Index.h"

#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/FileSystem.h"
#include "support/log_capture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

namespace Faults = Keel::OS::Faults;
using tarn::test::ReadWholeFile;
using tarn::test::WriteWholeFile;

std::string LE(uint64_t value, int width) {
  std::string out;
  for (int i = 0; i < width; ++i) out.push_back(static_cast<char>(value >> (8 * i)));
  return out;
}

std::string HeaderBytes(uint32_t count, uint64_t timestamp, uint16_t format = 2,
                        const std::string& magic = "ETRN", uint64_t reserved1 = 0,
                        uint64_t reserved2 = 0) {
  return magic + LE(format, 2) + LE(count, 4) + LE(timestamp, 8) + LE(reserved1, 8) +
         LE(reserved2, 8);
}

uint64_t Pack(uint64_t events, uint64_t start, uint64_t end) {
  return events | (start << 25) | (end << 42);
}

std::string RecordBytes(uint32_t offset, uint16_t day, uint8_t version, uint64_t packed) {
  return LE(offset, 4) + LE(day, 2) + LE(version, 1) + LE(packed, 8);
}

BlockInfo Block(uint32_t offset, uint32_t events, uint32_t start, uint32_t end, uint8_t version) {
  return BlockInfo{offset, events, start, end, version};
}

// Adds a day as the writer does: blocks in order, each version they name,
// with non-zero sizes that the file does not keep.
void AddDay(Index& index, uint16_t day, std::initializer_list<BlockInfo> blocks) {
  ASSERT_TRUE(index.tree().Insert(day, DayInfo()));
  DayInfo* info = index.tree().SearchUnsafe(day);
  ASSERT_NE(info, nullptr);
  ASSERT_TRUE(info->Create());
  for (const BlockInfo& block : blocks) {
    ASSERT_TRUE(info->AddBlock(block));
    if (!info->HasVersion(block.version)) {
      ASSERT_TRUE(info->AddVersion(block.version, 0));
    }
    info->addOnDiskSize(block.version, 1000);
  }
}

std::vector<uint8_t> Versions(const DayInfo& day) {
  std::vector<uint8_t> out;
  for (uint32_t i = 0; i < day.GetVersionCount(); ++i) out.push_back(day.GetVersion(i)->version);
  return out;
}

std::vector<BlockInfo> Blocks(const DayInfo& day) {
  std::vector<BlockInfo> out;
  for (uint32_t i = 0; i < day.GetBlockCount(); ++i) out.push_back(*day.GetBlock(i));
  return out;
}

class IndexTest : public ::testing::Test {
 protected:
  void SetUp() override {
    settings_ = Settings::default_();
    index_.set_directory(dir_.path());
    // Nothing on disk yet: this only creates the empty tree.
    ASSERT_TRUE(index_.load(settings_));
  }
  void TearDown() override {
    Faults::ClearRules();
    Faults::EnableCrashTracking(false);
  }

  std::string IndexPath() const { return dir_.File(Index::FILENAME); }

  // Day 7: two blocks in versions 2 and 0; day 3: one block in version 1.
  void FillSample(Index& index) {
    AddDay(index, 7, {Block(0, 10, 100, 200, 2), Block(4096, 25, 200, 86399, 0)});
    AddDay(index, 3, {Block(12, 1, 0, 0, 1)});
  }

  // Loads `bytes` as the index file into a fresh index.
  bool LoadBytes(Index& index, const std::string& bytes) {
    WriteWholeFile(IndexPath(), bytes);
    index.set_directory(dir_.path());
    return index.load(settings_);
  }

  // Loads the directory's file into a fresh index and checks it holds the
  // sample, sizes aside.
  void ExpectSampleOnDisk(uint64_t timestamp) {
    Index loaded;
    loaded.set_directory(dir_.path());
    Keel::Utils::String path(IndexPath());
    ASSERT_TRUE(loaded.try_load_existing(settings_, path));
    EXPECT_EQ(loaded.tree().GetCount(), 2u);
    EXPECT_EQ(loaded.last_event_timestamp(), timestamp);
    EXPECT_EQ(loaded.get_size(), 36u);
  }

  tarn::test::TempDir dir_;
  Settings settings_;
  Index index_;
};

// ---- File layout ------------------------------------------------------------

TEST_F(IndexTest, SaveToLaysOutHeaderAndRecordsByteForByte) {
  FillSample(index_);
  Keel::Utils::String path(dir_.File("out.db"));
  ASSERT_TRUE(index_.save_to(0x0102030405060708ull, path));

  const std::vector<uint8_t> expected = {
      'E', 'T', 'R', 'N',                              // magic
      0x02, 0x00,                                      // format version
      0x03, 0x00, 0x00, 0x00,                          // record count
      0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01,  // last event timestamp
      0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0,  // reserved
      // Day 3 comes first although it was added last.
      0x0C, 0x00, 0x00, 0x00, 0x03, 0x00, 0x01,  // offset 12, day 3, version 1
      0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00,  // 1 event, seconds 0..0
      0x00, 0x00, 0x00, 0x00, 0x07, 0x00, 0x02,        // offset 0, day 7, version 2
      // 10 events (bits 0-24), start 100 (bits 25-41), end 200 (bits 42-58)
      0x0A, 0x00, 0x00, 0xC8, 0x00, 0x20, 0x03, 0x00,
      0x00, 0x10, 0x00, 0x00, 0x07, 0x00, 0x00,  // offset 4096, day 7, version 0
      // 25 events, start 200, end 86399 (0x1517F)
      0x19, 0x00, 0x00, 0x90, 0x01, 0xFC, 0x45, 0x05,
  };
  std::string bytes = ReadWholeFile(path.str());
  EXPECT_EQ(std::vector<uint8_t>(bytes.begin(), bytes.end()), expected);
}

TEST_F(IndexTest, WriterMasksEachPackedFieldToItsWidth) {
  // Out-of-range values must not spill into the neighbouring field or the
  // reserved top bits.
  AddDay(index_, 1, {Block(5, (1u << 25) | 3, (1u << 17) | 4, 0xFFFFFFFFu, 2)});
  Keel::Utils::String path(dir_.File("out.db"));
  ASSERT_TRUE(index_.save_to(0, path));
  std::string bytes = ReadWholeFile(path.str());
  ASSERT_EQ(bytes.size(), Index::kHeaderSize + Index::kRecordSize);
  EXPECT_EQ(bytes.substr(Index::kHeaderSize), RecordBytes(5, 1, 2, Pack(3, 4, 0x1FFFF)));
}

// ---- Loading ----------------------------------------------------------------

// What a plain reading of the file gives, or an empty index for a file that
// cannot be used. A previous content never survives a load.
TEST_F(IndexTest, LoadsUsableFilesAndLeavesAnEmptyIndexForOthers) {
  const std::string good = RecordBytes(0, 9, 2, Pack(4, 1, 2));
  const std::string one = RecordBytes(0, 5, 2, Pack(1, 1, 1));
  struct Case {
    const char* name;
    std::string bytes;
    bool usable;
    uint64_t timestamp, events;
    uint32_t days = events != 0 ? 1 : 0;
  };
  const std::vector<Case> cases = {
      {"header only", HeaderBytes(0, 987654321), true, 987654321, 0},
      {"format 0", HeaderBytes(1, 5, 0) + good, true, 5, 4},
      {"format 1", HeaderBytes(1, 5, 1) + good, true, 5, 4},
      {"widest fields",
       HeaderBytes(1, 5) + RecordBytes(0xFFFFFFFFu, 0xFFFF, 2, Pack((1u << 25) - 1, 86399, 86399)),
       true, 5, (1u << 25) - 1},
      {"empty", "", false, 0, 0},
      {"shorter than a header", HeaderBytes(0, 5).substr(0, 20), false, 0, 0},
      {"records cut off", HeaderBytes(3, 5) + good + good + good.substr(0, 14), false, 0, 0},
      {"newer format", HeaderBytes(1, 5, 3) + good, false, 0, 0},
      {"foreign magic", HeaderBytes(1, 5, 2, "ETRM") + good, false, 0, 0},
      {"reserved low half", HeaderBytes(1, 5, 2, "ETRN", 1ull << 63) + good, false, 0, 0},
      {"reserved high half", HeaderBytes(1, 5, 2, "ETRN", 0, 1) + good, false, 0, 0},
      {"too many records", HeaderBytes(0x1000000, 5) + good, false, 0, 0},
      // The writer keeps each day's records together: a record of a day met
      // before is damaged, and skipped like any bad record.
      {"a day split across the file",
       HeaderBytes(3, 42) + one + RecordBytes(0, 6, 2, Pack(1, 1, 1)) + one, true, 42, 2, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    Index index;
    ASSERT_TRUE(LoadBytes(index, HeaderBytes(1, 77) + good));
    ASSERT_EQ(index.tree().GetCount(), 1u);

    tarn::test::LogCapture log;
    Keel::Utils::String path(IndexPath());
    WriteWholeFile(IndexPath(), c.bytes);
    EXPECT_EQ(index.try_load_existing(settings_, path), c.usable);
    EXPECT_TRUE(index.load_from(settings_, path));
    EXPECT_EQ(index.tree().GetCount(), c.days);
    EXPECT_EQ(index.last_event_timestamp(), c.timestamp);
    EXPECT_EQ(index.get_size(), c.events);  // an empty index is usable too
    EXPECT_EQ(log.Count(Keel::Log::Error) != 0, !c.usable);
  }
}

TEST_F(IndexTest, MissingFileLoadsEmpty) {
  Index index;
  index.set_directory(dir_.File("nowhere"));
  index.set_last_event_timestamp(9);
  ASSERT_TRUE(index.load(settings_));
  EXPECT_EQ(index.tree().GetCount(), 0u);
  EXPECT_EQ(index.last_event_timestamp(), 0u);
  AddDay(index, 1, {Block(0, 1, 0, 0, 2)});
  EXPECT_EQ(index.get_size(), 1u);
}

TEST_F(IndexTest, BadRecordsAreSkippedOneByOne) {
  std::string bytes = HeaderBytes(8, 42) +
                      RecordBytes(100, 5, 2, Pack(1, 10, 20)) +
                      RecordBytes(200, 5, 2, Pack(0, 10, 20)) +      // no events
                      RecordBytes(300, 5, 2, Pack(1, 86400, 20)) +   // start past the day
                      RecordBytes(400, 5, 2, Pack(1, 10, 86400)) +   // end past the day
                      RecordBytes(500, 5, 3, Pack(1, 10, 20)) +      // unknown version
                      // Reserved top bits are ignored.
                      RecordBytes(600, 5, 0, Pack(2, 30, 40) | (0x1Full << 59)) +
                      RecordBytes(700, 6, 3, Pack(1, 1, 1)) +        // day 6 never starts
                      RecordBytes(800, 8, 1, Pack(3, 50, 60));
  tarn::test::LogCapture log;
  Index index;
  ASSERT_TRUE(LoadBytes(index, bytes));
  EXPECT_EQ(log.Count(Keel::Log::Warning), 5u);
  EXPECT_EQ(log.Count(Keel::Log::Error), 0u);
  EXPECT_EQ(index.last_event_timestamp(), 42u);
  ASSERT_EQ(index.tree().GetCount(), 2u);
  EXPECT_FALSE(index.tree().Contains(6));
  DayInfo* day5 = index.tree().SearchUnsafe(5);
  ASSERT_NE(day5, nullptr);
  EXPECT_EQ(Blocks(*day5),
            (std::vector<BlockInfo>{Block(100, 1, 10, 20, 2), Block(600, 2, 30, 40, 0)}));
  EXPECT_EQ(Versions(*day5), (std::vector<uint8_t>{0, 2}));
  EXPECT_EQ(Versions(*index.tree().SearchUnsafe(8)), (std::vector<uint8_t>{1, 2}));
  EXPECT_EQ(index.get_size(), 6u);
}

TEST_F(IndexTest, LoadsManyRecordsAcrossReadBatches) {
  // More records than one read takes, with day changes on the batch edges.
  constexpr uint32_t kDays = 10;
  constexpr uint32_t kBlocksPerDay = 1000;
  std::string bytes = HeaderBytes(kDays * kBlocksPerDay, 1);
  for (uint16_t day = 0; day < kDays; ++day) {
    for (uint32_t b = 0; b < kBlocksPerDay; ++b) bytes += RecordBytes(b, day, 2, Pack(1, b, b));
  }
  Index index;
  ASSERT_TRUE(LoadBytes(index, bytes));
  EXPECT_EQ(index.tree().GetCount(), kDays);
  EXPECT_EQ(index.get_size(), kDays * kBlocksPerDay);
  EXPECT_EQ(*index.tree().SearchUnsafe(9)->GetBlock(999), Block(999, 1, 999, 999, 2));
  // And it saves back to the same bytes.
  Keel::Utils::String path(dir_.File("again.db"));
  ASSERT_TRUE(index.save_to(1, path));
  EXPECT_EQ(ReadWholeFile(path.str()), bytes);
}

// ---- Queries ----------------------------------------------------------------

TEST_F(IndexTest, SizeCountAndClear) {
  Index unloaded;
  tarn::test::LogCapture log;
  EXPECT_EQ(unloaded.get_size(), Index::kInvalidSize);
  EXPECT_GE(log.Count(Keel::Log::Error), 1u);

  FillSample(index_);
  index_.set_last_event_timestamp(55);
  EXPECT_EQ(index_.get_size(), 36u);
  EXPECT_EQ(index_.get_count(), 0u);
  EXPECT_EQ(index_.tree().GetCount(), 2u);

  index_.clear();
  EXPECT_EQ(index_.tree().GetCount(), 0u);
  EXPECT_EQ(index_.tree().GetRoot(), Keel::Collections::kNoNode);
  EXPECT_EQ(index_.last_event_timestamp(), 0u);
  EXPECT_EQ(index_.get_size(), 0u);
  // A cleared index takes new days and saves as an empty file.
  AddDay(index_, 2, {Block(0, 4, 0, 1, 2)});
  EXPECT_EQ(index_.get_size(), 4u);
  index_.clear();
  ASSERT_TRUE(index_.save(0));
  EXPECT_EQ(ReadWholeFile(IndexPath()), HeaderBytes(0, 0));
}

TEST_F(IndexTest, DumpListsBlocksAndVersionsPerDay) {
  FillSample(index_);
  Keel::Utils::TreeContainer document;
  ASSERT_TRUE(index_.Dump(document));

  Keel::Utils::TreeContainer parsed;
  ASSERT_TRUE(parsed.Parse(document.Dump()));
  auto root = parsed.Root();
  ASSERT_EQ(root.Size(), 2u);
  std::string_view key;
  ASSERT_TRUE(root.KeyAt(0, key));
  EXPECT_EQ(key, "3");

  auto day7 = root.Child("7");
  ASSERT_EQ(day7.Child("blocks").Size(), 2u);
  auto block = day7.Child("blocks").At(1).Child("values");
  uint64_t value = 0;
  const std::pair<const char*, uint64_t> fields[] = {{"block_offset", 4096},
                                                     {"events_count", 25},
                                                     {"start_seconds", 200},
                                                     {"end_seconds", 86399},
                                                     {"version", 0}};
  for (const auto& [name, expected] : fields) {
    ASSERT_TRUE(block.Child(name).GetUInt64(value)) << name;
    EXPECT_EQ(value, expected) << name;
  }
  auto versions = day7.Child("versions");
  ASSERT_EQ(versions.Size(), 2u);
  ASSERT_TRUE(versions.At(1).Child("values").Child("version").GetUInt64(value));
  EXPECT_EQ(value, 2u);
  ASSERT_TRUE(versions.At(1).Child("values").Child("on_disk_size").GetUInt64(value));
  EXPECT_EQ(value, 1000u);

  // An empty index dumps an empty object, replacing what was there.
  index_.clear();
  ASSERT_TRUE(index_.Dump(document));
  EXPECT_EQ(document.Dump(), "{}");
}

// ---- Durability -------------------------------------------------------------

TEST_F(IndexTest, AFailedSaveKeepsThePreviousFile) {
  FillSample(index_);
  ASSERT_TRUE(index_.save(100));
  const std::string previous = ReadWholeFile(IndexPath());
  AddDay(index_, 9, {Block(1, 2, 3, 4, 2)});

  struct Case {
    Faults::Operation operation;
    Faults::Kind kind;
  };
  const Case cases[] = {
      {Faults::Open, Faults::Eio},   {Faults::Write, Faults::Eio},
      {Faults::Write, Faults::ShortWrite}, {Faults::Flush, Faults::Eio},
      {Faults::Move, Faults::Eio},   {Faults::Move, Faults::Enospc},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.operation << "/" << c.kind);
    Faults::Rule rule;
    rule.path_contains = Index::FILENAME;
    rule.operations = c.operation;
    rule.kind = c.kind;
    int id = Faults::AddRule(rule);
    tarn::test::LogCapture log;
    EXPECT_FALSE(index_.save(200));
    EXPECT_EQ(Faults::FailCount(id), 1u);
    EXPECT_GE(log.CountFrom(Keel::Log::StorageIndex, Keel::Log::Error), 1u);
    Faults::RemoveRule(id);
    EXPECT_EQ(ReadWholeFile(IndexPath()), previous);
    ExpectSampleOnDisk(100);
  }
  // The next save goes through over whatever temporary file was left.
  ASSERT_TRUE(index_.save(300));
  Index loaded;
  loaded.set_directory(dir_.path());
  ASSERT_TRUE(loaded.load(settings_));
  EXPECT_EQ(loaded.tree().GetCount(), 3u);
  EXPECT_EQ(loaded.last_event_timestamp(), 300u);
}

TEST_F(IndexTest, SaveNeverDeletesTheLiveFile) {
  // The rename replaces it; deleting first would open a window with no index.
  FillSample(index_);
  ASSERT_TRUE(index_.save(1));
  Faults::Rule rule;
  rule.path_contains = Index::FILENAME;
  rule.operations = Faults::Delete;
  rule.times = Faults::Rule::kForever;
  int id = Faults::AddRule(rule);
  EXPECT_TRUE(index_.save(2));
  EXPECT_EQ(Faults::MatchCount(id), 0u);
  ExpectSampleOnDisk(2);
}

TEST_F(IndexTest, APowerCutKeepsTheLastSaveThatReturned) {
  ASSERT_TRUE(index_.save(1));
  Faults::EnableCrashTracking(true);
  FillSample(index_);
  ASSERT_TRUE(index_.save(100));
  EXPECT_EQ(Faults::PendingFiles(), 0u);
  Faults::SimulatePowerCut();
  ExpectSampleOnDisk(100);
  const std::string previous = ReadWholeFile(IndexPath());

  // The next image is written to the temporary file but never reaches the disk.
  AddDay(index_, 9, {Block(1, 2, 3, 4, 2)});
  Faults::Rule rule;
  rule.path_contains = Index::FILENAME;
  rule.operations = Faults::Flush;
  Faults::AddRule(rule);
  EXPECT_FALSE(index_.save(200));
  EXPECT_EQ(Faults::PendingFiles(), 1u);
  Faults::SimulatePowerCut();

  EXPECT_EQ(ReadWholeFile(IndexPath()), previous);
  EXPECT_FALSE(Keel::OS::FileSystem::Exists(index_.temp_path()));
  ExpectSampleOnDisk(100);
}

}  // namespace
}  // namespace Tarn::Storage
