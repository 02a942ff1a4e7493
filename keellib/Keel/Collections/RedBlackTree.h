#pragma once

#include <cstdint>
#include <exception>
#include <functional>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/Collections/StreamBuffer.h"
#include "Keel/Log.h"
#include "Keel/OS/Threading.h"

namespace Keel::Collections {

// Position of a node in a tree's node array. kNoNode stands for an absent
// child, the parent of the root, an empty root and a failed search.
using RBTIterator = uint32_t;
constexpr RBTIterator kNoNode = 0xFFFFFFFFu;

// Log message identifiers of the tree (component Log::Collections).
namespace RedBlackTreeLog {
enum Message : uint32_t {
  kNotInitialized = 20,
  kCreateFailed = 21,
  kBadIterator = 22,
  kNodeArrayFull = 23,
  kSerializeFailed = 24,
  kDeserializeFailed = 25,
  kPropertyViolated = 26,
  kCopyFailed = 27,
};
}  // namespace RedBlackTreeLog

// An ordered map whose nodes live in one growable Array and refer to one
// another by index, so the tree can be copied or written out as a flat array.
// Erasing never moves another node: indices of live nodes stay valid until
// that node is erased. Freed slots are reused last-freed-first and the node
// array never shrinks.
//
// A tree created with `locked` true takes its mutex for every public call; the
// lock is not recursive, so callbacks must not call back into the tree.
// A miss (absent key, refused duplicate, empty tree) returns false without a
// log record; real failures (uninitialised tree, bad position, full node
// array, refused serialisation) log one.
//
// Values must provide `bool Serialize(Buffer&, void*)` and
// `bool Deserialize(StreamBuffer&, void*)`, even if they refuse both.
template <typename Key, typename Value>
class RedBlackTree {
 public:
  struct Node {
    enum Color : uint8_t { Red = 0, Black = 1 };
    enum Side : uint8_t { Left = 0, Right = 1 };

    Key key{};
    Value value{};
    RBTIterator left = kNoNode;
    RBTIterator right = kNoNode;
    RBTIterator parent = kNoNode;
    RBTIterator next_free = kNoNode;
    Color color = Black;
  };
  using Color = typename Node::Color;
  using Side = typename Node::Side;

  // Ordering: negative, zero or positive. Bound predicate: "a is less than b".
  using Comparator = int (*)(const Key& a, const Key& b, void* context);
  using Predicate = bool (*)(const Key& a, const Key& b, void* context);
  using Visitor = std::function<bool(const Key&, Value&, void* context, bool& stop)>;
  using Processor = std::function<bool(const Key&, Value&, void* context)>;
  using Mutex = OS::Threading::Mutex;
  using MutexGuard = OS::Threading::MutexGuard;

  static int DefaultComparator(const Key& a, const Key& b, void*) {
    if (a < b) return -1;
    return b < a ? 1 : 0;
  }
  static bool DefaultLess(const Key& a, const Key& b, void*) { return a < b; }

  // ---- Life cycle -------------------------------------------------------

  RedBlackTree() = default;
  RedBlackTree(const RedBlackTree& other) { InitializeObjectFrom(other); }
  RedBlackTree(RedBlackTree&& other) noexcept { TakeFrom(other); }
  RedBlackTree& operator=(const RedBlackTree& other) {
    if (this != &other) Assign(other);
    return *this;
  }
  RedBlackTree& operator=(RedBlackTree&& other) noexcept {
    if (this != &other) {
      UninitializeObject();
      TakeFrom(other);
    }
    return *this;
  }
  ~RedBlackTree() { UninitializeObject(); }

  // Copies the other tree's nodes and state; this tree keeps its own lock
  // setting. On failure this tree is left as it was.
  bool Assign(const RedBlackTree& other) {
    RedBlackTree copy;
    if (!other.CopyStateTo(copy)) return false;
    MutexGuard guard(mutex_);
    root_ = copy.root_;
    nodes_ = std::move(copy.nodes_);
    count_ = copy.count_;
    next_free_ = copy.next_free_;
    initialized_ = copy.initialized_;
    return true;
  }

