#include "Keel/Collections/HashMap.h"

#include <gtest/gtest.h>

#include <random>
#include <unordered_map>

#include "support/log_capture.h"

namespace Keel::Collections {
namespace {

using Map = HashMap<unsigned int, unsigned int>;
using Reference = std::unordered_map<unsigned, unsigned>;

Reference Contents(const Map& map) {
  Reference out;
  map.ForEach([&](unsigned key, unsigned value) { EXPECT_TRUE(out.emplace(key, value).second); });
  return out;
}

TEST(HashMapTest, RandomOperationsAndRehashesMatchUnorderedMap) {
  Map map;
  ASSERT_TRUE(map.Create(3));  // not a power of two: rounded up
  Reference reference;
  std::mt19937 rng(99);
  for (unsigned op = 0; op < 150000; ++op) {
    // Keys spaced by 64 so that poor hashing of low bits would show up as
    // long chains rather than pass unnoticed.
    unsigned key = (rng() % 8000) * 64;
    unsigned action = rng() % 10;
    if (action < 3) {
      ASSERT_EQ(map.Insert(key, op), reference.emplace(key, op).second) << op;
    } else if (action < 5) {
      ASSERT_TRUE(map.Set(key, op));
      reference[key] = op;
    } else if (action < 8) {
      ASSERT_EQ(map.Delete(key), reference.erase(key) == 1) << op;
    } else {
      unsigned value = 0;
      auto it = reference.find(key);
      ASSERT_EQ(map.Get(key, value), it != reference.end()) << op;
      if (it != reference.end()) {
        ASSERT_EQ(value, it->second);
      }
    }
    ASSERT_EQ(map.Count(), reference.size());
  }
  EXPECT_EQ(Contents(map), reference);
  EXPECT_GE(map.BucketCount(), map.Count());  // grew with its entries

  // Rehashing keeps every entry, even into far fewer buckets than entries.
  ASSERT_TRUE(map.ReHash(16));
  EXPECT_EQ(map.BucketCount(), 16u);
  EXPECT_EQ(Contents(map), reference);
  ASSERT_TRUE(map.ReHash(5000));
  EXPECT_EQ(map.BucketCount(), 8192u);  // rounded up to a power of two
  for (const auto& [key, value] : reference) ASSERT_EQ(*map.Get(key), value);

  map.Clear();
  EXPECT_EQ(map.Count(), 0u);
  EXPECT_FALSE(map.Contains(reference.begin()->first));
  EXPECT_TRUE(map.Insert(7919, 5));
  EXPECT_EQ(*map.Get(7919), 5u);
}

TEST(HashMapTest, InsertRefusesSetReplacesAndMisuseIsLogged) {
  tarn::test::LogCapture log;
  Map map;
  EXPECT_FALSE(map.Insert(1, 1));
  EXPECT_FALSE(map.Contains(1));
  EXPECT_EQ(log.CountFrom(Log::Collections, Log::Error), 2u);

  ASSERT_TRUE(map.InitializeLazy());
  log.Clear();
  EXPECT_TRUE(map.Insert(1, 10));
  EXPECT_FALSE(map.Insert(1, 20));
  EXPECT_EQ(*map.Get(1), 10u);
  EXPECT_TRUE(map.Set(1, 30));
  EXPECT_EQ(*map.Get(1), 30u);
  EXPECT_EQ(map.Count(), 1u);
  EXPECT_FALSE(map.Delete(2));
  EXPECT_EQ(map.Get(2), nullptr);
  EXPECT_TRUE(log.Empty());  // misses are answers, not failures

  // The entry maximum holds, and a deleted entry's slot is usable again.
  ASSERT_TRUE(map.Create(8, 2));
  EXPECT_TRUE(map.Insert(1, 1) && map.Insert(2, 2));
  EXPECT_FALSE(map.Insert(3, 3));
  EXPECT_EQ(log.Count(Log::Error), 1u);
  EXPECT_TRUE(map.Delete(1));
  EXPECT_TRUE(map.Insert(3, 3));
  EXPECT_EQ(Contents(map), (Reference{{2, 2}, {3, 3}}));
}

}  // namespace
}  // namespace Keel::Collections
