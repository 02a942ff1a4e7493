#include "Keel/Collections/RedBlackTree.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <iterator>
#include <map>
#include <random>
#include <thread>
#include <vector>

#include "support/log_capture.h"

namespace Keel::Collections {
namespace {

// A value with a small flat serialized form.
struct Payload {
  uint32_t number = 0;
  uint16_t tag = 0;

  bool operator==(const Payload&) const = default;
  bool Serialize(Buffer& buffer, void*) {
    return buffer.PushUInt32(number) && buffer.PushUInt16(tag);
  }
  bool Deserialize(StreamBuffer& stream, void*) {
    return stream.ReadUInt32(number) && stream.ReadUInt16(tag);
  }
};

// Refuses the generic serialized form, as records with their own file format do.
struct Refusing {
  int unused = 0;
  bool Serialize(Buffer&, void*) { return false; }
  bool Deserialize(StreamBuffer&, void*) { return false; }
};

using Tree = RedBlackTree<uint32_t, Payload>;
using DayTree = RedBlackTree<uint16_t, Payload>;

template <typename K, typename V>
std::vector<K> Keys(RedBlackTree<K, V>& tree, bool descending = false) {
  std::vector<K> keys;
  bool ok = tree.Iterate(
      [&](const K& key, V&, void*, bool&) {
        keys.push_back(key);
        return true;
      },
      nullptr, descending);
  EXPECT_TRUE(ok);
  return keys;
}

template <typename K, typename V>
K KeyAt(const RedBlackTree<K, V>& tree, RBTIterator it) {
  return tree.__get_nodes().Get(it)->key;
}

TEST(RedBlackTreeTest, RandomInsertsAndErasesMatchStdMap) {
  Tree tree;
  ASSERT_TRUE(tree.Create(16));
  std::map<uint32_t, Payload> reference;
  std::mt19937 rng(20240611);
  std::uniform_int_distribution<uint32_t> key_of(0, 4999);
  constexpr int kOperations = 120000;
  for (int op = 1; op <= kOperations; ++op) {
    uint32_t key = key_of(rng);
    uint32_t action = rng() % 100;
    if (action < 50) {
      Payload value{static_cast<uint32_t>(op), static_cast<uint16_t>(key)};
      bool replace = action < 10;
      bool absent = reference.find(key) == reference.end();
      ASSERT_EQ(tree.Insert(key, value, replace), absent || replace) << op;
      if (absent || replace) reference[key] = value;
    } else if (action < 95) {
      ASSERT_EQ(tree.Erase(key), reference.erase(key) == 1) << op;
    } else {
      Payload found;
      auto it = reference.find(key);
      ASSERT_EQ(tree.Search(key, found), it != reference.end()) << op;
      if (it != reference.end()) {
        ASSERT_EQ(found, it->second);
      }
    }
    if (op % 1000 == 0) {
      ASSERT_TRUE(tree.__checkTreeProperties()) << op;
      ASSERT_EQ(tree.GetCount(), reference.size());
      ASSERT_EQ(Keys(tree).size(), tree.GetCount());
    }
  }
  ASSERT_TRUE(tree.__checkTreeProperties());
  std::vector<uint32_t> ascending;
  for (const auto& [key, value] : reference) ascending.push_back(key);
  EXPECT_EQ(Keys(tree), ascending);
  EXPECT_EQ(Keys(tree, true), std::vector<uint32_t>(ascending.rbegin(), ascending.rend()));
  // Red-black height bound: at most 2 log2(n + 1).
  EXPECT_LE(tree.__computeDepth(), 2 * std::log2(tree.GetCount() + 1.0));

  uint32_t key = 0;
  Payload value;
  while (!reference.empty()) {
    ASSERT_TRUE(tree.PopMin(key, value));
    ASSERT_EQ(key, reference.begin()->first);
    ASSERT_EQ(value, reference.begin()->second);
    reference.erase(reference.begin());
  }
  EXPECT_FALSE(tree.PopMin(key, value));
  EXPECT_TRUE(tree.__checkTreeProperties());
}

TEST(RedBlackTreeTest, BoundsAndNeighboursMatchStdMap) {
  DayTree tree;
  ASSERT_TRUE(tree.Create(0));
  std::map<uint16_t, Payload> reference;
  std::mt19937 rng(7);
  for (int i = 0; i < 800; ++i) {
    uint16_t day = static_cast<uint16_t>(10 + rng() % 3000);
    tree.Insert(day, Payload{day, 0});
    reference[day] = Payload{day, 0};
  }
  auto key_or_none = [&](auto it) {
    return it == reference.end() ? -1 : static_cast<int>(it->first);
  };
  auto tree_key = [&](RBTIterator it) {
    return it == kNoNode ? -1 : static_cast<int>(KeyAt(tree, it));
  };
  for (uint32_t probe = 0; probe <= 3020; ++probe) {
    uint16_t day = static_cast<uint16_t>(probe);
    ASSERT_EQ(tree_key(tree.GetLowerBound(day)), key_or_none(reference.lower_bound(day)));
    ASSERT_EQ(tree_key(tree.GetUpperBound(day)), key_or_none(reference.upper_bound(day)));
  }
  for (auto it = reference.begin(); it != reference.end(); ++it) {
    RBTIterator node = tree.Find(it->first);
    ASSERT_EQ(tree_key(tree.Next(node)), key_or_none(std::next(it)));
    int before = it == reference.begin() ? -1 : std::prev(it)->first;
    ASSERT_EQ(tree_key(tree.Prev(node)), before);
  }
  EXPECT_EQ(tree_key(tree.First()), reference.begin()->first);
  EXPECT_EQ(tree_key(tree.Last()), reference.rbegin()->first);

  // A range walk between bounds visits exactly the keys in [500, 1500].
  std::vector<uint16_t> in_range;
  ASSERT_TRUE(tree.Iterate(
      tree.GetLowerBound(500), tree.GetUpperBound(1500),
      [&](const uint16_t& key, Payload&, void*, bool&) {
        in_range.push_back(key);
        return true;
      },
      nullptr));
  std::vector<uint16_t> expected;
  for (auto it = reference.lower_bound(500); it != reference.upper_bound(1500); ++it) {
    expected.push_back(it->first);
  }
  EXPECT_EQ(in_range, expected);
}

// Comparators and predicates receive the caller's context unchanged.
TEST(RedBlackTreeTest, CustomOrderingUsesCallerContext) {
  struct Calls {
    int count = 0;
  } calls;
  auto descending = [](const uint32_t& a, const uint32_t& b, void* ctx) {
    ++static_cast<Calls*>(ctx)->count;
    return a > b ? -1 : (a < b ? 1 : 0);
  };
  auto greater = [](const uint32_t& a, const uint32_t& b, void* ctx) {
    ++static_cast<Calls*>(ctx)->count;
    return a > b;
  };
  Tree tree;
  ASSERT_TRUE(tree.Create(0));
  for (uint32_t key : {5u, 1u, 9u, 3u, 7u}) {
    ASSERT_TRUE(tree.Insert(key, {}, false, descending, &calls));
  }
  EXPECT_GT(calls.count, 0);
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{9, 7, 5, 3, 1}));
  EXPECT_TRUE(tree.__checkTreeProperties(descending, &calls));
  EXPECT_FALSE(tree.__checkTreeProperties());  // not ordered by the default comparator
  EXPECT_EQ(KeyAt(tree, tree.GetLowerBound(6, greater, &calls)), 5u);
  EXPECT_EQ(KeyAt(tree, tree.GetUpperBound(5, greater, &calls)), 3u);
  EXPECT_TRUE(tree.Contains(3, descending, &calls));
  EXPECT_TRUE(tree.Erase(3, descending, &calls));
  EXPECT_FALSE(tree.Contains(3, descending, &calls));
}