  // The object-style life cycle: each returns the tree to a known state.
  void InitializeObject() { UninitializeObject(); }
  void ReinitializeObject() { UninitializeObject(); }
  // A copy that also copies the lock setting (a locked tree gets a new mutex).
  bool InitializeObjectFrom(const RedBlackTree& other) {
    UninitializeObject();
    if (other.mutex_ != nullptr && !MakeMutex()) return false;
    return Assign(other);
  }
  bool ReinitializeObjectFrom(const RedBlackTree& other) { return InitializeObjectFrom(other); }
  void UninitializeObject() {
    Free();
    delete mutex_;
    mutex_ = nullptr;
  }

  // Sets up an empty tree. The growth numbers go to the node array's Create:
  // `initial` slots, at most `second` slots, growth `third` by `grow`.
  bool Create(uint32_t initial = 0, uint32_t second = kUnlimited, uint32_t third = 100,
              bool locked = false, GrowType::Type grow = GrowType::Percent) {
    if (!locked) {
      delete mutex_;
      mutex_ = nullptr;
    } else if (mutex_ == nullptr && !MakeMutex()) {
      return false;
    }
    MutexGuard guard(mutex_);
    root_ = kNoNode;
    count_ = 0;
    next_free_ = kNoNode;
    // Storage left from an earlier Create is released: the array checks its
    // maximum only when it grows.
    nodes_.Free();
    initialized_ = nodes_.Create(initial, second, third, grow);
    if (!initialized_) {
      KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kCreateFailed, initial, second, 0);
    }
    return initialized_;
  }

  // Creates the tree with default growth if Create was never called.
  bool InitializeLazy() {
    if (initialized_) return true;
    return Create(0, kUnlimited, 100, mutex_ != nullptr, GrowType::Percent);
  }

  // Drops every node and keeps the storage.
  void Clear() {
    MutexGuard guard(mutex_);
    nodes_.Clear();
    ResetLinks();
  }

  // Releases the storage; the tree must be created again before use.
  void Free() {
    MutexGuard guard(mutex_);
    nodes_.Free();
    ResetLinks();
    initialized_ = false;
  }

  bool IsInitialized() const { return initialized_; }

  // ---- Queries ----------------------------------------------------------

  uint32_t GetCount() const {
    MutexGuard guard(mutex_);
    return count_;
  }
  uint32_t GetCapacity() const {
    MutexGuard guard(mutex_);
    return nodes_.Capacity();
  }
  RBTIterator GetRoot() const {
    MutexGuard guard(mutex_);
    return root_;
  }

  RBTIterator Find(const Key& key, Comparator cmp = DefaultComparator, void* ctx = nullptr) const {
    MutexGuard guard(mutex_);
    return Ready() ? SearchKeyIdx(key, cmp, ctx) : kNoNode;
  }
  bool Contains(const Key& key, Comparator cmp = DefaultComparator, void* ctx = nullptr) const {
    return Find(key, cmp, ctx) != kNoNode;
  }
  bool Search(const Key& key, Value& out, Comparator cmp = DefaultComparator,
              void* ctx = nullptr) const {
    Key found;
    return SearchKey(key, found, out, cmp, ctx);
  }
  // Like Search, and also hands back the stored key (which may differ from
  // `key` under a comparator that treats several keys as equal).
  bool SearchKey(const Key& key, Key& found_key, Value& out, Comparator cmp = DefaultComparator,
                 void* ctx = nullptr) const {
    MutexGuard guard(mutex_);
    if (!Ready()) return false;
    RBTIterator i = SearchKeyIdx(key, cmp, ctx);
    if (i == kNoNode) return false;
    found_key = Nodes(i).key;
    out = Nodes(i).value;
    return true;
  }
  // A pointer into the node array, valid until the next insertion.
  Value* SearchUnsafe(const Key& key, Comparator cmp = DefaultComparator, void* ctx = nullptr) {
    MutexGuard guard(mutex_);
    if (!Ready()) return nullptr;
    RBTIterator i = SearchKeyIdx(key, cmp, ctx);
    return i == kNoNode ? nullptr : &Nodes(i).value;
  }

