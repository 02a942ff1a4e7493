#include "Keel/Collections/RedBlackTree.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <algorithm>
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
  auto collect = [&](const K& key, V&, void*, bool&) { return keys.push_back(key), true; };
  EXPECT_TRUE(tree.Iterate(collect, nullptr, descending));
  return keys;
}

template <typename K, typename V>
K KeyAt(const RedBlackTree<K, V>& tree, RBTIterator it) {
  return tree.__get_nodes().Get(it)->key;
}

// Inserts remembering where each key went.
RBTIterator InsertAt(Tree& tree, uint32_t key, Payload value = {}) {
  RBTIterator where = kNoNode;
  tree.Insert(key, value, false, Tree::DefaultComparator, nullptr, &where);
  return where;
}

TEST(RedBlackTreeTest, RandomOperationsBoundsAndWalksMatchStdMap) {
  Tree tree;
  ASSERT_TRUE(tree.Create(16));
  std::map<uint32_t, Payload> reference;
  std::mt19937 rng(20240611);
  for (int op = 1; op <= 120000; ++op) {
    uint32_t key = rng() % 5000;
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
    }
  }
  std::vector<uint32_t> ascending;
  for (const auto& [key, value] : reference) ascending.push_back(key);
  EXPECT_EQ(Keys(tree), ascending);
  EXPECT_EQ(Keys(tree, true), std::vector<uint32_t>(ascending.rbegin(), ascending.rend()));
  // Red-black height bound: at most 2 log2(n + 1).
  EXPECT_LE(tree.__computeDepth(), 2 * std::log2(tree.GetCount() + 1.0));

  auto ref_key = [&](auto it) { return it == reference.end() ? -1 : int(it->first); };
  auto tree_key = [&](RBTIterator it) { return it == kNoNode ? -1 : int(KeyAt(tree, it)); };
  for (uint32_t probe = 0; probe <= 5001; ++probe) {
    ASSERT_EQ(tree_key(tree.GetLowerBound(probe)), ref_key(reference.lower_bound(probe)));
    ASSERT_EQ(tree_key(tree.GetUpperBound(probe)), ref_key(reference.upper_bound(probe)));
  }
  for (auto it = reference.begin(); it != reference.end(); ++it) {
    RBTIterator node = tree.Find(it->first);
    ASSERT_EQ(tree_key(tree.Next(node)), ref_key(std::next(it)));
    ASSERT_EQ(tree_key(tree.Prev(node)), it == reference.begin() ? -1 : int(std::prev(it)->first));
  }
  EXPECT_EQ(tree_key(tree.First()), ref_key(reference.begin()));
  EXPECT_EQ(tree_key(tree.Last()), int(reference.rbegin()->first));
  // A range walk between bounds visits exactly the keys in [1000, 3000].
  std::vector<uint32_t> in_range;
  auto collect = [&](const uint32_t& key, Payload&, void*, bool&) {
    return in_range.push_back(key), true;
  };
  ASSERT_TRUE(tree.Iterate(tree.GetLowerBound(1000), tree.GetUpperBound(3000), collect, nullptr));
  EXPECT_EQ(in_range,
            std::vector<uint32_t>(std::lower_bound(ascending.begin(), ascending.end(), 1000),
                                  std::upper_bound(ascending.begin(), ascending.end(), 3000)));

  uint32_t key = 0;
  Payload value;
  for (; !reference.empty(); reference.erase(reference.begin())) {
    ASSERT_TRUE(tree.PopMin(key, value));
    ASSERT_EQ(key, reference.begin()->first);
    ASSERT_EQ(value, reference.begin()->second);
  }
  EXPECT_FALSE(tree.PopMin(key, value));
  EXPECT_TRUE(tree.__checkTreeProperties());
}

// Comparators and predicates receive the caller's context unchanged.
TEST(RedBlackTreeTest, CustomOrderingUsesCallerContext) {
  int calls = 0;
  auto descending = [](const uint32_t& a, const uint32_t& b, void* ctx) {
    ++*static_cast<int*>(ctx);
    return a > b ? -1 : (a < b ? 1 : 0);
  };
  auto greater = [](const uint32_t& a, const uint32_t& b, void* ctx) {
    ++*static_cast<int*>(ctx);
    return a > b;
  };
  Tree tree;
  ASSERT_TRUE(tree.Create(0));
  for (uint32_t key : {5u, 1u, 9u, 3u, 7u}) {
    ASSERT_TRUE(tree.Insert(key, {}, false, descending, &calls));
  }
  EXPECT_GT(calls, 0);
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{9, 7, 5, 3, 1}));
  EXPECT_TRUE(tree.__checkTreeProperties(descending, &calls));
  EXPECT_FALSE(tree.__checkTreeProperties());  // not ordered by the default comparator
  EXPECT_EQ(KeyAt(tree, tree.GetLowerBound(6, greater, &calls)), 5u);
  EXPECT_EQ(KeyAt(tree, tree.GetUpperBound(5, greater, &calls)), 3u);
  EXPECT_TRUE(tree.Erase(3, descending, &calls));
  EXPECT_FALSE(tree.Contains(3, descending, &calls));
}

