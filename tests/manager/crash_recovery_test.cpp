// What a start finds after a crash, a lost index or a torn shutdown, and how
// the store keeps its disk budget through all of them.

#include <gtest/gtest.h>

#include <memory>

#include "Keel/OS/FileSystem.h"
#include "Tarn/Events/Base.h"
#include "manager/DayFile.h"
#include "manager/Index.h"
#include "manager/StorageHelper.h"
#include "manager/StorageManager.h"
#include "manager/StoreCatalog.h"
#include "support/log_capture.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

using tarn::test::ReadWholeFile;
using tarn::test::StoredEvent;
using tarn::test::WriteWholeFile;
namespace FS = Keel::OS::FileSystem;

class CrashRecoveryTest : public ::testing::Test {
 protected:
  CrashRecoveryTest() {
    settings_ = Settings::default_();
    settings_.block_buffer_size = 102'400;
    settings_.max_storage_size = 52'428'800;
  }

  bool Open() {
    manager_ = std::make_unique<StorageManager>();
    return manager_->Create(settings_, &clock_, 0, dir_.path().c_str());
  }
  void WriteBlock(uint32_t first_tag, uint32_t count) {
    for (uint32_t i = 0; i < count; ++i) {
      std::vector<uint8_t> record = tarn::test::MakeEvent(first_tag + i, 300);
      Events::Objects::Base event(record.data(), record.size());
      ASSERT_TRUE(manager_->AddEvent(event));
    }
    ASSERT_TRUE(manager_->Flush());
  }
  std::vector<StoredEvent> Indexed() {
    std::vector<StoredEvent> events;
    EXPECT_TRUE(tarn::test::ReadIndexedEvents(dir_.path(), events));
    return events;
  }
  std::string DayFile(uint16_t day) { return dir_.File(Utils::DayFileName(day, 2)); }
  uint64_t SizeOf(const std::string& path) {
    uint64_t size = 0;
    EXPECT_TRUE(FS::GetFileSize(path, size));
    return size;
  }

  tarn::test::TempDir dir_;
  tarn::test::FakeClock clock_{tarn::test::EpochOf(9000, 500)};
  Settings settings_;
  std::unique_ptr<StorageManager> manager_;
};

TEST_F(CrashRecoveryTest, TornTailIsCutAndTheNextBlockAppendsCleanly) {
  ASSERT_TRUE(Open());
  WriteBlock(0, 10);
  manager_.reset();
  const uint64_t good = SizeOf(DayFile(9000));
  // Half a block: a header that promises more payload than follows.
  WriteWholeFile(DayFile(9000), ReadWholeFile(DayFile(9000)) +
                                    std::string("\x40\x00\x00\x00\x10\x00\x00\x00", 8) +
                                    std::string(20, '\x5a'));

  ASSERT_TRUE(Open());
  EXPECT_EQ(SizeOf(DayFile(9000)), good);
  WriteBlock(10, 5);
  std::vector<StoredEvent> events = Indexed();
  ASSERT_EQ(events.size(), 15u);
  EXPECT_EQ(tarn::test::TagOf(events[14].record), 14u);
}

TEST_F(CrashRecoveryTest, BlockWrittenBeforeTheIndexSaveComesBack) {
  ASSERT_TRUE(Open());
  WriteBlock(0, 3);
  const std::string saved_index = ReadWholeFile(dir_.File(Index::FILENAME));
  WriteBlock(3, 4);
  manager_.reset();
  // The crash came after the second block was flushed, before its index save.
  WriteWholeFile(dir_.File(Index::FILENAME), saved_index);
  ASSERT_EQ(Indexed().size(), 3u);

  ASSERT_TRUE(Open());
  manager_->Flush();
  std::vector<StoredEvent> events = Indexed();
  ASSERT_EQ(events.size(), 7u);
  for (uint32_t i = 0; i < 7; ++i) EXPECT_EQ(tarn::test::TagOf(events[i].record), i);
  EXPECT_EQ(manager_->TotalOnDiskSize(), SizeOf(DayFile(9000)));
}

TEST_F(CrashRecoveryTest, IndexedBlockPastTheEndOfItsFileIsDroppedWithLaterOnes) {
  ASSERT_TRUE(Open());
  WriteBlock(0, 3);
  const uint64_t first_end = SizeOf(DayFile(9000));
  WriteBlock(3, 3);
  WriteBlock(6, 3);
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
  WriteBlock(0, 5);
  manager_.reset();
  const uint64_t old_size = SizeOf(DayFile(9000));
  ASSERT_TRUE(FS::DeleteFile(dir_.File(Index::FILENAME)));

  clock_.SetDay(9001, 10);
  ASSERT_TRUE(Open());
  EXPECT_TRUE(FS::Exists(DayFile(9000)));
  EXPECT_EQ(manager_->TotalOnDiskSize(), old_size);
  WriteBlock(100, 2);
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

TEST_F(CrashRecoveryTest, UnfinishedShutdownFileIsDroppedAndLogged) {
  ASSERT_TRUE(Open());
  WriteBlock(0, 2);
  std::vector<uint8_t> record = tarn::test::MakeEvent(50, 300);
  Events::Objects::Base event(record.data(), record.size());
  ASSERT_TRUE(manager_->AddEvent(event));
  ASSERT_TRUE(manager_->Stop());
  manager_.reset();
  std::string final_bytes = ReadWholeFile(dir_.File(Utils::kFinalFileName));
  ASSERT_GT(final_bytes.size(), 46u);
  final_bytes.replace(0, 4, std::string(4, '\0'));  // the magic never made it
  WriteWholeFile(dir_.File(Utils::kFinalFileName), final_bytes);

  tarn::test::LogCapture log;
  ASSERT_TRUE(Open());
  EXPECT_FALSE(FS::Exists(dir_.File(Utils::kFinalFileName)));
  EXPECT_GE(log.CountFrom(Keel::Log::StorageManager, Keel::Log::Error), 1u);
  manager_->Flush();
  EXPECT_EQ(Indexed().size(), 2u);
}

TEST_F(CrashRecoveryTest, DayFileWithAForeignHeaderIsNotTrusted) {
  ASSERT_TRUE(Open());
  WriteBlock(0, 2);
  manager_.reset();
  std::string bytes = ReadWholeFile(DayFile(9000));
  bytes[8] = 1;  // header version 1
  WriteWholeFile(DayFile(9000), bytes);

  ASSERT_TRUE(Open());
  EXPECT_TRUE(Indexed().empty());
  WriteBlock(10, 1);  // the day starts a fresh file
  std::vector<StoredEvent> events = Indexed();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(tarn::test::TagOf(events[0].record), 10u);
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

TEST_F(StoreCatalogTest, CurrentDayIsNeverEvictedEvenWhenItAloneBreaksTheBudget) {
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
}

}  // namespace
}  // namespace Tarn::Storage