TEST(RedBlackTreeTest, ErasedSlotsAreReusedLastFreedFirst) {
  Tree tree;
  ASSERT_TRUE(tree.Create(16));
  std::map<uint32_t, RBTIterator> where;
  for (uint32_t key = 0; key < 12; ++key) {
    ASSERT_TRUE(tree.Insert(key, {}, false, Tree::DefaultComparator, nullptr, &where[key]));
  }
  const uint32_t slots = tree.__get_nodes().Count();
  const uint32_t capacity = tree.GetCapacity();

  // The root has two children: erasing it must not move any other entry.
  uint32_t root_key = KeyAt(tree, tree.GetRoot());
  ASSERT_TRUE(tree.Erase(root_key));
  ASSERT_TRUE(tree.Erase(3 == root_key ? 4 : 3));
  uint32_t last_erased = 3 == root_key ? 4 : 3;
  for (const auto& [key, index] : where) {
    if (key != root_key && key != last_erased) {
      EXPECT_EQ(tree.Find(key), index) << key;
    }
  }
  ASSERT_TRUE(tree.__checkTreeProperties());

  RBTIterator first = kNoNode;
  RBTIterator second = kNoNode;
  RBTIterator third = kNoNode;
  ASSERT_TRUE(tree.Insert(100, {}, false, Tree::DefaultComparator, nullptr, &first));
  ASSERT_TRUE(tree.Insert(101, {}, false, Tree::DefaultComparator, nullptr, &second));
  EXPECT_EQ(first, where[last_erased]);
  EXPECT_EQ(second, where[root_key]);
  EXPECT_EQ(tree.__get_nodes().Count(), slots);
  EXPECT_EQ(tree.GetCapacity(), capacity);
  ASSERT_TRUE(tree.Insert(102, {}, false, Tree::DefaultComparator, nullptr, &third));
  EXPECT_EQ(third, slots);  // free list empty: a new slot at the end
  EXPECT_TRUE(tree.__checkTreeProperties());
}

