#pragma once

// Self-checks and the flat serialized form of RedBlackTree. Included at the
// end of RedBlackTree.h; not meant to be included on its own.

#include <cstring>
#include <exception>
#include <type_traits>
#include <vector>

#include "Keel/Collections/RedBlackTree.h"

namespace Keel::Collections {

namespace RedBlackTreeLog {
// First value of a kPropertyViolated record: which property failed.
enum Property : uint32_t {
  kRootLinks = 1,
  kBadLink = 2,
  kBadColor = 3,
  kOrder = 4,
  kParentLink = 5,
  kRedRed = 6,
  kBlackHeight = 7,
  kCountMismatch = 8,
  kFreeList = 9,
  kLostSlots = 10,
  kCheckOutOfMemory = 11,
};

inline bool Violation(uint32_t property, uint64_t a, uint64_t b) {
  KEEL_LOG(Log::Error, Log::Collections, kPropertyViolated, property, a, b);
  return false;
}
}  // namespace RedBlackTreeLog

// ---- Diagnostics ------------------------------------------------------------

template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::__checkTreeProperties(Comparator cmp, void* ctx) const {
  MutexGuard guard(mutex_);
  return Ready() && CheckStructure(cmp, ctx);
}

// Every slot must be either reachable from the root exactly once or on the
// free list exactly once. A null comparator skips the order check (used on
// freshly read bytes, whose comparator the tree does not know).
template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::CheckStructure(Comparator cmp, void* ctx) const {
  using namespace RedBlackTreeLog;
  try {
    std::vector<uint8_t> seen(nodes_.Count(), 0);
    uint32_t visited = 0;
    uint32_t free_slots = 0;
    if (!__iterateProperties(cmp, ctx, seen, visited)) return false;
    if (visited != count_) return Violation(kCountMismatch, visited, count_);
    if (!CheckFreeList(seen, free_slots)) return false;
    if (visited + free_slots != nodes_.Count()) {
      return Violation(kLostSlots, visited + free_slots, nodes_.Count());
    }
    return true;
  } catch (const std::exception&) {
    return Violation(kCheckOutOfMemory, nodes_.Count(), 0);
  }
}

// Walks the tree without recursion (a corrupt chain could be as deep as the
// array is long), checking links, colours, order and black heights.
template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::__iterateProperties(Comparator cmp, void* ctx,
                                                   std::vector<uint8_t>& seen,
                                                   uint32_t& visited) const {
  using namespace RedBlackTreeLog;
  const uint32_t slots = nodes_.Count();
  if (root_ == kNoNode) return true;
  if (root_ >= slots) return Violation(kBadLink, root_, slots);
  if (Nodes(root_).parent != kNoNode || Nodes(root_).color != Node::Black) {
    return Violation(kRootLinks, root_, Nodes(root_).parent);
  }
  // `low` and `high` are the ancestors whose keys bound the node's subtree.
  struct Frame {
    RBTIterator node, low, high;
  };
  std::vector<Frame> stack{{root_, kNoNode, kNoNode}};
  uint32_t black_height = kNoNode;
  while (!stack.empty()) {
    Frame frame = stack.back();
    stack.pop_back();
    RBTIterator i = frame.node;
    if (seen[i]) return Violation(kBadLink, i, 0);  // shared or cyclic
    seen[i] = 1;
    ++visited;
    const Node& node = Nodes(i);
    if (node.color != Node::Red && node.color != Node::Black) {
      return Violation(kBadColor, i, node.color);
    }
    if (cmp && ((frame.low != kNoNode && cmp(node.key, Nodes(frame.low).key, ctx) <= 0) ||
                (frame.high != kNoNode && cmp(node.key, Nodes(frame.high).key, ctx) >= 0))) {
      return Violation(kOrder, i, 0);
    }
    for (RBTIterator child : {node.left, node.right}) {
      if (child == kNoNode) continue;
      if (child >= slots) return Violation(kBadLink, i, child);
      if (Nodes(child).parent != i) return Violation(kParentLink, child, i);
      if (node.color == Node::Red && Nodes(child).color == Node::Red) {
        return Violation(kRedRed, i, child);
      }
    }
    if (node.left == kNoNode || node.right == kNoNode) {
      uint32_t height = __iterateLeafToRoot(i);
      if (black_height == kNoNode) black_height = height;
      if (height != black_height) return Violation(kBlackHeight, i, height);
    }
    if (node.right != kNoNode) stack.push_back({node.right, i, frame.high});
    if (node.left != kNoNode) stack.push_back({node.left, frame.low, i});
  }
  return true;
}

// Black nodes from `i` up to the root. Only called on nodes whose ancestors
// have been verified, so the walk ends.
template <typename Key, typename Value>
uint32_t RedBlackTree<Key, Value>::__iterateLeafToRoot(RBTIterator i) const {
  uint32_t blacks = 0;
  for (; i != kNoNode; i = Nodes(i).parent) blacks += Nodes(i).color == Node::Black;
  return blacks;
}

template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::CheckFreeList(std::vector<uint8_t>& seen,
                                             uint32_t& free_slots) const {
  using namespace RedBlackTreeLog;
  for (RBTIterator i = next_free_; i != kNoNode; i = Nodes(i).next_free) {
    if (i >= seen.size() || seen[i]) return Violation(kFreeList, i, free_slots);
    const Node& node = Nodes(i);
    if (node.left != kNoNode || node.right != kNoNode || node.parent != kNoNode) {
      return Violation(kFreeList, i, free_slots);
    }
    seen[i] = 2;
    ++free_slots;
  }
  return true;
}

template <typename Key, typename Value>
uint32_t RedBlackTree<Key, Value>::__computeDepth() const {
  MutexGuard guard(mutex_);
  return Ready() ? __computeDepth_internal(root_) : 0;
}

template <typename Key, typename Value>
uint32_t RedBlackTree<Key, Value>::__computeDepth_internal(RBTIterator i) const {
  if (i == kNoNode) return 0;
  uint32_t left = __computeDepth_internal(Nodes(i).left);
  uint32_t right = __computeDepth_internal(Nodes(i).right);
  return 1 + (left > right ? left : right);
}

template <typename Key, typename Value>
uint64_t RedBlackTree<Key, Value>::__memory_usage() const {
  MutexGuard guard(mutex_);
  return sizeof(*this) + static_cast<uint64_t>(nodes_.Capacity()) * sizeof(Node) +
         (mutex_ ? sizeof(Mutex) : 0);
}

// ---- Serialized form ----------------------------------------------------------
//
// root, next_free, count (u32 each), two zero bytes, the slot count N (u32),
// then N node records in array order, free slots included: left, right,
// parent, next_free, colour (u32 each), the key in its own width, and the
// value's own serialized form. Integers are little-endian.

template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::PushKey(Buffer& buffer, const Key& key) {
  static_assert(std::is_trivially_copyable_v<Key>, "keys are written as their bytes");
  uint8_t bytes[sizeof(Key)];
  if constexpr (std::is_integral_v<Key> || std::is_enum_v<Key>) {
    uint64_t bits = static_cast<uint64_t>(key);
    for (size_t b = 0; b < sizeof(Key); ++b) bytes[b] = static_cast<uint8_t>(bits >> (8 * b));
  } else {
    std::memcpy(bytes, &key, sizeof(Key));
  }
  return buffer.Push(bytes, sizeof(Key));
}

template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::ReadKey(StreamBuffer& stream, Key& key) {
  uint8_t bytes[sizeof(Key)];
  if (!stream.Read(bytes, sizeof(Key))) return false;
  if constexpr (std::is_integral_v<Key> || std::is_enum_v<Key>) {
    uint64_t bits = 0;
    for (size_t b = 0; b < sizeof(Key); ++b) bits |= static_cast<uint64_t>(bytes[b]) << (8 * b);
    key = static_cast<Key>(bits);
  } else {
    std::memcpy(&key, bytes, sizeof(Key));
  }
  return true;
}

// On failure the buffer is cut back to where it was.
template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::Serialize(Buffer& buffer, void* ctx) {
  MutexGuard guard(mutex_);
  if (!Ready()) return false;
  const uint64_t start = buffer.Size();
  const uint32_t slots = nodes_.Count();
  bool ok = buffer.PushUInt32(root_) && buffer.PushUInt32(next_free_) &&
            buffer.PushUInt32(count_) && buffer.PushFill(0, 2) && buffer.PushUInt32(slots);
  uint32_t i = 0;
  while (ok && i < slots) {
    Node& node = Nodes(i);
    ok = buffer.PushUInt32(node.left) && buffer.PushUInt32(node.right) &&
         buffer.PushUInt32(node.parent) && buffer.PushUInt32(node.next_free) &&
         buffer.PushUInt32(node.color) && PushKey(buffer, node.key) &&
         node.value.Serialize(buffer, ctx);
    if (ok) ++i;
  }
  if (ok) return true;
  buffer.Resize(start);
  KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kSerializeFailed, i, slots, 0);
  return false;
}