  bool Get(RBTIterator it, Key& key, Value& value) const {
    MutexGuard guard(mutex_);
    if (!Ready() || !CheckLive(it)) return false;
    key = Nodes(it).key;
    value = Nodes(it).value;
    return true;
  }
  bool GetUnsafe(RBTIterator it, Key*& key, Value*& value) {
    MutexGuard guard(mutex_);
    if (!Ready() || !CheckLive(it)) return false;
    key = &Nodes(it).key;
    value = &Nodes(it).value;
    return true;
  }

  bool GetMin(Key& key, Value& value) const { return CopyEnd(false, key, value); }
  bool GetMax(Key& key, Value& value) const { return CopyEnd(true, key, value); }
  Value* GetMinUnsafe(Key*& key) { return PointAtEnd(false, key); }
  Value* GetMaxUnsafe(Key*& key) { return PointAtEnd(true, key); }

  // First node whose key is not less than `key`, or kNoNode.
  RBTIterator GetLowerBound(const Key& key, Predicate less = DefaultLess,
                            void* ctx = nullptr) const {
    return Bound(key, less, ctx, false);
  }
  // First node whose key is greater than `key`, or kNoNode.
  RBTIterator GetUpperBound(const Key& key, Predicate less = DefaultLess,
                            void* ctx = nullptr) const {
    return Bound(key, less, ctx, true);
  }

  // Walking by position: smallest, largest, next and previous live node.
  RBTIterator First() const { return EndNode(false); }
  RBTIterator Last() const { return EndNode(true); }
  RBTIterator Next(RBTIterator it) const { return Step(it, false); }
  RBTIterator Prev(RBTIterator it) const { return Step(it, true); }

  // Calls `fn` on the stored value of `key` in place; its result is returned.
  bool ProcessValue(const Key& key, const Processor& fn, void* ctx) {
    MutexGuard guard(mutex_);
    if (!Ready()) return false;
    RBTIterator i = SearchKeyIdx(key, DefaultComparator, nullptr);
    if (i == kNoNode) return false;
    return fn(Nodes(i).key, Nodes(i).value, ctx);
  }

  // ---- Changes ----------------------------------------------------------

  // Adds `key`. An existing key is never added twice: with `replace` true its
  // value is replaced (true), otherwise the call refuses (false) and keeps the
  // old value. `where` receives the key's node either way.
  bool Insert(const Key& key, const Value& value, bool replace = false,
              Comparator cmp = DefaultComparator, void* ctx = nullptr,
              RBTIterator* where = nullptr) {
    MutexGuard guard(mutex_);
    return __insert(key, value, replace, cmp, ctx, where);
  }
  bool Insert(const Key& key, Value&& value, bool replace = false,
              Comparator cmp = DefaultComparator, void* ctx = nullptr,
              RBTIterator* where = nullptr) {
    MutexGuard guard(mutex_);
    return __insert(key, std::move(value), replace, cmp, ctx, where);
  }

  bool Erase(const Key& key, Comparator cmp = DefaultComparator, void* ctx = nullptr) {
    MutexGuard guard(mutex_);
    if (!Ready()) return false;
    RBTIterator i = SearchKeyIdx(key, cmp, ctx);
    if (i == kNoNode) return false;
    DeleteBSTByIdx(i);
    return true;
  }

  // Erasing by position compares no keys; the comparator is accepted so that
  // every erase has the same shape.
  bool EraseIterator(RBTIterator it, Comparator = DefaultComparator, void* = nullptr) {
    MutexGuard guard(mutex_);
    if (!Ready() || !CheckLive(it)) return false;
    DeleteBSTByIdx(it);
    return true;
  }
  // Erases `it` and tells where the caller's position `hint` is afterwards:
  // unchanged for any other node, the successor of `it` when hint == it. This
  // lets a walk erase the node it stands on and carry on.
  bool EraseIterator(RBTIterator it, RBTIterator hint, unsigned& out,
                     Comparator = DefaultComparator, void* = nullptr) {
    MutexGuard guard(mutex_);
    if (!Ready() || !CheckLive(it)) return false;
    out = hint == it ? Successor(it) : hint;
    DeleteBSTByIdx(it);
    return true;
  }