TEST(RedBlackTreeTest, ExistingKeyIsNeverAddedTwice) {
  Tree tree;
  ASSERT_TRUE(tree.Create(4));
  RBTIterator first = kNoNode;
  RBTIterator again = kNoNode;
  ASSERT_TRUE(tree.Insert(5, Payload{1, 1}, false, Tree::DefaultComparator, nullptr, &first));
  EXPECT_FALSE(tree.Insert(5, Payload{2, 2}, false, Tree::DefaultComparator, nullptr, &again));
  EXPECT_EQ(again, first);
  Payload value;
  ASSERT_TRUE(tree.Search(5, value));
  EXPECT_EQ(value, (Payload{1, 1}));

  Payload replacement{3, 3};
  EXPECT_TRUE(tree.Insert(5, replacement, true));
  ASSERT_TRUE(tree.Search(5, value));
  EXPECT_EQ(value, replacement);
  EXPECT_EQ(tree.GetCount(), 1u);
  EXPECT_EQ(tree.__get_nodes().Count(), 1u);
}

TEST(RedBlackTreeTest, EmptyTreeAnswersNothing) {
  tarn::test::LogCapture log;
  Tree tree;
  ASSERT_TRUE(tree.Create(0));
  uint32_t key = 0;
  uint32_t* key_pointer = nullptr;
  Payload value;
  EXPECT_EQ(tree.GetRoot(), kNoNode);
  EXPECT_FALSE(tree.GetMin(key, value));
  EXPECT_FALSE(tree.GetMax(key, value));
  EXPECT_EQ(tree.GetMinUnsafe(key_pointer), nullptr);
  EXPECT_FALSE(tree.Search(1, value));
  EXPECT_EQ(tree.SearchUnsafe(1), nullptr);
  EXPECT_FALSE(tree.PopMin(key, value));
  EXPECT_FALSE(tree.Erase(1));
  EXPECT_EQ(tree.GetLowerBound(0), kNoNode);
  EXPECT_EQ(tree.First(), kNoNode);
  bool called = false;
  EXPECT_TRUE(tree.Iterate([&](const uint32_t&, Payload&, void*, bool&) { return called = true; },
                           nullptr, false));
  EXPECT_FALSE(called);
  EXPECT_TRUE(tree.__checkTreeProperties());
  EXPECT_TRUE(log.Empty());  // misses are answers, not failures
}

