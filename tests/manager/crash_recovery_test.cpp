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

TEST_F(CrashRecoveryTest, IndexedBlockPastTheEndOfItsFileIsDroppedWithLaterOnes) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 3));
  const uint64_t first_end = SizeOf(DayFile(9000));
  ASSERT_TRUE(Write(9000, 3));
  ASSERT_TRUE(Write(9000, 3));
  manager_.reset();
  // The file lost its last two blocks; the index still names them.
  std::string bytes = ReadWholeFile(DayFile(9000));
  WriteWholeFile(DayFile(9000), bytes.substr(0, first_end + 30));

  ASSERT_TRUE(Open());
  EXPECT_EQ(Indexed().size(), 3u);
  EXPECT_EQ(SizeOf(DayFile(9000)), first_end);
}

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

TEST_F(CrashRecoveryTest, DayFileWithAForeignHeaderIsNotTrusted) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();
  std::string bytes = ReadWholeFile(DayFile(9000));
  bytes[8] = 1;  // header version 1
  WriteWholeFile(DayFile(9000), bytes);

  ASSERT_TRUE(Open());
  EXPECT_TRUE(Indexed().empty());
  ASSERT_TRUE(Write(9000, 1));  // the day starts a fresh file
  std::vector<StoredEvent> events = Indexed();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tarn::test::TagOf(events[0].record), 2u);
}

TEST_F(CrashRecoveryTest, AnIoErrorOnADayFileFailsTheBlockAndKeepsTheDay) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 3));
  manager_.reset();
  ASSERT_TRUE(Open());
  for (uint32_t operation : {Faults::Open, Faults::Stat, Faults::Read}) {
    int id = Faults::AddRule({"storage.09000", operation, 1, Faults::Eio, 1});
    EXPECT_FALSE(Write(9000, 1)) << operation;  // the lost block is reported
    Faults::RemoveRule(id);
  }
  ASSERT_TRUE(Write(9000, 1));
  EXPECT_EQ(IndexedDays()[9000], 4u);
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

TEST_F(CrashRecoveryTest, AFailedStepFailsCreation) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  manager_.reset();
  settings_.reset_mode = 1;
  int id = Fail(DayFile(9000), Faults::Delete);  // a wipe that cannot finish
  EXPECT_FALSE(Open());
  Faults::RemoveRule(id);
  settings_.reset_mode = 0;
  Fail(dir_.path(), Faults::List);  // a store that cannot see its files
  EXPECT_FALSE(Open());
  Faults::ClearRules();
  ASSERT_TRUE(Open());
}

TEST_F(CrashRecoveryTest, TheShutdownBlockIsStoredOnceWhateverStopsItsTakeBack) {
  ASSERT_TRUE(Open());
  clock_.SetDay(9000, 10);
  for (uint32_t i = 0; i < 4; ++i) {
    std::vector<uint8_t> record = tarn::test::MakeEvent(i, 300);
    Events::Objects::Base event(record.data(), record.size());
    ASSERT_TRUE(manager_->AddEvent(event));
  }
  ASSERT_TRUE(manager_->Stop());
  manager_.reset();
  // Stored and indexed, but the shutdown file stays: as if the process died
  // before deleting it.
  int id = Fail("storage.final.db", Faults::Delete);
  ASSERT_TRUE(Open());
  manager_.reset();
  Faults::RemoveRule(id);
  ASSERT_TRUE(FS::Exists(dir_.File(Utils::kFinalFileName)));
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays()[9000], 4u);
  EXPECT_FALSE(FS::Exists(dir_.File(Utils::kFinalFileName)));

  // One that cannot be read yet fails the start and stays for the next.
  manager_->Stop();
  manager_.reset();
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 1));
  clock_.SetDay(9000, 200);
  std::vector<uint8_t> record = tarn::test::MakeEvent(77, 300);
  Events::Objects::Base event(record.data(), record.size());
  ASSERT_TRUE(manager_->AddEvent(event));
  ASSERT_TRUE(manager_->Stop());
  manager_.reset();
  id = Fail("storage.final.db", Faults::Read);
  EXPECT_FALSE(Open());
  manager_.reset();
  Faults::RemoveRule(id);
  ASSERT_TRUE(Open());
  EXPECT_EQ(IndexedDays()[9000], 6u);
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
  EXPECT_NE(index_.tree().SearchUnsafe(8), nullptr);
}

}  // namespace
}  // namespace Tarn::Storage
