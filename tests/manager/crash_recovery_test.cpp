// What a start finds after a crash, a fault, a lost index or outside damage,
// and how the store keeps its disk budget through all of them. The fault and
// power-cut sweeps reach these paths by chance; here each is pinned down.

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/FileSystem.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/StorageQuery.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "manager/writer/StoreCatalog.h"
#include "support/log_capture.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

using tarn::test::ReadWholeFile;
using tarn::test::StoredEvent;
using tarn::test::WriteWholeFile;
namespace Faults = Keel::OS::Faults;
namespace FS = Keel::OS::FileSystem;

class CrashRecoveryTest : public ::testing::Test {
 protected:
  CrashRecoveryTest() {
    settings_ = Settings::default_();
    settings_.block_buffer_size = 102'400;
    settings_.max_storage_size = 52'428'800;
    settings_.max_days = 10;
  }
  void TearDown() override { Faults::ClearRules(); }

  bool Open() {
    manager_ = std::make_unique<StorageManager>();
    return manager_->Create(settings_, &clock_, 0, dir_.path().c_str());
  }
  // `count` events on `day`, then a Flush; its answer.
  bool Write(uint16_t day, uint32_t count) {
    clock_.SetDay(day, 100);
    for (uint32_t i = 0; i < count; ++i) {
      std::vector<uint8_t> record = tarn::test::MakeEvent(next_tag_++, 300);
      Events::Objects::Base event(record.data(), record.size());
      if (!manager_->AddEvent(event)) return false;
    }
    return manager_->Flush();
  }
  std::vector<StoredEvent> Indexed() {
    std::vector<StoredEvent> events;
    EXPECT_TRUE(tarn::test::ReadIndexedEvents(dir_.path(), events));
    return events;
  }
  // Events per day that the index on disk names.
  std::map<uint16_t, uint32_t> IndexedDays() {
    std::map<uint16_t, uint32_t> days;
    for (const StoredEvent& e : Indexed()) ++days[e.day];
    return days;
  }
  std::string DayFile(uint16_t day) { return dir_.File(Utils::DayFileName(day, 2)); }
  uint64_t SizeOf(const std::string& path) {
    uint64_t size = 0;
    EXPECT_TRUE(FS::GetFileSize(path, size));
    return size;
  }
  int Fail(const std::string& path, uint32_t operations) {
    return Faults::AddRule({path, operations, 1, Faults::Eio, Faults::Rule::kForever});
  }

  tarn::test::TempDir dir_;
  tarn::test::FakeClock clock_{tarn::test::EpochOf(9000, 500)};
  Settings settings_;
  std::unique_ptr<StorageManager> manager_;
  uint32_t next_tag_ = 0;
};

TEST_F(CrashRecoveryTest, LostIndexKeepsTheDataAndItsBytesCountTowardTheBudget) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 5));
  manager_.reset();
  const uint64_t old_size = SizeOf(DayFile(9000));
  ASSERT_TRUE(FS::DeleteFile(dir_.File(Index::FILENAME)));

  clock_.SetDay(9001, 10);
  ASSERT_TRUE(Open());
  EXPECT_TRUE(FS::Exists(DayFile(9000)));
  EXPECT_EQ(manager_->TotalOnDiskSize(), old_size);
  ASSERT_TRUE(Write(9001, 2));
  EXPECT_EQ(manager_->TotalOnDiskSize(), old_size + SizeOf(DayFile(9001)));
  manager_.reset();

  // An old unindexed file that alone breaks the budget goes first, before
  // any indexed day; the younger unindexed one stays.
  Keel::OS::File file;
  ASSERT_TRUE(CreateDayFile(DayFile(8990), file));
  ASSERT_TRUE(file.Truncate(settings_.max_storage_size));
  file.Close();
  ASSERT_TRUE(Open());
  EXPECT_FALSE(FS::Exists(DayFile(8990)));
  EXPECT_TRUE(FS::Exists(DayFile(9000)));
  EXPECT_EQ(Indexed().size(), 2u);
  EXPECT_LE(manager_->TotalOnDiskSize(), settings_.max_storage_size);
}