TEST(RedBlackTreeTest, IterateStopsOnRequestOrOnFalse) {
  Tree tree;
  ASSERT_TRUE(tree.Create(0));
  for (uint32_t key = 1; key <= 10; ++key) tree.Insert(key, Payload{key * 10, 0});
  int context = 0;
  std::vector<uint32_t> seen;
  auto stop_after_three = [&](const uint32_t& key, Payload& value, void* ctx, bool& stop) {
    EXPECT_EQ(ctx, &context);
    EXPECT_EQ(value.number, key * 10);
    seen.push_back(key);
    stop = seen.size() == 3;
    return true;
  };
  EXPECT_TRUE(tree.Iterate(stop_after_three, &context, false));
  EXPECT_EQ(seen, (std::vector<uint32_t>{1, 2, 3}));
  seen.clear();
  EXPECT_TRUE(tree.Iterate(stop_after_three, &context, true));
  EXPECT_EQ(seen, (std::vector<uint32_t>{10, 9, 8}));

  int calls = 0;
  EXPECT_FALSE(tree.Iterate([&](const uint32_t&, Payload&, void*, bool&) { return ++calls < 4; },
                            nullptr, false));
  EXPECT_EQ(calls, 4);

  // The callback may change values in place.
  tree.Iterate(
      [](const uint32_t&, Payload& value, void*, bool&) {
        ++value.tag;
        return true;
      },
      nullptr, false);
  EXPECT_TRUE(tree.ProcessValue(
      4, [](const uint32_t&, Payload& value, void*) { return ++value.tag == 2; }, nullptr));
  EXPECT_EQ(tree.SearchUnsafe(4)->tag, 2);
  EXPECT_FALSE(tree.ProcessValue(
      99, [](const uint32_t&, Payload&, void*) { return true; }, nullptr));
}

TEST(RedBlackTreeTest, EraseWhileWalking) {
  Tree tree;
  ASSERT_TRUE(tree.Create(0));
  for (uint32_t key = 0; key < 200; ++key) tree.Insert(key, {});
  for (RBTIterator it = tree.First(); it != kNoNode;) {
    if (KeyAt(tree, it) % 2 == 0) {
      unsigned next = 0;
      ASSERT_TRUE(tree.EraseIterator(it, it, next));
      it = next;
    } else {
      it = tree.Next(it);
    }
  }
  EXPECT_EQ(tree.GetCount(), 100u);
  for (uint32_t key : Keys(tree)) EXPECT_EQ(key % 2, 1u);
  EXPECT_TRUE(tree.__checkTreeProperties());
}

TEST(RedBlackTreeTest, MisuseFailsWithOneLogRecordEach) {
  tarn::test::LogCapture log;
  Tree tree;
  uint32_t key = 0;
  Payload value;
  Buffer buffer;
  StreamBuffer stream;
  EXPECT_FALSE(tree.Insert(1, value));
  EXPECT_FALSE(tree.Search(1, value));
  EXPECT_FALSE(tree.GetMin(key, value));
  EXPECT_FALSE(
      tree.Iterate([](const uint32_t&, Payload&, void*, bool&) { return true; }, nullptr, false));
  EXPECT_FALSE(tree.Serialize(buffer, nullptr));
  EXPECT_FALSE(tree.Deserialize(stream, nullptr));
  EXPECT_FALSE(tree.__checkTreeProperties());
  auto records = log.Records();
  ASSERT_EQ(records.size(), 7u);
  for (const auto& record : records) {
    EXPECT_EQ(record.component, Log::Collections);
    EXPECT_EQ(record.message, RedBlackTreeLog::kNotInitialized);
  }

  ASSERT_TRUE(tree.InitializeLazy());
  ASSERT_TRUE(tree.Insert(1, value));
  log.Clear();
  EXPECT_FALSE(tree.EraseIterator(12345));
  EXPECT_EQ(tree.Next(7), kNoNode);
  ASSERT_EQ(log.Count(Log::Error), 2u);
  EXPECT_EQ(log.Records()[0].message, RedBlackTreeLog::kBadIterator);

  tree.Free();
  log.Clear();
  EXPECT_FALSE(tree.Contains(1));
  EXPECT_EQ(log.Count(Log::Error), 1u);
}

