// Readers walking, searching and reading while the writer writes new days
// and evicts old ones. Every event names its own day and second in its tag,
// so a reader can check what it got without sharing anything with the
// writer. Runs in the ThreadSanitizer build too.

#include <gtest/gtest.h>

#include <atomic>
#include <random>
#include <thread>

#include "Tarn/Events/GenericEventHolder.h"
#include "manager/EventsBlock.h"
#include "reader_fixture.h"

namespace Tarn::Storage {
namespace {

constexpr uint64_t kInvalid = RawIterator::Invalid;
constexpr uint16_t kFirstDay = 9000;
constexpr uint16_t kDays = 10;
constexpr uint32_t kBlocksPerDay = 3;
constexpr uint32_t kEventsPerBlock = 60;

uint32_t TagFor(uint16_t day, uint32_t second) { return day * 100'000u + second; }

class ReaderConcurrencyTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Settings settings = tarn::test::ReaderSettings();
    settings.max_days = 3;
    store_ = std::make_unique<tarn::test::ReaderStore>(settings);
    ASSERT_TRUE(store_->Open());
  }

  // The writer's side: whole days of blocks, each cut by a flush.
  void Write() {
    StorageManager& manager = store_->manager();
    for (uint16_t day = kFirstDay; day < kFirstDay + kDays; ++day) {
      for (uint32_t b = 0; b < kBlocksPerDay; ++b) {
        for (uint32_t i = 0; i < kEventsPerBlock; ++i) {
          uint32_t second = 1 + b * 1000 + i * 10;
          store_->clock().SetDay(day, second);
          std::vector<uint8_t> record = tarn::test::MakeEvent(TagFor(day, second), 100 + i);
          Events::Objects::Base event(record.data(), record.size());
          ASSERT_TRUE(manager.AddEvent(event));
        }
        ASSERT_TRUE(manager.Flush());
      }
    }
  }

  // True when the event at `p` can be read and is the one its position
  // names; false when it can no longer be read. Wrong bytes fail the test.
  bool CheckEvent(uint64_t p) {
    Events::GenericEventHolder holder;
    if (!store_->reader().GetEvent(p, &holder)) return false;
    std::vector<uint8_t> record(holder.Data(), holder.Data() + holder.Size());
    uint32_t tag = tarn::test::TagOf(record);
    EXPECT_EQ(tag / 100'000u, RawIterator(p).Day());
    Keel::OS::DateTime time;
    if (store_->reader().GetTime(p, time)) {
      EXPECT_EQ(static_cast<uint64_t>(time.ToSecondsSinceEpoch()),
                tarn::test::EpochOf(tag / 100'000u, tag % 100'000u));
    }
    return true;
  }

  void Walk(bool forward, std::atomic<uint64_t>& read) {
    EventStorageProvider& reader = store_->reader();
    uint64_t p = forward ? reader.GetFirstIterVal() : reader.GetLastIterVal();
    uint64_t previous = kInvalid;
    while (p != kInvalid) {
      if (previous != kInvalid) {
        EXPECT_EQ(reader.Compare(previous, p), forward ? -1 : 1);
      }
      if (CheckEvent(p)) ++read;
      previous = p;
      if (!(forward ? reader.Increment(p) : reader.Decrement(p))) {
        EXPECT_EQ(p, kInvalid);
      }
    }
  }

  void Search(std::mt19937& random, std::atomic<uint64_t>& read) {
    EventStorageProvider& reader = store_->reader();
    uint16_t day = static_cast<uint16_t>(kFirstDay - 1 + random() % (kDays + 2));
    uint32_t second = random() % 3000;
    auto strategy = static_cast<Comm::Interface::SearchStrategy>(random() % 3);
    uint64_t p = reader.GetIterVal(tarn::test::TimeOf(day, second), strategy);
    if (p != kInvalid && CheckEvent(p)) ++read;
    uint64_t first = reader.GetFirstIterVal();
    if (first != kInvalid) {
      reader.ProcessBlocks(first, first,
                           [&](const EventStorageProvider::DecodeToken& token,
                               const Keel::Collections::Buffer& stored) {
                             Keel::Collections::Buffer copy;
                             Keel::Collections::Buffer decoded;
                             Telemetry::StorageTelemetry telemetry;
                             ASSERT_TRUE(copy.Assign(stored));
                             EXPECT_TRUE(EventStorageProvider::DecodeBlock(copy, token.decoded_size,
                                                                           decoded, telemetry));
                             ++read;
                           });
    }
  }

  std::unique_ptr<tarn::test::ReaderStore> store_;
};

TEST_F(ReaderConcurrencyTest, ReadersSurviveWritesAndEvictions) {
  std::atomic<bool> writing{true};
  std::atomic<uint64_t> read{0};
  std::vector<std::thread> readers;
  for (uint32_t r = 0; r < 3; ++r) {
    readers.emplace_back([&, r] {
      std::mt19937 random(r);
      while (writing.load()) {
        if (r == 2) {
          Search(random, read);
        } else {
          Walk(r == 0, read);
        }
      }
    });
  }
  Write();
  writing.store(false);
  for (std::thread& t : readers) t.join();
  EXPECT_GT(read.load(), 100u);  // the readers did overlap the writer

  // Only the last three days are left; positions in evicted days fail once
  // their blocks have left the cache.
  EventStorageProvider& reader = store_->reader();
  const uint16_t first_kept = kFirstDay + kDays - 3;
  EXPECT_EQ(RawIterator(reader.GetFirstIterVal()).Day(), first_kept);
  for (uint32_t b = 0; b < BlockCache::kCapacity; ++b) {
    ASSERT_TRUE(CheckEvent(RawIterator(first_kept + b / kBlocksPerDay, b % kBlocksPerDay, 0)));
  }
  const uint64_t evicted = RawIterator(kFirstDay, 1, 0);
  uint64_t p = evicted;
  EXPECT_FALSE(reader.Increment(p));
  EXPECT_EQ(p, kInvalid);
  EXPECT_FALSE(CheckEvent(evicted));
  Keel::OS::DateTime time;
  EXPECT_FALSE(reader.GetTime(evicted, time));

  // What is left walks whole, in order.
  std::atomic<uint64_t> walked{0};
  Walk(true, walked);
  EXPECT_EQ(walked.load(), 3u * kBlocksPerDay * kEventsPerBlock);
  EXPECT_EQ(reader.GetSize(), 3u * kBlocksPerDay * kEventsPerBlock);
}

}  // namespace
}  // namespace Tarn::Storage