// Replaces the tree's content with the bytes read. Short or inconsistent
// input leaves the tree and the stream position as they were.
template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::Deserialize(StreamBuffer& stream, void* ctx) {
  MutexGuard guard(mutex_);
  if (!Ready()) return false;
  const uint64_t start = stream.Position();
  const RBTIterator old_root = root_;
  const RBTIterator old_free = next_free_;
  const uint32_t old_count = count_;
  Array<Node> previous(std::move(nodes_));  // keeps the growth policy in nodes_
  nodes_.Clear();
  if (ReadNodes(stream, ctx) && CheckStructure(nullptr, nullptr)) return true;
  nodes_ = std::move(previous);
  root_ = old_root;
  next_free_ = old_free;
  count_ = old_count;
  stream.Seek(start);
  return false;
}

template <typename Key, typename Value>
bool RedBlackTree<Key, Value>::ReadNodes(StreamBuffer& stream, void* ctx) {
  using RedBlackTreeLog::kDeserializeFailed;
  uint32_t root = kNoNode;
  uint32_t next_free = kNoNode;
  uint32_t count = 0;
  uint32_t slots = 0;
  if (!stream.ReadUInt32(root) || !stream.ReadUInt32(next_free) || !stream.ReadUInt32(count) ||
      !stream.Skip(2) || !stream.ReadUInt32(slots)) {
    KEEL_LOG(Log::Error, Log::Collections, kDeserializeFailed, stream.Position(), 0, 0);
    return false;
  }
  // Refuse a slot count the remaining bytes cannot hold before reserving.
  constexpr uint64_t kSmallestRecord = 5 * sizeof(uint32_t) + sizeof(Key);
  if (slots > stream.Remaining() / kSmallestRecord) {
    KEEL_LOG(Log::Error, Log::Collections, kDeserializeFailed, slots, stream.Remaining(), 1);
    return false;
  }
  if (!nodes_.Grow(slots)) return false;
  for (uint32_t i = 0; i < slots; ++i) {
    Node node;
    uint32_t color = 0;
    if (!stream.ReadUInt32(node.left) || !stream.ReadUInt32(node.right) ||
        !stream.ReadUInt32(node.parent) || !stream.ReadUInt32(node.next_free) ||
        !stream.ReadUInt32(color) || !ReadKey(stream, node.key) ||
        !node.value.Deserialize(stream, ctx)) {
      KEEL_LOG(Log::Error, Log::Collections, kDeserializeFailed, i, slots, 2);
      return false;
    }
    // An out-of-range colour is kept so that the structure check reports it.
    node.color = static_cast<Color>(color > 0xFF ? 0xFF : color);
    nodes_.Add(std::move(node));
  }
  root_ = root;
  next_free_ = next_free;
  count_ = count;
  return true;
}

}  // namespace Keel::Collections