TEST_F(CrashRecoveryTest, ADamagedDayFileHeaderIsRepairedButForeignBytesAreNotTrusted) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();
  std::string bytes = ReadWholeFile(DayFile(9000));
  bytes[8] = 1;  // header version 1
  WriteWholeFile(DayFile(9000), bytes);
  // Its blocks are whole: a fresh header makes them readable again.
  ASSERT_TRUE(Open());
  EXPECT_EQ(Indexed().size(), 2u);
  manager_.reset();

  // Bytes of no block under the day's name: nothing of them is read, and
  // the day goes on in a fresh file.
  WriteWholeFile(DayFile(9000), std::string(4096, 'x'));
  ASSERT_TRUE(Open());
  EXPECT_EQ(ReadWholeFile(DayFile(9000)), std::string(4096, 'x'));
  ASSERT_TRUE(Write(9000, 1));
  std::vector<StoredEvent> events = Indexed();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tarn::test::TagOf(events[0].record), 2u);
}

TEST_F(CrashRecoveryTest, ADayFileThatKeepsFailingGoesAsideAndTheDayGoesOn) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 3));
  // One failure passes: the block is stored and nothing moves.
  for (uint32_t operation : {Faults::Open, Faults::Stat, Faults::Read}) {
    int id = Faults::AddRule({"storage.09000", operation, 1, Faults::Eio, 1});
    EXPECT_TRUE(Write(9000, 1)) << operation;
    Faults::RemoveRule(id);
  }
  EXPECT_EQ(IndexedDays()[9000], 6u);
  // One that stays (a file another program locks): the file goes aside with
  // its blocks, for the recover tool, and the day goes on in a new file.
  int id = Faults::AddRule({DayFile(9000), Faults::Open, 1, Faults::Eio, Faults::Rule::kForever,
                            /*follows_file=*/true});
  ASSERT_TRUE(Write(9000, 2));
  Faults::RemoveRule(id);
  EXPECT_EQ(IndexedDays()[9000], 2u);
  const std::string aside = DayFile(9000) + Utils::kAsideSuffix;
  ASSERT_TRUE(FS::Exists(aside));
  EXPECT_EQ(manager_->TotalOnDiskSize(), SizeOf(DayFile(9000)) + SizeOf(aside));
  manager_.reset();
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays()[9000], 2u);
  EXPECT_EQ(manager_->TotalOnDiskSize(), SizeOf(DayFile(9000)) + SizeOf(aside));
}

TEST_F(CrashRecoveryTest, ADayFileThatWillNotGoDoesNotStopLaterDays) {
  settings_.max_days = 2;
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  ASSERT_TRUE(Write(9001, 2));
  uint64_t stuck = 0;
  ASSERT_TRUE(FS::GetFileSize(DayFile(9000), stuck));
  Fail(DayFile(9000), Faults::Delete);
  ASSERT_TRUE(Write(9002, 2));
  ASSERT_TRUE(Write(9003, 2));
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9002, 2}, {9003, 2}}));
  // Its bytes still count, and the next start still sees it.
  EXPECT_TRUE(FS::Exists(DayFile(9000)));
  uint64_t kept = 0;
  for (uint16_t day : {9002, 9003}) {
    uint64_t size = 0;
    ASSERT_TRUE(FS::GetFileSize(DayFile(day), size));
    kept += size;
  }
  EXPECT_EQ(manager_->TotalOnDiskSize(), kept + stuck);
  Faults::ClearRules();
  ASSERT_TRUE(Write(9004, 1));  // the next eviction retries the delete
  EXPECT_FALSE(FS::Exists(DayFile(9000)));
}

TEST_F(CrashRecoveryTest, ANewDaysBlocksComeBackWhenTheIndexSaveAfterThemWasLost) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  // The index file cannot be written again: as if the process died after
  // every block write.
  Fail("storage.index.db", Faults::Write | Faults::Open);
  ASSERT_TRUE(Write(9001, 3));
  manager_.reset();
  Faults::ClearRules();
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9000, 2}, {9001, 3}}));
  ASSERT_TRUE(Write(9001, 1));  // and later blocks of the day follow them
  EXPECT_EQ(IndexedDays()[9001], 4u);
}

TEST_F(CrashRecoveryTest, LooseFilesDoNotLetTheIndexPassItsDayLimit) {
  settings_.max_days = 2;
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();
  // Day files of older days that no index entry names.
  for (uint16_t day : {8990, 8991, 8992}) {
    tarn::test::WriteWholeFile(DayFile(day), tarn::test::ReadWholeFile(DayFile(9000)));
  }
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9001, 2));
  ASSERT_TRUE(Write(9002, 2));
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9001, 2}, {9002, 2}}));
  // Loose files older than the kept days went with the evicted day.
  EXPECT_FALSE(FS::Exists(DayFile(8990)));
}

