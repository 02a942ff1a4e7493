// The writer's own rules at their edges. Cutting by day, eviction by day
// count and size, the stop's block and its take-back, and the clock going
// back (across a restart: a wipe) are held against a model in
// osquery/store_model_test.cpp, failures and power cuts in
// fault_sweep_test.cpp; invalid settings, at creation and in updates, in
// module/module_host_test.cpp.

#include "manager/writer/StorageManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <set>
#include <thread>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/FileSystem.h"
#include "Tarn/Events/Base.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/StorageHelper.h"
#include "support/log_capture.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"
#include "support/xz_streams.h"

namespace Tarn::Storage {
namespace {

using tarn::test::FakeClock;
using tarn::test::MakeEvent;
using tarn::test::StoredEvent;

constexpr uint32_t kCapacity = 102'400;

Settings SmallStore() {
  Settings s = Settings::default_();
  s.block_buffer_size = kCapacity;
  s.max_storage_size = 52'428'800;
  s.max_days = 10;
  return s;
}

class StorageManagerTest : public ::testing::Test {
 protected:
  void TearDown() override { Keel::OS::Faults::ClearRules(); }

  bool Open() {
    manager_ = std::make_unique<StorageManager>();
    return manager_->Create(settings_, &clock_, 7, dir_.path().c_str());
  }
  bool Add(uint32_t tag, uint32_t size = 200) {
    std::vector<uint8_t> record = MakeEvent(tag, size);
    Events::Objects::Base event(record.data(), record.size());
    return manager_->AddEvent(event);
  }
  std::vector<StoredEvent> Indexed() {
    std::vector<StoredEvent> events;
    EXPECT_TRUE(tarn::test::ReadIndexedEvents(dir_.path(), events));
    return events;
  }
  // Event counts of the day's blocks, read through the reader's road.
  std::vector<uint32_t> BlockSizes(uint16_t day) {
    struct Query {
      uint16_t day;
      std::vector<uint32_t> sizes;
    } query{day, {}};
    manager_->ProcessIndex(
        [](Index& index, void* context) {
          auto* q = static_cast<Query*>(context);
          DayInfo* info = index.tree().SearchUnsafe(q->day);
          for (uint32_t i = 0; info != nullptr && i < info->GetBlockCount(); ++i) {
            q->sizes.push_back(info->GetBlock(i)->events_count);
          }
          return true;
        },
        &query);
    return query.sizes;
  }
  bool DayFileExists(uint16_t day) {
    return Keel::OS::FileSystem::Exists(dir_.File(Utils::DayFileName(day, 2)));
  }

  tarn::test::TempDir dir_;
  FakeClock clock_{tarn::test::EpochOf(9000, 100)};
  Settings settings_ = SmallStore();
  std::unique_ptr<StorageManager> manager_;
};

TEST_F(StorageManagerTest, BlockFilledExactlyToCapacityStaysWholeAndOneByteMoreCutsIt) {
  ASSERT_TRUE(Open());
  // 101 events of 1,000 bytes take 101,808 bytes with their entries; an
  // event of 584 bytes then fills the block to exactly 102,400.
  for (uint32_t i = 0; i < 101; ++i) ASSERT_TRUE(Add(i, 1000));
  ASSERT_TRUE(Add(101, 584));
  ASSERT_TRUE(Add(102, 300));  // cannot fit: cuts the full block first
  ASSERT_TRUE(manager_->Flush());
  EXPECT_EQ(BlockSizes(9000), (std::vector<uint32_t>{102, 1}));

  for (uint32_t i = 0; i < 101; ++i) ASSERT_TRUE(Add(200 + i, 1000));
  ASSERT_TRUE(Add(301, 585));  // one byte over: starts the next block
  ASSERT_TRUE(manager_->Flush());
  EXPECT_EQ(BlockSizes(9000), (std::vector<uint32_t>{102, 1, 101, 1}));
  EXPECT_EQ(Indexed().size(), 205u);
}

TEST_F(StorageManagerTest, RecordsWhoseHeaderLiesAreRefused) {
  ASSERT_TRUE(Open());
  std::vector<uint8_t> record = MakeEvent(1, 100);
  record[10] = 99;  // size field no longer matches the bytes
  Events::Objects::Base bad(record.data(), record.size());
  tarn::test::LogCapture log;
  EXPECT_FALSE(manager_->AddEvent(bad));
  Events::Objects::Base short_one(record.data(), 10);
  EXPECT_FALSE(manager_->AddEvent(short_one));
  EXPECT_EQ(log.CountFrom(Keel::Log::StorageManager, Keel::Log::Error), 2u);
}

TEST_F(StorageManagerTest, StopClosesTheIntake) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Add(1));
  ASSERT_TRUE(manager_->Stop());
  EXPECT_FALSE(Add(2));
  EXPECT_FALSE(manager_->Stop());
}

TEST_F(StorageManagerTest, ResetModeOneWipesAndOtherValuesKeep) {
  ASSERT_TRUE(Open());
  ASSERT_TRUE(Add(1));
  ASSERT_TRUE(manager_->Flush());
  manager_.reset();

  settings_.reset_mode = 2;
  ASSERT_TRUE(Open());
  EXPECT_EQ(Indexed().size(), 1u);
  manager_.reset();

  settings_.reset_mode = 1;
  ASSERT_TRUE(Open());
  EXPECT_FALSE(DayFileExists(9000));
  EXPECT_TRUE(Indexed().empty());
}