  // Moves the smallest entry out and erases it.
  bool PopMin(Key& key, Value& value) {
    MutexGuard guard(mutex_);
    if (!Ready() || root_ == kNoNode) return false;
    RBTIterator i = TreeMinimum(root_);
    key = Nodes(i).key;
    value = std::move(Nodes(i).value);
    DeleteBSTByIdx(i);
    return true;
  }

  // ---- Walks ------------------------------------------------------------

  // Visits every live node in key order, descending when `descending` is
  // true. A false result from `fn` ends the walk with false; setting `stop`
  // ends it with true. `fn` must not change the tree.
  bool Iterate(const Visitor& fn, void* ctx, bool descending = false) {
    MutexGuard guard(mutex_);
    if (!Ready()) return false;
    RBTIterator i = descending ? TreeMaximum(root_) : TreeMinimum(root_);
    return Walk(i, kNoNode, descending, fn, ctx);
  }
  // Visits the half-open range [from, to) in ascending order; kNoNode as `to`
  // walks to the end, so bounds compose: Iterate(GetLowerBound(a),
  // GetUpperBound(b), ...) visits the keys in [a, b]. `to` must not precede
  // `from`.
  bool Iterate(RBTIterator from, RBTIterator to, const Visitor& fn, void* ctx) {
    MutexGuard guard(mutex_);
    if (!Ready()) return false;
    if ((from != kNoNode && !CheckLive(from)) || (to != kNoNode && !CheckLive(to))) return false;
    return Walk(from, to, false, fn, ctx);
  }

  // ---- Diagnostics and persistence (RedBlackTreeDiagnostics.h) -----------

  // Verifies the red-black and order properties, parent links, the count and
  // the free list. Logs the first violation found.
  bool __checkTreeProperties(Comparator cmp = DefaultComparator, void* ctx = nullptr) const;
  // Number of nodes on the longest root-to-leaf path (0 when empty).
  uint32_t __computeDepth() const;
  uint64_t __memory_usage() const;
  void __print() const {}
  const Array<Node>& __get_nodes() const { return nodes_; }
  Mutex* __get_mutex() const { return mutex_; }

  bool Serialize(Buffer& buffer, void* ctx);
  bool Deserialize(StreamBuffer& stream, void* ctx);

 protected:
  // ---- Building blocks; callers hold the lock ----------------------------

  Node& Nodes(RBTIterator i) { return *nodes_.Get(i); }
  const Node& Nodes(RBTIterator i) const { return *nodes_.Get(i); }
  RBTIterator GetParent(RBTIterator i) const { return i == kNoNode ? kNoNode : Nodes(i).parent; }
  // Absent nodes count as black.
  Color GetColor(RBTIterator i) const { return i == kNoNode ? Node::Black : Nodes(i).color; }
  void SetColor(RBTIterator i, Color c) {
    if (i != kNoNode) Nodes(i).color = c;
  }
  bool IsRoot(RBTIterator i) const { return i != kNoNode && i == root_; }
  // Live nodes are those linked into the tree: only the root lacks a parent.
  bool IsLive(RBTIterator i) const {
    return i < nodes_.Count() && (Nodes(i).parent != kNoNode || i == root_);
  }

  RBTIterator SearchKeyIdx(const Key& key, Comparator cmp, void* ctx) const {
    RBTIterator parent;
    Side side;
    return __search(key, cmp, ctx, parent, side);
  }

  // The node holding `key`, or kNoNode with the would-be parent and side.
  RBTIterator __search(const Key& key, Comparator cmp, void* ctx, RBTIterator& parent,
                       Side& side) const {
    parent = kNoNode;
    side = Node::Left;
    RBTIterator i = root_;
    while (i != kNoNode) {
      int order = cmp(key, Nodes(i).key, ctx);
      if (order == 0) return i;
      parent = i;
      side = order < 0 ? Node::Left : Node::Right;
      i = order < 0 ? Nodes(i).left : Nodes(i).right;
    }
    return kNoNode;
  }

