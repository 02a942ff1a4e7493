// Walks, by-time searches, block hand-outs, queries and single-event lookups
// on threads of their own while the writer cuts blocks, evicts days, and is
// stopped and started again (taking its half-filled block back). An event is
// known by its day and second, so a reader rebuilds what it must hold
// without sharing the writer's list. The writer publishes how many events it
// has acknowledged and the day it writes: from those a reader knows which
// events no eviction can have touched, and a walk or a query that ends
// complete must have every one of them. Runs in the ThreadSanitizer build.

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <optional>
#include <random>
#include <set>
#include <shared_mutex>
#include <thread>

#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Events/StorageQuery.h"
#include "manager/format/EventsBlock.h"
#include "osquery/QueryService.h"
#include "query_store.h"
#include "support/row_columns.h"

namespace Tarn::Storage::OSQuery {
namespace {

using tarn::test::EpochOf;
using tarn::test::Filter;
using tarn::test::NumberColumn;
using tarn::test::Reply;

constexpr uint64_t kInvalid = RawIterator::Invalid;
constexpr uint16_t kFirstDay = 9000;
constexpr uint16_t kDays = 8;
constexpr uint32_t kEventsPerBlock = 40;
constexpr uint32_t kPerDay = 3 * kEventsPerBlock;
constexpr uint32_t kEvents = kDays * kPerDay;
constexpr uint16_t kKeptDays = 3;

struct EventTime {
  uint16_t day;
  uint32_t second;
};

EventTime TimeOfEvent(uint32_t i) {
  const uint32_t k = i % kPerDay;
  return {static_cast<uint16_t>(kFirstDay + i / kPerDay),
          1 + k / kEventsPerBlock * 2000 + k % kEventsPerBlock * 30};
}

// The event stored at (day, second), if any.
std::optional<uint32_t> EventAt(uint16_t day, uint32_t second) {
  if (day < kFirstDay || day >= kFirstDay + kDays || second == 0) return std::nullopt;
  const uint32_t block = (second - 1) / 2000, offset = (second - 1) % 2000;
  if (block >= 3 || offset % 30 != 0 || offset / 30 >= kEventsPerBlock) return std::nullopt;
  return (day - kFirstDay) * kPerDay + block * kEventsPerBlock + offset / 30;
}

uint32_t PidOf(uint32_t i) { return 1000 + i; }

tarn::test::RowPtr RowOfEvent(uint32_t i) {
  const EventTime t = TimeOfEvent(i);
  tarn::test::RowPtr row = tarn::test::NewRow("edr_process_create");
  tarn::test::SetColumn(*row, "date_time", EpochOf(t.day, t.second) * 1000 + i % 1000);
  tarn::test::SetColumn(*row, "pid", PidOf(i));
  tarn::test::SetColumn(*row, "path", i % 2 ? "/usr/bin/odd" : "/usr/bin/even");
  return row;
}

class ReadConcurrencyTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    records_ = new std::vector<std::vector<uint8_t>>();
    for (uint32_t i = 0; i < kEvents; ++i) records_->push_back(tarn::test::RecordOf(*RowOfEvent(i)));
  }
  static void TearDownTestSuite() { delete records_; }

  void SetUp() override {
    settings_ = Settings::default_();
    settings_.block_buffer_size = 102'400;
    settings_.max_storage_size = 52'428'800;
    settings_.max_days = kKeptDays;
    ASSERT_TRUE(Open());
  }

  bool Open() {
    manager_ = std::make_unique<StorageManager>();
    if (!manager_->Create(settings_, &clock_, 1, dir_.path().c_str())) return false;
    provider_ = std::make_unique<EventStorageProvider>(*manager_, manager_->telemetry());
    queries_ = std::make_unique<QueryService>(*provider_, *manager_);
    return provider_->Create();
  }

  // The writer's side. Every third day it stops in the middle of a block
  // while the readers go on, and starts again once they have let go.
  void Write() {
    for (uint32_t i = 0; i < kEvents; ++i) {
      const EventTime t = TimeOfEvent(i);
      writing_day_.store(t.day);
      clock_.SetDay(t.day, t.second);
      Events::Objects::Base event((*records_)[i].data(), (*records_)[i].size());
      ASSERT_TRUE(manager_->AddEvent(event));
      const uint32_t k = i % kPerDay;
      if (k % kEventsPerBlock == kEventsPerBlock - 1) {
        ASSERT_TRUE(manager_->Flush());
        acknowledged_.store(i + 1);
      } else if (k == kPerDay / 2 + 5 && t.day % 3 == 1) {
        ASSERT_TRUE(manager_->Stop());
        restarting_.store(true);  // readers may hold the lock in turn forever otherwise
        std::unique_lock lock(lifecycle_);
        restarting_.store(false);
        queries_.reset();
        provider_.reset();
        manager_.reset();
        ASSERT_TRUE(Open());
        acknowledged_.store(i + 1);
      }
    }
  }

  // Events acknowledged before `acknowledged` was read that lie in days no
  // eviction can have reached by the time `writing` was read.
  static bool MustBeThere(uint32_t i, uint32_t acknowledged, uint16_t writing) {
    return i < acknowledged && TimeOfEvent(i).day + kKeptDays - 1 >= writing;
  }

