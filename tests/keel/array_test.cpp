#include "Keel/Collections/Array.h"

#include <gtest/gtest.h>

#include <string>

#include "support/log_capture.h"

namespace Keel::Collections {
namespace {

struct Pair {
  int key;
  std::string tag;
};

int ByKey(const Pair& a, const Pair& b) { return a.key - b.key; }

TEST(ArrayTest, SortedInsertionKeepsOrderAndEqualsInArrivalOrder) {
  Array<Pair> array;
  ASSERT_TRUE(array.Create(1));
  const int keys[] = {5, 1, 3, 3, 9, 1, 0};
  for (int i = 0; i < 7; ++i) {
    ASSERT_TRUE(array.InsertSorted(Pair{keys[i], std::to_string(i)}, &ByKey));
  }
  std::string order;
  for (const Pair& p : array) order += std::to_string(p.key) + p.tag + " ";
  EXPECT_EQ(order, "06 11 15 32 33 50 94 ");
  EXPECT_EQ(array.LowerBound(Pair{3, ""}, &ByKey), 3u);
  EXPECT_EQ(array.UpperBound(Pair{3, ""}, &ByKey), 5u);
  EXPECT_EQ(array.LowerBound(Pair{10, ""}, &ByKey), 7u);
}

TEST(ArrayTest, MaximumIsEnforcedAndRefusalsChangeNothing) {
  Array<int> array;
  ASSERT_TRUE(array.Create(2, 3, 1, GrowType::Linear));
  ASSERT_TRUE(array.Add(1));
  ASSERT_TRUE(array.Add(2));
  ASSERT_TRUE(array.Add(3));
  tarn::test::LogCapture log;
  EXPECT_FALSE(array.Add(4));
  EXPECT_FALSE(array.InsertAt(0, 0));
  EXPECT_EQ(log.Count(Log::Error), 2u);
  EXPECT_EQ(array.Count(), 3u);
  EXPECT_EQ(*array.Get(0), 1);
  EXPECT_FALSE(array.InsertAt(5, 9));  // past the end
  EXPECT_FALSE(array.Create(4, 3));    // initial above maximum
}

TEST(ArrayTest, RemovalAndCountChanges) {
  Array<int> array;
  ASSERT_TRUE(array.Create(4));
  for (int i = 0; i < 6; ++i) ASSERT_TRUE(array.Add(i));
  ASSERT_TRUE(array.RemoveAt(0));
  EXPECT_EQ(array.RemoveIf([](int v) { return v % 2 == 0; }), 2u);
  ASSERT_EQ(array.Count(), 3u);
  EXPECT_EQ(*array.Get(0), 1);
  EXPECT_EQ(*array.Get(2), 5);
  int last = 0;
  ASSERT_TRUE(array.PopBack(last));
  EXPECT_EQ(last, 5);
  EXPECT_FALSE(array.SetCount(5));  // only shrinks
  uint32_t capacity = array.Capacity();
  ASSERT_TRUE(array.SetCount(0));
  EXPECT_EQ(array.Capacity(), capacity);
  EXPECT_FALSE(array.PopBack(last));
  EXPECT_FALSE(array.RemoveAt(0));
  EXPECT_EQ(array.Get(0), nullptr);
  EXPECT_FALSE(array.Set(0, 1));
}

}  // namespace
}  // namespace Keel::Collections
