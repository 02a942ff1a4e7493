// The reader against a model: a random store of several days with gaps, and
// for thousands of random times and strategies the by-time search compared
// with an answer worked out from the fed events alone.

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <set>
#include <tuple>

#include "Tarn/Events/GenericEventHolder.h"
#include "reader_fixture.h"

namespace Tarn::Storage {
namespace {

using tarn::test::FedEvent;
constexpr uint64_t kInvalid = RawIterator::Invalid;

std::tuple<uint16_t, uint32_t> KeyOf(const FedEvent& e) { return {e.day, e.second}; }
uint64_t BlockOf(const FedEvent& e) { return RawIterator(e.position).AsKey(); }

// What the by-time search must answer, from the events alone. AtOrBefore
// has the store's documented shape: an exact second gives its first event;
// otherwise the last earlier event, except that when the search had to move
// to the end of an earlier block (or day), it lands on the first event of
// that block's last second.
uint64_t Expected(const std::vector<FedEvent>& events, uint16_t day, uint32_t second,
                  uint32_t strategy) {
  const std::tuple<uint16_t, uint32_t> key{day, second};
  auto at_or_after = std::find_if(events.begin(), events.end(),
                                  [&](const FedEvent& e) { return KeyOf(e) >= key; });
  bool exact = at_or_after != events.end() && KeyOf(*at_or_after) == key;
  switch (strategy) {
    case 0:
      return exact ? at_or_after->position : kInvalid;
    case 1:
      return at_or_after != events.end() ? at_or_after->position : kInvalid;
    case 2:
      break;
    default:
      return kInvalid;
  }
  if (exact) return at_or_after->position;
  if (at_or_after == events.begin()) return kInvalid;
  auto before = at_or_after - 1;
  // The time falls inside the block of `before`: the in-block search finds it.
  if (at_or_after != events.end() && BlockOf(*at_or_after) == BlockOf(*before)) {
    return before->position;
  }
  auto first = before;
  while (first != events.begin() && BlockOf(*(first - 1)) == BlockOf(*before) &&
         (first - 1)->second == before->second) {
    --first;
  }
  return first->position;
}

class ReaderModelTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(store_.Open());
    std::mt19937 random(20261122);
    // Six of thirteen days, so that some neighbours are missing.
    std::vector<uint16_t> days;
    for (uint16_t day = 9000; day < 9013; ++day) days.push_back(day);
    std::shuffle(days.begin(), days.end(), random);
    days.resize(6);
    std::sort(days.begin(), days.end());
    for (uint16_t day : days) {
      uint32_t second = random() % 1000;
      uint32_t blocks = 1 + random() % 4;
      for (uint32_t b = 0; b < blocks; ++b) {
        uint32_t count = 1 + random() % 40;
        for (uint32_t i = 0; i < count; ++i) {
          // Repeated seconds, also across a block boundary, and long gaps.
          second += random() % 3 == 0 ? 0 : 1 + random() % (random() % 5 == 0 ? 5000 : 40);
          second = std::min<uint32_t>(second, 86'399);
          ASSERT_TRUE(store_.Feed(day, second, 40 + random() % 400));
        }
        ASSERT_TRUE(store_.Cut());
        if (random() % 2 == 0) second += random() % 3000;
      }
    }
  }