TEST_F(StorageManagerTest, OnlyOneManagerOwnsADirectory) {
  ASSERT_TRUE(Open());
  StorageManager second;
  tarn::test::LogCapture log;
  EXPECT_FALSE(second.Create(settings_, &clock_, 7, dir_.path().c_str()));
  EXPECT_GE(log.CountFrom(Keel::Log::StorageManager, Keel::Log::Error), 1u);
  manager_.reset();
  StorageManager third;
  EXPECT_TRUE(third.Create(settings_, &clock_, 7, dir_.path().c_str()));
}

TEST_F(StorageManagerTest, ConcurrentIntakeLosesNoEvent) {
  ASSERT_TRUE(Open());
  constexpr uint32_t kThreads = 4;
  constexpr uint32_t kPerThread = 2'500;
  std::vector<std::thread> threads;
  std::atomic<uint32_t> accepted{0};
  for (uint32_t t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (uint32_t i = 0; i < kPerThread; ++i) {
        uint32_t tag = t * kPerThread + i;
        std::vector<uint8_t> record = MakeEvent(tag, 150 + tag % 100);
        Events::Objects::Base event(record.data(), record.size());
        if (manager_->AddEvent(event)) ++accepted;
      }
    });
  }
  for (auto& thread : threads) thread.join();
  ASSERT_TRUE(manager_->Flush());
  ASSERT_TRUE(Add(kThreads * kPerThread));
  ++accepted;
  ASSERT_TRUE(manager_->Stop());

  std::vector<StoredEvent> events = Indexed();
  ASSERT_TRUE(tarn::test::ReadFinalEvents(dir_.path(), events));
  EXPECT_EQ(accepted.load(), kThreads * kPerThread + 1);
  std::set<uint32_t> tags;
  for (const StoredEvent& e : events) tags.insert(tarn::test::TagOf(e.record));
  EXPECT_EQ(events.size(), accepted.load());
  EXPECT_EQ(tags.size(), accepted.load());
  EXPECT_GT(BlockSizes(9000).size(), 5u);  // many hand-overs happened
}

}  // namespace
}  // namespace Tarn::Storage

namespace Tarn::Storage {
namespace {

// An event whose text compresses little, so that the writer takes a while
// over each block: random letters.
std::vector<uint8_t> PoorlyCompressible(uint32_t tag, uint32_t size, uint64_t& state) {
  std::string text(size, ' ');
  for (char& c : text) {
    state = state * 6364136223846793005ull + 1442695040888963407ull;
    c = static_cast<char>('a' + (state >> 59));
  }
  Events::DynamicEventBuilder builder;
  builder.Begin(5, 1, 0);
  builder.AddUInt32(tag);
  builder.AddText(text);
  EXPECT_TRUE(builder.Finish());
  return std::vector<uint8_t>(builder.Data(), builder.Data() + builder.Size());
}

// The xz blocks of each stream of every block in the day's file, in file
// order (per block: the table's stream first, then the records').
std::vector<std::vector<uint64_t>> PayloadLayouts(const std::string& path) {
  Keel::OS::File file;
  EXPECT_TRUE(file.Open(path, Keel::OS::File::Mode::Read));
  uint64_t size = 0;
  EXPECT_TRUE(file.GetSize(size));
  std::vector<std::vector<uint64_t>> layouts;
  for (uint64_t offset = kDayFileHeaderSize; offset < size;) {
    BlockHeader header;
    Keel::Collections::Buffer payload;
    if (!ReadBlockHeader(file, offset, size, header) ||
        !ReadBlockPayload(file, offset, header, payload)) {
      ADD_FAILURE() << "block at " << offset;
      break;
    }
    std::vector<uint8_t> stream(payload.Data(), payload.Data() + payload.Size());
    for (uint8_t& byte : stream) byte = static_cast<uint8_t>(~byte);
    layouts.push_back(tarn::test::BlocksPerStream(stream));
    offset += kBlockHeaderSize + header.stored_size;
  }
  return layouts;
}

// A block handed to an idle writer has the time to be compressed as one xz
// block (a little smaller); one handed over while the writer was still busy
// goes out in 2 MiB pieces on every core. Either way its table is a stream
// of its own.
TEST_F(StorageManagerTest, AnIdleWriterCompressesABlockWholeAndABusyOneInPiecesOnEveryCore) {
  settings_.block_buffer_size = 5 << 20;
  settings_.max_storage_size = 200 << 20;
  ASSERT_TRUE(Open());
  uint64_t state = 1;
  std::vector<std::vector<uint8_t>> events;
  for (uint32_t i = 0; i < 2'800; ++i) events.push_back(PoorlyCompressible(i, 4'000, state));
  auto add = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      Events::Objects::Base event(events[i].data(), events[i].size());
      ASSERT_TRUE(manager_->AddEvent(event));
    }
  };
  // About 1,300 events fill a block (handed to the idle writer); the next
  // 1,300 come while the writer compresses it, so that the second hand-over
  // waits. The rest, a small block, on Flush.
  add(0, 1'300);
  add(1'300, 2'800);
  ASSERT_TRUE(manager_->Flush());
  const std::vector<std::vector<uint64_t>> layouts =
      PayloadLayouts(dir_.File(Utils::DayFileName(9000, 2)));
  ASSERT_EQ(layouts.size(), 3u);
  EXPECT_EQ(layouts[0], (std::vector<uint64_t>{1, 1}));  // idle: the records as one
  EXPECT_EQ(layouts[1], (std::vector<uint64_t>{1, 3}));  // busy: 5 MiB in 2 MiB pieces
  EXPECT_EQ(layouts[2].front(), 1u);
  EXPECT_EQ(Indexed().size(), 2'800u);
}

}  // namespace
}  // namespace Tarn::Storage