  // The event at `p` as the reader has it: its number, or none when it
  // cannot be read (only an evicted day may do that). Wrong bytes fail.
  std::optional<uint32_t> ReadEvent(uint64_t p) {
    Keel::OS::DateTime time;
    Events::GenericEventHolder holder;
    if (!provider_->GetTime(p, time) || !provider_->GetEvent(p, &holder)) return std::nullopt;
    const uint64_t since = static_cast<uint64_t>(time.ToSecondsSinceEpoch()) - EpochOf(0, 0);
    const std::optional<uint32_t> i = EventAt(since / 86'400, since % 86'400);
    EXPECT_TRUE(i.has_value()) << "no event was stored at second " << since;
    if (i) {
      EXPECT_EQ(std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size()), (*records_)[*i]);
      EXPECT_EQ(RawIterator(p).Day(), TimeOfEvent(*i).day);
    }
    return i;
  }

  void Walk(bool forward, std::atomic<uint64_t>& read) {
    std::shared_lock lock = Enter();
    const uint32_t acknowledged = acknowledged_.load();
    std::set<uint32_t> seen;
    std::optional<uint32_t> last;
    uint64_t p = forward ? provider_->GetFirstIterVal() : provider_->GetLastIterVal();
    uint64_t at = kInvalid;
    for (; p != kInvalid; forward ? provider_->Increment(p) : provider_->Decrement(p)) {
      at = p;
      const std::optional<uint32_t> i = ReadEvent(p);
      if (!i) continue;
      if (last) {
        EXPECT_EQ(*i > *last, forward) << *i << " after " << *last;
      }
      last = i;
      seen.insert(*i);
      ++read;
    }
    const uint16_t writing = writing_day_.load();
    // A forward walk that ended in a day no eviction reached saw the end of
    // the store: nothing acknowledged before it started may be missing.
    if (!forward || at == kInvalid || RawIterator(at).Day() + kKeptDays - 1 < writing) return;
    for (uint32_t i = 0; i < kEvents; ++i) {
      if (MustBeThere(i, acknowledged, writing)) {
        ASSERT_EQ(seen.count(i), 1u) << "missed " << i;
      }
    }
  }

  void SearchAndHandOut(std::mt19937& random, std::atomic<uint64_t>& read) {
    std::shared_lock lock = Enter();
    const uint16_t day = static_cast<uint16_t>(kFirstDay - 1 + random() % (kDays + 2));
    const Keel::OS::DateTime time(static_cast<int64_t>(EpochOf(day, random() % 6000)));
    const uint64_t p = provider_->GetIterVal(
        time, static_cast<Comm::Interface::SearchStrategy>(random() % 3));
    if (p != kInvalid && ReadEvent(p)) ++read;
    const uint64_t first = provider_->GetFirstIterVal();
    if (first == kInvalid) return;
    provider_->ProcessBlocks(first, first, [&](const EventStorageProvider::DecodeToken& token,
                                              const Keel::Collections::Buffer& stored) {
      Keel::Collections::Buffer copy, decoded;
      Telemetry::StorageTelemetry telemetry;
      ASSERT_TRUE(copy.Assign(stored));
      ASSERT_TRUE(EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded, telemetry));
      RawBlockView view(decoded.Data(), uint32_t(decoded.Size()), token.event_table_offset);
      for (uint32_t e = 0; e < view.EventCount(); ++e) {
        const uint8_t* data = nullptr;
        uint32_t size = 0;
        ASSERT_TRUE(view.Event(e, data, size));
        const std::optional<uint32_t> i = EventAt(RawIterator(token.block_key).Day(), view.Second(e));
        ASSERT_TRUE(i.has_value());
        EXPECT_EQ(std::vector<uint8_t>(data, data + size), (*records_)[*i]);
      }
      ++read;
    });
  }

  // One query followed through its pages. Every row is checked; a complete
  // answer must hold every event that had to be there.
  void AskAndCheck(std::mt19937& random, std::atomic<uint64_t>& rows) {
    std::shared_lock lock = Enter();
    const uint32_t acknowledged = acknowledged_.load();
    // From a day written already, so that most ranges hold events.
    const uint16_t from = kFirstDay + random() % (writing_day_.load() - kFirstDay + 1);
    const uint64_t lower = EpochOf(from, random() % 6000);
    const uint64_t upper = lower + random() % 200'000;
    std::vector<Filter> filters = {{"date_time", 32, std::to_string(lower * 1000), "bigint"},
                                   {"date_time", 16, std::to_string(upper * 1000), "bigint"}};
    const bool odd_only = random() % 2;
    if (odd_only) filters.push_back({"path", 2, "/usr/bin/odd", "text"});
    Query query = tarn::test::MakeQuery("edr_process_create", random() % 2 ? "" : "date_time,pid",
                                        filters);
    const OSQuerySettings limits = tarn::test::QueryLimits(random() % 3 ? 1'000'000 : 2000);
    std::set<uint32_t> seen;
    uint32_t status = 8;
    uint64_t previous = 0;
    while (status == 8) {
      hx::MessageBus::Msg msg;
      Reply reply;
      queries_->HandleOSQuery(Query(query), msg, limits);
      tarn::test::QueryStore::Read(msg, reply);
      ASSERT_TRUE(reply.answer.well_formed);
      status = reply.answer.status;
      // 5: a block was evicted under the scan; 9: the rest of the range was
      // evicted between pages, so the token now lies before its start.
      ASSERT_TRUE(status == 0 || status == 5 || status == 8 || (status == 9 && query.page > 0))
          << status;
      for (const auto& row : tarn::test::DecodeRows(reply.answer.rows, "edr_process_create")) {
        ASSERT_NE(row, nullptr);
        const uint64_t time_ms = NumberColumn(*row, "date_time");
        const uint32_t i = static_cast<uint32_t>(NumberColumn(*row, "pid")) - 1000;
        ASSERT_LT(i, kEvents);
        const EventTime t = TimeOfEvent(i);
        EXPECT_EQ(time_ms, EpochOf(t.day, t.second) * 1000 + i % 1000);
        EXPECT_GE(time_ms / 1000, lower);
        EXPECT_LT(time_ms / 1000, upper);
        EXPECT_GT(time_ms, previous);
        previous = time_ms;
        seen.insert(i);
        ++rows;
      }
      query.token = reply.token.position;
      query.page = reply.token.page;
    }
    const uint16_t writing = writing_day_.load();
    if (status != 0) return;
    for (uint32_t i = 0; i < kEvents; ++i) {
      const EventTime t = TimeOfEvent(i);
      const uint64_t second = EpochOf(t.day, t.second);
      if (MustBeThere(i, acknowledged, writing) && second >= lower && second < upper &&
          (!odd_only || i % 2 == 1)) {
        ASSERT_EQ(seen.count(i), 1u) << "a complete answer misses event " << i;
      }
    }
  }

  // The last stored event is the last acknowledged one or a later one.
  void LookUpLast(std::atomic<uint64_t>& read) {
    std::shared_lock lock = Enter();
    const uint32_t acknowledged = acknowledged_.load();
    uint8_t destination[1024];
    Events::Objects::StorageQuery request;
    request.kind = Events::Objects::StorageQuery::kLast;
    request.destination = destination;
    request.capacity = sizeof(destination);
    if (!provider_->HandleQuery(&request, nullptr)) return;
    const std::vector<uint8_t> copied(destination, destination + request.copied);
    auto it = std::find(records_->begin(), records_->end(), copied);
    ASSERT_NE(it, records_->end());
    EXPECT_GE(static_cast<uint32_t>(it - records_->begin()) + 1, acknowledged);
    ++read;
  }

  // A reader's hold on the store for one call; it lets a restart go first.
  std::shared_lock<std::shared_mutex> Enter() {
    while (restarting_.load()) std::this_thread::yield();
    return std::shared_lock(lifecycle_);
  }

  static std::vector<std::vector<uint8_t>>* records_;
  Settings settings_;
  tarn::test::TempDir dir_;
  tarn::test::FakeClock clock_;
  std::shared_mutex lifecycle_;  // shared by each reader's call, taken whole for a restart
  std::unique_ptr<StorageManager> manager_;
  std::unique_ptr<EventStorageProvider> provider_;
  std::unique_ptr<QueryService> queries_;
  std::atomic<bool> restarting_{false};
  std::atomic<uint32_t> acknowledged_{0};
  std::atomic<uint16_t> writing_day_{kFirstDay};
};