  template <typename V>
  bool __insert(const Key& key, V&& value, bool replace, Comparator cmp, void* ctx,
                RBTIterator* where) {
    if (!Ready()) return false;
    RBTIterator parent;
    Side side;
    RBTIterator found = __search(key, cmp, ctx, parent, side);
    if (found != kNoNode) {
      if (where) *where = found;
      if (!replace) return false;
      Nodes(found).value = std::forward<V>(value);
      return true;
    }
    return InsertAtLocation(key, std::forward<V>(value), parent, side, where);
  }

  // The balancing steps below are defined in RedBlackTreeBalance.h.

  // Links a new red node below `parent` on `side` (as root when parent is
  // kNoNode) and rebalances. Fails without change when no slot can be had.
  template <typename V>
  bool InsertAtLocation(const Key& key, V&& value, RBTIterator parent, Side side,
                        RBTIterator* where);
  // Restores the colour rules above a new red node `z`.
  void InsertFixup(RBTIterator z);

  // Unlinks node `z`, rebalances and puts its slot on the free list.
  void DeleteBSTByIdx(RBTIterator z);

  // Gives `b`, the minimum of a's right subtree, a's place in the tree and
  // `a` b's place, colours included, so that `a` keeps at most one child.
  // Keys and values stay in their slots, which keeps other indices valid.
  void SwapWithSuccessor(RBTIterator a, RBTIterator b);

  // `x` took the place of a removed black node below `parent` and carries an
  // extra black; push it up or absorb it by recolouring and rotations.
  void DeleteFixup(RBTIterator x, RBTIterator parent);

  // Puts the subtree `v` where the subtree `u` hangs (or makes it the root).
  void Transplant(RBTIterator u, RBTIterator v) {
    RBTIterator p = Nodes(u).parent;
    ReplaceChild(p, u, v);
    if (v != kNoNode) Nodes(v).parent = p;
  }

  void ReplaceChild(RBTIterator parent, RBTIterator old_child, RBTIterator new_child) {
    if (parent == kNoNode) {
      root_ = new_child;
    } else if (Nodes(parent).left == old_child) {
      Nodes(parent).left = new_child;
    } else {
      Nodes(parent).right = new_child;
    }
  }

  // RotateLeft lifts x's right child into x's place; RotateRight mirrors it.
  void RotateLeft(RBTIterator x);
  void RotateRight(RBTIterator x);

  RBTIterator TreeMinimum(RBTIterator i) const {
    if (i == kNoNode) return kNoNode;
    while (Nodes(i).left != kNoNode) i = Nodes(i).left;
    return i;
  }
  RBTIterator TreeMaximum(RBTIterator i) const {
    if (i == kNoNode) return kNoNode;
    while (Nodes(i).right != kNoNode) i = Nodes(i).right;
    return i;
  }

  // In-order neighbours of a live node; kNoNode past either end.
  RBTIterator Successor(RBTIterator i) const;
  RBTIterator Predecessor(RBTIterator i) const;

  // Head of the free list, or the next new slot at the end of the array;
  // `following` gets the link the head moves on to once the slot is used.
  RBTIterator __peek_next_free(RBTIterator& following) const {
    if (next_free_ == kNoNode) {
      following = kNoNode;
      return nodes_.Count();
    }
    following = Nodes(next_free_).next_free;
    return next_free_;
  }
  void __update_next_free(RBTIterator following) {
    if (next_free_ != kNoNode) next_free_ = following;
  }
  // Unlinks a freed slot and drops what its key and value held.
  void __invalidate_node(RBTIterator i) {
    Node& node = Nodes(i);
    node.left = node.right = node.parent = node.next_free = kNoNode;
    node.color = Node::Black;
    node.key = Key();
    node.value = Value();
  }