TEST_F(CrashRecoveryTest, NoStoreFileThatFailsStopsTheStart) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  ASSERT_TRUE(Write(9001, 2));
  manager_.reset();
  // A store that cannot list its directory reaches the files its index names.
  int id = Fail(dir_.path(), Faults::List);
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9000, 2}, {9001, 2}}));
  ASSERT_TRUE(Write(9001, 1));
  manager_.reset();
  Faults::RemoveRule(id);
  // One whose size cannot be read goes aside, still counted.
  id = Faults::AddRule({DayFile(9000), Faults::Stat, 1, Faults::Eio, Faults::Rule::kForever,
                        /*follows_file=*/true});
  ASSERT_TRUE(Open());
  Faults::RemoveRule(id);
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9001, 3}}));
  ASSERT_TRUE(Write(9001, 1));  // sized once it can be
  EXPECT_TRUE(FS::Exists(DayFile(9000) + Utils::kAsideSuffix));
  EXPECT_EQ(manager_->TotalOnDiskSize(),
            SizeOf(DayFile(9001)) + SizeOf(DayFile(9000) + Utils::kAsideSuffix));
  manager_.reset();
  // A wipe that cannot delete a file goes on; the file goes aside, and
  // goes first when room is needed.
  settings_.reset_mode = 1;
  id = Fail(DayFile(9001), Faults::Delete);
  ASSERT_TRUE(Open());
  Faults::RemoveRule(id);
  EXPECT_TRUE(Indexed().empty());
  EXPECT_FALSE(FS::Exists(DayFile(9001)));
  EXPECT_EQ(manager_->TotalOnDiskSize(), SizeOf(DayFile(9001) + Utils::kAsideSuffix));
}

TEST_F(CrashRecoveryTest, TheShutdownBlockIsStoredOnceWhateverStopsItsTakeBack) {
  auto stop_with = [this](uint32_t count, uint32_t second) {
    clock_.SetDay(9000, second);
    for (uint32_t i = 0; i < count; ++i) {
      std::vector<uint8_t> record = tarn::test::MakeEvent(next_tag_++, 300);
      Events::Objects::Base event(record.data(), record.size());
      ASSERT_TRUE(manager_->AddEvent(event));
    }
    ASSERT_TRUE(manager_->Stop());
    manager_.reset();
  };
  ASSERT_TRUE(Open());
  stop_with(4, 10);
  // Stored and indexed, but the shutdown file can be neither deleted nor
  // cleared; more blocks of its day follow, and the process dies before it
  // writes a shutdown file again.
  int id = Fail("storage.final.db", Faults::Delete | Faults::Write);
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();  // the open block is empty: no shutdown file is written
  Faults::RemoveRule(id);
  ASSERT_TRUE(FS::Exists(dir_.File(Utils::kFinalFileName)));
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays()[9000], 6u);  // its 4 events once, not after the later 2 again
  EXPECT_FALSE(FS::Exists(dir_.File(Utils::kFinalFileName)));

  // One read failure passes; one that stays sends the file aside and the
  // store starts all the same.
  stop_with(1, 200);
  id = Faults::AddRule({"storage.final.db", Faults::Read, 1, Faults::Eio, 1});
  ASSERT_TRUE(Open());
  Faults::RemoveRule(id);
  EXPECT_EQ(IndexedDays()[9000], 7u);
  stop_with(1, 300);
  id = Fail("storage.final.db", Faults::Read);
  ASSERT_TRUE(Open());
  Faults::RemoveRule(id);
  EXPECT_EQ(IndexedDays()[9000], 7u);
  EXPECT_TRUE(FS::Exists(dir_.File(std::string(Utils::kFinalFileName) + Utils::kAsideSuffix)));
  ASSERT_TRUE(Write(9000, 1));
  EXPECT_EQ(IndexedDays()[9000], 8u);
}

TEST_F(CrashRecoveryTest, AnIndexThatCannotBeReadIsSetAsideAndItsDaysComeBack) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 3));
  ASSERT_TRUE(Write(9001, 3));
  manager_.reset();
  // Every read of the index fails for one start: it is not saved over.
  int id = Fail(Index::FILENAME, Faults::Read);
  clock_.SetDay(9002, 10);
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9002, 2));
  manager_.reset();
  Faults::RemoveRule(id);
  EXPECT_TRUE(FS::Exists(dir_.File(std::string(Index::FILENAME) + Utils::kAsideSuffix)));
  // The first start that reads it takes its days back.
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays(), (std::map<uint16_t, uint32_t>{{9000, 3}, {9001, 3}, {9002, 2}}));
  EXPECT_FALSE(FS::Exists(dir_.File(std::string(Index::FILENAME) + Utils::kAsideSuffix)));
}