  tarn::test::ReaderStore store_;
};

TEST_F(ReaderModelTest, ByTimeSearchMatchesTheModel) {
  const std::vector<FedEvent>& events = store_.fed();
  std::mt19937 random(7);
  uint32_t found = 0;
  for (uint32_t round = 0; round < 4000; ++round) {
    uint16_t day;
    uint32_t second;
    if (random() % 10 < 7) {
      // Near an event: on it, or a second either side.
      const FedEvent& near = events[random() % events.size()];
      day = near.day;
      second = std::min<uint32_t>(86'399, near.second + random() % 3 - std::min(near.second, 1u));
    } else {
      day = static_cast<uint16_t>(8998 + random() % 17);
      second = random() % 86'400;
    }
    uint32_t strategy = random() % 16 == 0 ? 3 : random() % 3;
    uint64_t want = Expected(events, day, second, strategy);
    uint64_t got = store_.reader().GetIterVal(
        tarn::test::TimeOf(day, second), static_cast<Comm::Interface::SearchStrategy>(strategy));
    ASSERT_EQ(got, want) << "day " << day << " second " << second << " strategy " << strategy;
    found += got != kInvalid;
  }
  EXPECT_GT(found, 2000u);  // the times mostly hit something
}

TEST_F(ReaderModelTest, WalksVisitEveryEventOnceInOrderWithItsBytesAndTime) {
  const std::vector<FedEvent>& events = store_.fed();
  EventStorageProvider& reader = store_.reader();
  Events::GenericEventHolder holder;
  size_t i = 0;
  for (uint64_t p = reader.GetFirstIterVal(); p != kInvalid; reader.Increment(p), ++i) {
    ASSERT_LT(i, events.size());
    ASSERT_EQ(p, events[i].position);
    ASSERT_TRUE(reader.GetEvent(p, &holder));
    ASSERT_EQ(std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size()), events[i].record);
    Keel::OS::DateTime time;
    ASSERT_TRUE(reader.GetTime(p, time));
    ASSERT_EQ(time.ToSecondsSinceEpoch(),
              static_cast<int64_t>(tarn::test::EpochOf(events[i].day, events[i].second)));
  }
  EXPECT_EQ(i, events.size());
  for (uint64_t p = reader.GetLastIterVal(); p != kInvalid; reader.Decrement(p)) {
    ASSERT_GT(i, 0u);
    ASSERT_EQ(p, events[--i].position);
  }
  EXPECT_EQ(i, 0u);
  EXPECT_EQ(reader.GetSize(), events.size());
}

TEST_F(ReaderModelTest, ProcessBlocksHandsEachBlockOnceAndItDecodesToTheFedEvents) {
  const std::vector<FedEvent>& events = store_.fed();
  EventStorageProvider& reader = store_.reader();
  Telemetry::StorageTelemetry telemetry;  // a consumer's own
  size_t next = 0;
  uint32_t blocks = 0;
  bool ok = reader.ProcessBlocks(
      reader.GetFirstIterVal(), reader.GetLastIterVal(),
      [&](const EventStorageProvider::DecodeToken& token, const Keel::Collections::Buffer& stored) {
        ++blocks;
        ASSERT_EQ(token.magic, 0x4B544344u);
        ASSERT_EQ(token.version, 1u);
        ASSERT_LT(next, events.size());
        ASSERT_EQ(token.block_key, events[next].position);  // event 0 of the next block
        ASSERT_EQ(token.file_version, 2u);
        Keel::Collections::Buffer copy;
        Keel::Collections::Buffer decoded;
        ASSERT_TRUE(copy.Assign(stored));
        ASSERT_TRUE(
            EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded, telemetry));
        RawBlockView view(decoded.Data(), static_cast<uint32_t>(decoded.Size()),
                          token.event_table_offset);
        ASSERT_EQ(view.EventCount(), token.event_count);
        for (uint32_t e = 0; e < view.EventCount(); ++e, ++next) {
          const uint8_t* data = nullptr;
          uint32_t size = 0;
          ASSERT_TRUE(view.Event(e, data, size));
          ASSERT_EQ(std::vector<uint8_t>(data, data + size), events[next].record);
          ASSERT_EQ(view.Second(e), events[next].second);
        }
      });
  EXPECT_TRUE(ok);
  EXPECT_EQ(next, events.size());
  std::set<uint64_t> distinct;
  for (const FedEvent& e : events) distinct.insert(BlockOf(e));
  EXPECT_EQ(blocks, distinct.size());
}

}  // namespace
}  // namespace Tarn::Storage