TEST(RedBlackTreeTest, NodeArrayMaximumIsRespected) {
  tarn::test::LogCapture log;
  Tree tree;
  EXPECT_FALSE(tree.Create(4, 2, 100, false, GrowType::Linear));
  EXPECT_EQ(log.Count(Log::Error), 1u);

  ASSERT_TRUE(tree.Create(1, 2, 1, false, GrowType::Linear));
  ASSERT_TRUE(tree.Insert(1, Payload{1, 0}));
  ASSERT_TRUE(tree.Insert(2, Payload{2, 0}));
  log.Clear();
  EXPECT_FALSE(tree.Insert(3, Payload{3, 0}));
  EXPECT_EQ(log.Count(Log::Error), 1u);
  EXPECT_EQ(tree.GetCount(), 2u);
  EXPECT_EQ(tree.__get_nodes().Count(), 2u);
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{1, 2}));
  EXPECT_TRUE(tree.__checkTreeProperties());

  // A freed slot is still usable at the maximum.
  ASSERT_TRUE(tree.Erase(1));
  EXPECT_TRUE(tree.Insert(3, Payload{3, 0}));
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{2, 3}));
}

// Builds a day tree with free slots in it, as a long-lived index has.
DayTree MakeDayTree() {
  DayTree tree;
  EXPECT_TRUE(tree.Create(8));
  for (uint16_t day = 100; day < 140; ++day) tree.Insert(day, Payload{day * 3u, day});
  for (uint16_t day : {105, 120, 101, 133}) tree.Erase(day);
  return tree;
}

TEST(RedBlackTreeTest, SerializeRoundTripsStructureAndContent) {
  DayTree original = MakeDayTree();
  Buffer buffer;
  ASSERT_TRUE(buffer.Create(64));
  ASSERT_TRUE(original.Serialize(buffer, nullptr));
  const auto& nodes = original.__get_nodes();
  // 18 header bytes; per slot 20 bytes of links and colour, 2 of key, 6 of value.
  ASSERT_EQ(buffer.Size(), 18u + nodes.Count() * 28u);
  StreamBuffer header(buffer);
  uint32_t root = 0, next_free = 0, count = 0, slots = 0;
  uint16_t zero = 1;
  ASSERT_TRUE(header.ReadUInt32(root) && header.ReadUInt32(next_free) && header.ReadUInt32(count) &&
              header.ReadUInt16(zero) && header.ReadUInt32(slots));
  EXPECT_EQ(root, original.GetRoot());
  EXPECT_NE(next_free, kNoNode);
  EXPECT_EQ(count, 36u);
  EXPECT_EQ(zero, 0u);
  EXPECT_EQ(slots, 40u);

  DayTree copy;
  ASSERT_TRUE(copy.Create(0));
  ASSERT_TRUE(copy.Insert(7, Payload{}));  // replaced by what is read
  StreamBuffer stream(buffer);
  ASSERT_TRUE(copy.Deserialize(stream, nullptr));
  EXPECT_EQ(stream.Remaining(), 0u);
  EXPECT_EQ(copy.GetRoot(), original.GetRoot());
  EXPECT_EQ(copy.GetCount(), original.GetCount());
  ASSERT_EQ(copy.__get_nodes().Count(), nodes.Count());
  for (uint32_t i = 0; i < nodes.Count(); ++i) {
    const auto& a = *nodes.Get(i);
    const auto& b = *copy.__get_nodes().Get(i);
    EXPECT_TRUE(a.key == b.key && a.value == b.value && a.left == b.left && a.right == b.right &&
                a.parent == b.parent && a.next_free == b.next_free && a.color == b.color)
        << "slot " << i;
  }
  EXPECT_TRUE(copy.__checkTreeProperties());
  // The free list came along: both trees reuse the same slot next.
  RBTIterator in_original = kNoNode;
  RBTIterator in_copy = kNoNode;
  original.Insert(500, Payload{}, false, DayTree::DefaultComparator, nullptr, &in_original);
  copy.Insert(500, Payload{}, false, DayTree::DefaultComparator, nullptr, &in_copy);
  EXPECT_EQ(in_copy, in_original);
}