TEST_F(CrashRecoveryTest, AFailedFirstBlockOfADayLeavesNoEmptyDay) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  // The day's file gets its header; its first block fails.
  int id = Faults::AddRule({DayFile(9001), Faults::Write, 2, Faults::Eio, Faults::Rule::kForever});
  EXPECT_FALSE(Write(9001, 2));
  Faults::RemoveRule(id);
  ASSERT_TRUE(Write(9002, 2));
  EventStorageProvider reader(*manager_, manager_->telemetry());
  ASSERT_TRUE(reader.Create());
  uint32_t walked = 0;
  for (uint64_t p = reader.GetFirstIterVal(); p != RawIterator::Invalid; reader.Increment(p)) {
    ++walked;
  }
  EXPECT_EQ(walked, 4u);
  // Its header still counts, as a loose file, until the day's next block.
  EXPECT_EQ(manager_->TotalOnDiskSize(),
            SizeOf(DayFile(9000)) + SizeOf(DayFile(9001)) + SizeOf(DayFile(9002)));
}

TEST_F(CrashRecoveryTest, BlocksPutBackAtStartAreDurableBeforeTheIndexNamesThem) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();
  // A process wrote a whole block and died before flushing it or saving the
  // index: its bytes are in the page cache only.
  Faults::EnableCrashTracking(true);
  Keel::Collections::Buffer raw, payload;
  Keel::Collections::Array<BlockEntry> entries;
  ASSERT_TRUE(raw.Create(4096) && entries.Create(4) && payload.Create(8192));
  std::vector<uint8_t> record = tarn::test::MakeEvent(50, 300);
  entries.Add(BlockEntry{0, 200});
  raw.Push(record.data(), record.size());
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(raw, entries, payload, encoded));
  Keel::OS::File file;
  const uint64_t end = SizeOf(DayFile(9000));
  ASSERT_TRUE(file.Open(DayFile(9000), Keel::OS::File::Mode::ReadWrite));
  uint8_t header[kBlockHeaderSize];
  for (int i = 0; i < 4; ++i) {
    header[i] = static_cast<uint8_t>(encoded.header.stored_size >> (8 * i));
    header[4 + i] = static_cast<uint8_t>(encoded.header.raw_size >> (8 * i));
    header[8 + i] = static_cast<uint8_t>(encoded.header.table_offset >> (8 * i));
  }
  ASSERT_TRUE(file.WriteAt(end, header, sizeof(header)) &&
              file.WriteAt(end + kBlockHeaderSize, payload.Data(), payload.Size()));
  file.Close();
  // The next start puts it back; then the power goes.
  ASSERT_TRUE(Open());
  manager_.reset();
  Faults::SimulatePowerCut();
  Faults::EnableCrashTracking(false);
  EXPECT_EQ(IndexedDays()[9000], 3u);
}

TEST_F(CrashRecoveryTest, ANewBlockSizeHoldsFromTheNextEvent) {
  settings_.block_buffer_size = 1'048'576;
  ASSERT_TRUE(Open());
  Settings smaller = settings_;
  smaller.block_buffer_size = 102'400;
  ASSERT_TRUE(manager_->UpdateSettings(smaller));
  clock_.SetDay(9000, 100);
  for (uint32_t i = 0; i < 100; ++i) {
    std::vector<uint8_t> record = tarn::test::MakeEvent(next_tag_++, 2'000);
    Events::Objects::Base event(record.data(), record.size());
    ASSERT_TRUE(manager_->AddEvent(event));
  }
  ASSERT_TRUE(manager_->Flush());
  uint32_t blocks = 0;
  ASSERT_TRUE(manager_->ProcessIndex(
      [](Index& index, void* context) {
        DayInfo* day = index.tree().SearchUnsafe(9000);
        *static_cast<uint32_t*>(context) = day != nullptr ? day->GetBlockCount() : 0;
        return true;
      },
      &blocks));
  EXPECT_EQ(blocks, 2u);  // 200 KB of events in blocks of 100 KiB
}

TEST(StorageQueryTest, OnlyTheRequestObjectItselfIsTakenForOne) {
  Events::Objects::StorageQuery request;
  EXPECT_EQ(Events::Objects::StorageQuery::From(request), &request);
  // A record that only carries the type, as a host might hand one over.
  Events::Objects::StorageQuery template_request;
  std::vector<uint8_t> copy(template_request.Data(),
                            template_request.Data() + template_request.Size());
  Events::Objects::Base record(copy.data(), copy.size());
  EXPECT_EQ(record.TypeId(), 186u);
  EXPECT_EQ(Events::Objects::StorageQuery::From(record), nullptr);
}

TEST_F(CrashRecoveryTest, EveryCutIsHandedOverEvenAnEmptyOne) {
  // Telemetry counts each hand-over by its reason: 1 at a day change, 2 at
  // a stop, whether or not the block holds events.
  tarn::test::LogCapture log;
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9001, 1));  // the day change hands over the empty block
  manager_.reset();
  ASSERT_TRUE(Open());  // nothing to take back
  ASSERT_TRUE(manager_->Stop());  // hands over the empty block
  std::map<uint64_t, int> reasons;
  for (const Keel::Log::Record& r : log.Records()) {
    if (r.component == Keel::Log::StorageTelemetry && r.message == 4) ++reasons[r.values[0]];
  }
  // Day change and Flush (reason 1); two stops (reason 2).
  EXPECT_EQ(reasons, (std::map<uint64_t, int>{{1, 2}, {2, 2}}));
  EXPECT_FALSE(FS::Exists(dir_.File(Utils::kFinalFileName)));
}