 private:
  bool Ready() const {
    if (initialized_) return true;
    KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kNotInitialized, 0, 0, 0);
    return false;
  }
  bool CheckLive(RBTIterator i) const {
    if (IsLive(i)) return true;
    KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kBadIterator, i, nodes_.Count(), 0);
    return false;
  }
  bool MakeMutex() {
    mutex_ = new (std::nothrow) Mutex();
    if (mutex_ != nullptr) return true;
    KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kCreateFailed, 0, 0, 1);
    return false;
  }
  void ResetLinks() {
    root_ = kNoNode;
    count_ = 0;
    next_free_ = kNoNode;
  }
  void TakeFrom(RedBlackTree& other) {
    root_ = other.root_;
    nodes_ = std::move(other.nodes_);
    count_ = other.count_;
    next_free_ = other.next_free_;
    initialized_ = other.initialized_;
    mutex_ = other.mutex_;
    other.mutex_ = nullptr;
    other.nodes_.Free();
    other.ResetLinks();
    other.initialized_ = false;
  }
  // Copies the nodes under this tree's lock; out of memory fails, logged.
  bool CopyStateTo(RedBlackTree& copy) const {
    MutexGuard guard(mutex_);
    try {
      copy.nodes_ = nodes_;
    } catch (const std::exception&) {
      KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kCopyFailed, nodes_.Count(), 0, 0);
      return false;
    }
    copy.root_ = root_;
    copy.count_ = count_;
    copy.next_free_ = next_free_;
    copy.initialized_ = initialized_;
    return true;
  }

  bool CopyEnd(bool largest, Key& key, Value& value) const {
    MutexGuard guard(mutex_);
    if (!Ready() || root_ == kNoNode) return false;
    const Node& node = Nodes(largest ? TreeMaximum(root_) : TreeMinimum(root_));
    key = node.key;
    value = node.value;
    return true;
  }
  Value* PointAtEnd(bool largest, Key*& key) {
    MutexGuard guard(mutex_);
    if (!Ready() || root_ == kNoNode) return nullptr;
    Node& node = Nodes(largest ? TreeMaximum(root_) : TreeMinimum(root_));
    key = &node.key;
    return &node.value;
  }
  RBTIterator EndNode(bool largest) const {
    MutexGuard guard(mutex_);
    if (!Ready()) return kNoNode;
    return largest ? TreeMaximum(root_) : TreeMinimum(root_);
  }
  RBTIterator Step(RBTIterator it, bool backwards) const {
    MutexGuard guard(mutex_);
    if (!Ready() || !CheckLive(it)) return kNoNode;
    return backwards ? Predecessor(it) : Successor(it);
  }

  // Lower bound: the lowest node with !(key > node). Upper bound: the lowest
  // node with key < node.
  RBTIterator Bound(const Key& key, Predicate less, void* ctx, bool upper) const {
    MutexGuard guard(mutex_);
    if (!Ready()) return kNoNode;
    RBTIterator found = kNoNode;
    RBTIterator i = root_;
    while (i != kNoNode) {
      const Key& here = Nodes(i).key;
      bool bounds = upper ? less(key, here, ctx) : !less(here, key, ctx);
      if (bounds) {
        found = i;
        i = Nodes(i).left;
      } else {
        i = Nodes(i).right;
      }
    }
    return found;
  }

  bool Walk(RBTIterator i, RBTIterator end, bool descending, const Visitor& fn, void* ctx) {
    bool stop = false;
    while (i != kNoNode && i != end) {
      Node& node = Nodes(i);
      if (!fn(node.key, node.value, ctx, stop)) return false;
      if (stop) break;
      i = descending ? Predecessor(i) : Successor(i);
    }
    return true;
  }

  // Helpers of the diagnostics file.
  bool CheckStructure(Comparator cmp, void* ctx) const;
  bool __iterateProperties(Comparator cmp, void* ctx, std::vector<uint8_t>& seen,
                           uint32_t& visited) const;
  uint32_t __iterateLeafToRoot(RBTIterator i) const;
  uint32_t __computeDepth_internal(RBTIterator i) const;
  bool CheckFreeList(std::vector<uint8_t>& seen, uint32_t& free_slots) const;
  bool ReadNodes(StreamBuffer& stream, void* ctx);
  static bool PushKey(Buffer& buffer, const Key& key);
  static bool ReadKey(StreamBuffer& stream, Key& key);

  RBTIterator root_ = kNoNode;
  Array<Node> nodes_;
  uint32_t count_ = 0;
  RBTIterator next_free_ = kNoNode;
  bool initialized_ = false;
  Mutex* mutex_ = nullptr;
};

}  // namespace Keel::Collections

#include "Keel/Collections/RedBlackTreeBalance.h"
#include "Keel/Collections/RedBlackTreeDiagnostics.h"