std::vector<std::vector<uint8_t>>* ReadConcurrencyTest::records_ = nullptr;

TEST_F(ReadConcurrencyTest, ReadersGetNoStaleTornOrMissingAnswerWhileTheWriterRuns) {
  std::atomic<bool> writing{true};
  std::atomic<uint64_t> read{0};
  std::vector<std::thread> readers;
  for (uint32_t r = 0; r < 4; ++r) {
    readers.emplace_back([&, r] {
      std::mt19937 random(r);
      while (writing.load()) {
        switch (r) {
          case 0: Walk(true, read); break;
          case 1: Walk(false, read); SearchAndHandOut(random, read); break;
          case 2: AskAndCheck(random, read); break;
          default: AskAndCheck(random, read); LookUpLast(read); break;
        }
      }
    });
  }
  Write();
  writing.store(false);
  for (std::thread& t : readers) t.join();
  EXPECT_GT(read.load(), 100u);  // the readers did overlap the writer

  // Afterwards exactly the days kept are left, whole.
  std::atomic<uint64_t> walked{0};
  Walk(true, walked);
  EXPECT_EQ(walked.load(), kKeptDays * kPerDay);
  EXPECT_EQ(RawIterator(provider_->GetFirstIterVal()).Day(), kFirstDay + kDays - kKeptDays);
  const uint64_t evicted = RawIterator(kFirstDay, 1, 0);
  EXPECT_FALSE(ReadEvent(evicted).has_value());
  uint64_t p = evicted;
  EXPECT_FALSE(provider_->Increment(p));
}

}  // namespace
}  // namespace Tarn::Storage::OSQuery