// Node positions are what callers hold on to: they must stay put, and
// freed ones are reused last freed first before the array grows.
TEST(RedBlackTreeTest, PositionsAreStableAndFreedSlotsReused) {
  Tree tree;
  ASSERT_TRUE(tree.Create(16));
  std::map<uint32_t, RBTIterator> where;
  for (uint32_t key = 0; key < 12; ++key) where[key] = InsertAt(tree, key, Payload{key, 1});
  const uint32_t slots = tree.__get_nodes().Count();
  const uint32_t capacity = tree.GetCapacity();

  // An existing key is neither added twice nor replaced, and takes no slot.
  Payload value;
  EXPECT_FALSE(tree.Insert(5, Payload{2, 2}));
  EXPECT_EQ(InsertAt(tree, 5, Payload{2, 2}), where[5]);
  ASSERT_TRUE(tree.Search(5, value));
  EXPECT_EQ(value, (Payload{5, 1}));
  EXPECT_TRUE(tree.Insert(5, Payload{5, 1}, true));  // replacing takes none either
  EXPECT_EQ(tree.__get_nodes().Count(), slots);

  // The root has two children: erasing it must not move any other entry.
  uint32_t root_key = KeyAt(tree, tree.GetRoot());
  uint32_t last_erased = root_key == 3 ? 4 : 3;
  ASSERT_TRUE(tree.Erase(root_key));
  ASSERT_TRUE(tree.Erase(last_erased));
  for (const auto& [key, index] : where) {
    if (key != root_key && key != last_erased) {
      EXPECT_EQ(tree.Find(key), index) << key;
    }
  }
  ASSERT_TRUE(tree.__checkTreeProperties());

  EXPECT_EQ(InsertAt(tree, 100), where[last_erased]);
  EXPECT_EQ(InsertAt(tree, 101), where[root_key]);
  EXPECT_EQ(tree.__get_nodes().Count(), slots);
  EXPECT_EQ(tree.GetCapacity(), capacity);
  EXPECT_EQ(InsertAt(tree, 102), slots);  // free list empty: a new slot at the end
  EXPECT_TRUE(tree.__checkTreeProperties());
}

TEST(RedBlackTreeTest, WalksStopOnRequestOrOnFalseAndMayChangeTheTree) {
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
  auto fourth_fails = [&](const uint32_t&, Payload&, void*, bool&) { return ++calls < 4; };
  EXPECT_FALSE(tree.Iterate(fourth_fails, nullptr, false));
  EXPECT_EQ(calls, 4);

  // Values change in place.
  tree.Iterate([](const uint32_t&, Payload& value, void*, bool&) { return ++value.tag != 0; },
               nullptr, false);
  auto bump = [](const uint32_t&, Payload& value, void*) { return ++value.tag == 2; };
  EXPECT_TRUE(tree.ProcessValue(4, bump, nullptr));
  EXPECT_EQ(tree.SearchUnsafe(4)->tag, 2);
  EXPECT_FALSE(tree.ProcessValue(99, bump, nullptr));

  // Erasing while walking continues from the successor it hands back.
  for (uint32_t key = 11; key < 200; ++key) tree.Insert(key, {});
  for (RBTIterator it = tree.First(); it != kNoNode;) {
    unsigned next = 0;
    if (KeyAt(tree, it) % 2 == 1) {
      it = tree.Next(it);
      continue;
    }
    ASSERT_TRUE(tree.EraseIterator(it, it, next));
    it = next;
  }
  EXPECT_EQ(tree.GetCount(), 100u);
  for (uint32_t key : Keys(tree)) EXPECT_EQ(key % 2, 1u);
  EXPECT_TRUE(tree.__checkTreeProperties());
}

