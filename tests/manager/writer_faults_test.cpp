// Faults that once lost or hid accepted events: each case is a path the
// sweeps reach only by chance, pinned down.

#include <gtest/gtest.h>

#include <map>
#include <memory>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/FileSystem.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/StorageQuery.h"
#include "manager/StorageHelper.h"
#include "manager/StorageManager.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

namespace Faults = Keel::OS::Faults;
namespace FS = Keel::OS::FileSystem;
using tarn::test::StoredEvent;

class WriterFaultsTest : public ::testing::Test {
 protected:
  WriterFaultsTest() {
    settings_ = Settings::default_();
    settings_.block_buffer_size = 102'400;
    settings_.max_storage_size = 52'428'800;
    settings_.max_days = 2;
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
  // Events per day that the index on disk names.
  std::map<uint16_t, uint32_t> Indexed() {
    std::vector<StoredEvent> events;
    EXPECT_TRUE(tarn::test::ReadIndexedEvents(dir_.path(), events));
    std::map<uint16_t, uint32_t> days;
    for (const StoredEvent& e : events) ++days[e.day];
    return days;
  }
  std::string DayFile(uint16_t day) { return dir_.File(Utils::DayFileName(day, 2)); }
  int Fail(const std::string& path, uint32_t operations) {
    return Faults::AddRule({path, operations, 1, Faults::Eio, Faults::Rule::kForever});
  }

  tarn::test::TempDir dir_;
  tarn::test::FakeClock clock_;
  Settings settings_;
  std::unique_ptr<StorageManager> manager_;
  uint32_t next_tag_ = 0;
};

TEST_F(WriterFaultsTest, AnIoErrorOnADayFileFailsTheBlockAndKeepsTheDay) {
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
  EXPECT_EQ(Indexed()[9000], 4u);
}

TEST_F(WriterFaultsTest, ADayFileThatWillNotGoDoesNotStopLaterDays) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  ASSERT_TRUE(Write(9001, 2));
  uint64_t stuck = 0;
  ASSERT_TRUE(FS::GetFileSize(DayFile(9000), stuck));
  Fail(DayFile(9000), Faults::Delete);
  ASSERT_TRUE(Write(9002, 2));
  ASSERT_TRUE(Write(9003, 2));
  EXPECT_EQ(Indexed(), (std::map<uint16_t, uint32_t>{{9002, 2}, {9003, 2}}));
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

TEST_F(WriterFaultsTest, ANewDaysBlocksComeBackWhenTheIndexSaveAfterThemWasLost) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Write(9000, 2));
  // The index file cannot be written again: as if the process died after
  // every block write.
  Fail("storage.index.db", Faults::Write | Faults::Open);
  ASSERT_TRUE(Write(9001, 3));
  manager_.reset();
  Faults::ClearRules();
  ASSERT_TRUE(Open());
  EXPECT_EQ(Indexed(), (std::map<uint16_t, uint32_t>{{9000, 2}, {9001, 3}}));
  ASSERT_TRUE(Write(9001, 1));  // and later blocks of the day follow them
  EXPECT_EQ(Indexed()[9001], 4u);
}

TEST_F(WriterFaultsTest, LooseFilesDoNotLetTheIndexPassItsDayLimit) {
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
  EXPECT_EQ(Indexed(), (std::map<uint16_t, uint32_t>{{9001, 2}, {9002, 2}}));
  // Loose files older than the kept days went with the evicted day.
  EXPECT_FALSE(FS::Exists(DayFile(8990)));
}

TEST_F(WriterFaultsTest, AFailedStepFailsCreation) {
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

TEST_F(WriterFaultsTest, TheShutdownBlockIsStoredOnceWhateverStopsItsTakeBack) {
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
  EXPECT_EQ(Indexed()[9000], 4u);
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
  EXPECT_EQ(Indexed()[9000], 6u);
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

}  // namespace
}  // namespace Tarn::Storage