TEST(RedBlackTreeTest, DeserializeRejectsShortOrInconsistentBytes) {
  tarn::test::LogCapture log;
  DayTree original = MakeDayTree();
  Buffer buffer;
  ASSERT_TRUE(buffer.Create(64));
  ASSERT_TRUE(original.Serialize(buffer, nullptr));

  DayTree target;
  ASSERT_TRUE(target.Create(0));
  target.Insert(1, Payload{1, 1});
  for (uint64_t length = 0; length < buffer.Size(); ++length) {
    StreamBuffer stream(buffer.Data(), length);
    ASSERT_FALSE(target.Deserialize(stream, nullptr)) << length;
    ASSERT_EQ(stream.Position(), 0u);
  }
  EXPECT_EQ(Keys(target), std::vector<uint16_t>{1});
  EXPECT_TRUE(target.__checkTreeProperties());

  // A parent link that disagrees with its child is caught, not trusted.
  std::vector<uint8_t> bytes(buffer.Data(), buffer.Data() + buffer.Size());
  const size_t root_record = 18 + original.GetRoot() * 28;
  uint32_t bogus_parent = 3;
  std::memcpy(&bytes[root_record + 8], &bogus_parent, 4);
  StreamBuffer corrupt(bytes.data(), bytes.size());
  log.Clear();
  EXPECT_FALSE(target.Deserialize(corrupt, nullptr));
  EXPECT_EQ(log.Count(Log::Error), 1u);
  EXPECT_EQ(Keys(target), std::vector<uint16_t>{1});
}

TEST(RedBlackTreeTest, RefusingValueSerializesOnlyAnEmptyNodeArray) {
  RedBlackTree<uint16_t, Refusing> tree;
  ASSERT_TRUE(tree.Create(0));
  Buffer buffer;
  ASSERT_TRUE(buffer.Create(16));
  ASSERT_TRUE(tree.Serialize(buffer, nullptr));
  EXPECT_EQ(buffer.Size(), 18u);

  buffer.Reset();
  tree.Insert(1, Refusing{});
  EXPECT_FALSE(tree.Serialize(buffer, nullptr));
  EXPECT_EQ(buffer.Size(), 0u);  // nothing half-written is left behind
  tree.Erase(1);                 // a free slot is still a slot
  EXPECT_FALSE(tree.Serialize(buffer, nullptr));
}

TEST(RedBlackTreeTest, CopiesAreIndependentAndMovesTransfer) {
  Tree tree;
  ASSERT_TRUE(tree.Create(0, kUnlimited, 100, true));
  for (uint32_t key = 0; key < 50; ++key) tree.Insert(key, {});
  Tree copy(tree);
  EXPECT_NE(copy.__get_mutex(), nullptr);
  EXPECT_NE(copy.__get_mutex(), tree.__get_mutex());
  tree.Erase(10);
  EXPECT_TRUE(copy.Contains(10));
  EXPECT_EQ(copy.GetCount(), 50u);

  Tree assigned;
  assigned = copy;
  EXPECT_EQ(assigned.__get_mutex(), nullptr);  // assignment keeps the lock setting
  EXPECT_EQ(Keys(assigned), Keys(copy));

  Tree moved(std::move(copy));
  EXPECT_EQ(moved.GetCount(), 50u);
  EXPECT_TRUE(moved.__checkTreeProperties());
  EXPECT_FALSE(copy.IsInitialized());  // NOLINT(bugprone-use-after-move): moved-from state
}

TEST(RedBlackTreeTest, LockedTreeSerialisesConcurrentWriters) {
  Tree tree;
  ASSERT_TRUE(tree.Create(0, kUnlimited, 100, true));
  ASSERT_NE(tree.__get_mutex(), nullptr);
  auto writer = [&](uint32_t first) {
    for (uint32_t key = first; key < first + 20000; ++key) {
      tree.Insert(key, {});
      if (key % 3 == 0) tree.Erase(key);
    }
  };
  std::thread a(writer, 0);
  std::thread b(writer, 1000000);
  a.join();
  b.join();
  uint32_t expected = 0;
  for (uint32_t first : {0u, 1000000u}) {
    for (uint32_t key = first; key < first + 20000; ++key) expected += key % 3 != 0;
  }
  EXPECT_EQ(tree.GetCount(), expected);
  EXPECT_TRUE(tree.__checkTreeProperties());
  ASSERT_TRUE(tree.Create(0, kUnlimited, 100, false));
  EXPECT_EQ(tree.__get_mutex(), nullptr);
}

}  // namespace
}  // namespace Keel::Collections