// Misses on an empty tree are answers and write nothing; use before Create,
// after Free or with a dead position is misuse and writes one record.
TEST(RedBlackTreeTest, EmptyTreeAnswersQuietlyMisuseFailsWithOneRecordEach) {
  tarn::test::LogCapture log;
  Tree tree;
  uint32_t key = 0;
  uint32_t* key_pointer = nullptr;
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

  log.Clear();
  ASSERT_TRUE(tree.Create(0));
  EXPECT_EQ(tree.GetRoot(), kNoNode);
  EXPECT_FALSE(tree.GetMin(key, value) || tree.GetMax(key, value) || tree.Search(1, value) ||
               tree.PopMin(key, value) || tree.Erase(1));
  EXPECT_EQ(tree.GetMinUnsafe(key_pointer), nullptr);
  EXPECT_EQ(tree.SearchUnsafe(1), nullptr);
  EXPECT_EQ(tree.GetLowerBound(0), kNoNode);
  EXPECT_EQ(tree.First(), kNoNode);
  EXPECT_TRUE(Keys(tree).empty());
  EXPECT_TRUE(tree.__checkTreeProperties());
  EXPECT_TRUE(log.Empty());

  ASSERT_TRUE(tree.InitializeLazy());
  ASSERT_TRUE(tree.Insert(1, value));
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
  EXPECT_EQ(tree.__get_nodes().Count(), 2u);
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{1, 2}));
  EXPECT_TRUE(tree.__checkTreeProperties());

  // A freed slot is still usable at the maximum.
  ASSERT_TRUE(tree.Erase(1));
  EXPECT_TRUE(tree.Insert(3, Payload{3, 0}));
  EXPECT_EQ(Keys(tree), (std::vector<uint32_t>{2, 3}));
}

// A day tree with free slots in it, as a long-lived index has, serialized.
Buffer SerializedDayTree(DayTree& tree) {
  EXPECT_TRUE(tree.Create(8));
  for (uint16_t day = 100; day < 140; ++day) tree.Insert(day, Payload{day * 3u, day});
  for (uint16_t day : {105, 120, 101, 133}) tree.Erase(day);
  Buffer buffer;
  EXPECT_TRUE(buffer.Create(64));
  EXPECT_TRUE(tree.Serialize(buffer, nullptr));
  return buffer;
}

// The index file stores this form: 18 header bytes (root, free list head,
// count, a zero, slot count), then per slot 20 bytes of links and colour,
// the key and the value.
TEST(RedBlackTreeTest, SerializeRoundTripsStructureAndContent) {
  DayTree original;
  Buffer buffer = SerializedDayTree(original);
  const auto& nodes = original.__get_nodes();
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
  // Every slot, free ones included, came back as it was.
  Buffer again;
  ASSERT_TRUE(again.Create(64) && copy.Serialize(again, nullptr));
  ASSERT_EQ(again.Size(), buffer.Size());
  EXPECT_EQ(std::memcmp(again.Data(), buffer.Data(), buffer.Size()), 0);
  EXPECT_TRUE(copy.__checkTreeProperties());
  // The free list came along: both trees reuse the same slot next.
  RBTIterator in_original = kNoNode, in_copy = kNoNode;
  original.Insert(500, Payload{}, false, DayTree::DefaultComparator, nullptr, &in_original);
  copy.Insert(500, Payload{}, false, DayTree::DefaultComparator, nullptr, &in_copy);
  EXPECT_EQ(in_copy, in_original);
}

TEST(RedBlackTreeTest, DeserializeRejectsShortOrInconsistentBytes) {
  tarn::test::LogCapture log;
  DayTree original;
  Buffer buffer = SerializedDayTree(original);
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
  uint32_t bogus_parent = 3;
  std::memcpy(&bytes[18 + original.GetRoot() * 28 + 8], &bogus_parent, 4);
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

TEST(RedBlackTreeTest, LockedTreeSerialisesWritersAndCopiesGetTheirOwnLock) {
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
  // 0..19999 keeps 13333 keys; 1000000..1019999 (1000000 = 1 mod 3) keeps 13334.
  EXPECT_EQ(tree.GetCount(), 26667u);
  EXPECT_TRUE(tree.__checkTreeProperties());

  Tree copy(tree);
  EXPECT_NE(copy.__get_mutex(), nullptr);
  EXPECT_NE(copy.__get_mutex(), tree.__get_mutex());
  tree.Erase(1);
  EXPECT_TRUE(copy.Contains(1));
  EXPECT_EQ(copy.GetCount(), 26667u);
  Tree assigned;
  assigned = copy;
  EXPECT_EQ(assigned.__get_mutex(), nullptr);  // assignment keeps the lock setting
  EXPECT_EQ(Keys(assigned), Keys(copy));
  Tree moved(std::move(copy));
  EXPECT_EQ(moved.GetCount(), 26667u);
  EXPECT_TRUE(moved.__checkTreeProperties());
  EXPECT_FALSE(copy.IsInitialized());  // NOLINT(bugprone-use-after-move): moved-from state
  ASSERT_TRUE(tree.Create(0, kUnlimited, 100, false));
  EXPECT_EQ(tree.__get_mutex(), nullptr);
}

}  // namespace
}  // namespace Keel::Collections