// Placement rules that need sizes no test should write for real.
class StoreCatalogTest : public ::testing::Test {
 protected:
  StoreCatalogTest() : catalog_(index_) {
    settings_ = Settings::default_();
    settings_.max_storage_size = 52'428'800;
    index_.set_directory(dir_.path());
    Keel::Utils::String missing(dir_.File("none"));
    index_.load_from(settings_, missing);
    catalog_.SetDirectory(dir_.path());
  }

  tarn::test::TempDir dir_;
  Settings settings_;
  Index index_;
  StoreCatalog catalog_;
};

TEST_F(StoreCatalogTest, BlockAsLargeAsTheWholeBudgetIsDropped) {
  Keel::OS::File file;
  uint64_t offset = 0;
  tarn::test::LogCapture log;
  EXPECT_EQ(catalog_.PlaceBlock(settings_, 10, settings_.max_storage_size, file, offset),
            StoreCatalog::Placement::kDrop);
  EXPECT_EQ(catalog_.PlaceBlock(settings_, 10, 0, file, offset), StoreCatalog::Placement::kDrop);
  EXPECT_EQ(index_.tree().GetCount(), 0u);
  EXPECT_EQ(catalog_.PlaceBlock(settings_, 10, settings_.max_storage_size - 1, file, offset),
            StoreCatalog::Placement::kCreated);
  EXPECT_EQ(offset, kDayFileHeaderSize);
}

TEST_F(StoreCatalogTest, TheDayBeingWrittenIsNeverEvictedEvenWhenItAloneBreaksTheBudget) {
  Keel::OS::File file;
  uint64_t offset = 0;
  ASSERT_EQ(catalog_.PlaceBlock(settings_, 9, 1000, file, offset),
            StoreCatalog::Placement::kCreated);
  ASSERT_TRUE(catalog_.RecordBlock(9, BlockInfo{20, 1, 0, 0, 2}, 1000));
  file.Close();
  ASSERT_EQ(catalog_.PlaceBlock(settings_, 10, 1000, file, offset),
            StoreCatalog::Placement::kCreated);
  // Day 10 grows past the budget (a sparse file, so the test stays cheap).
  ASSERT_TRUE(file.Truncate(kDayFileHeaderSize + settings_.max_storage_size));
  ASSERT_TRUE(catalog_.RecordBlock(10, BlockInfo{20, 1, 0, 0, 2}, settings_.max_storage_size));
  file.Close();

  EXPECT_NE(catalog_.PlaceBlock(settings_, 10, 5000, file, offset),
            StoreCatalog::Placement::kDrop);
  EXPECT_EQ(index_.tree().SearchUnsafe(9), nullptr);  // the older day went
  EXPECT_NE(index_.tree().SearchUnsafe(10), nullptr);
  EXPECT_FALSE(catalog_.EvictOldest(10));

  // The clock went back to before every stored day: the day being written
  // is now the oldest, and the next one makes room in its place.
  file.Close();
  EXPECT_EQ(catalog_.PlaceBlock(settings_, 8, 5000, file, offset),
            StoreCatalog::Placement::kCreated);
  EXPECT_EQ(index_.tree().SearchUnsafe(10), nullptr);
  EXPECT_EQ(index_.tree().SearchUnsafe(8), nullptr);  // a day enters with its first block
  ASSERT_TRUE(catalog_.RecordBlock(8, BlockInfo{20, 1, 0, 0, 2}, 5000));
  EXPECT_NE(index_.tree().SearchUnsafe(8), nullptr);
}

}  // namespace
}  // namespace Tarn::Storage
