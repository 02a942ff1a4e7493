#pragma once

// The balancing steps of RedBlackTree: linking and unlinking nodes, the
// red-black fix-ups and rotations, and in-order neighbours. Included at the
// end of RedBlackTree.h; not meant to be included on its own.

#include "Keel/Collections/RedBlackTree.h"

namespace Keel::Collections {

template <typename Key, typename Value>
template <typename V>
bool RedBlackTree<Key, Value>::InsertAtLocation(const Key& key, V&& value, RBTIterator parent,
                                                Side side, RBTIterator* where) {
  RBTIterator following = kNoNode;
  RBTIterator slot = __peek_next_free(following);
  if (slot == nodes_.Count()) {
    if (slot == kNoNode) {  // kNoNode cannot name a node
      KEEL_LOG(Log::Error, Log::Collections, RedBlackTreeLog::kNodeArrayFull, slot, 0, 0);
      return false;
    }
    if (!nodes_.Grow(1)) return false;  // the array has logged why
    nodes_.Add(Node());
  }
  Node& node = Nodes(slot);
  node.key = key;
  node.value = std::forward<V>(value);
  node.left = node.right = node.next_free = kNoNode;
  node.parent = parent;
  node.color = Node::Red;
  if (parent == kNoNode) {
    root_ = slot;
  } else if (side == Node::Left) {
    Nodes(parent).left = slot;
  } else {
    Nodes(parent).right = slot;
  }
  ++count_;
  __update_next_free(following);
  InsertFixup(slot);
  if (where) *where = slot;
  return true;
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::InsertFixup(RBTIterator z) {
  while (GetColor(GetParent(z)) == Node::Red) {
    // A red parent is never the root, so the grandparent exists.
    RBTIterator p = GetParent(z);
    RBTIterator g = GetParent(p);
    if (p == Nodes(g).left) {
      RBTIterator uncle = Nodes(g).right;
      if (GetColor(uncle) == Node::Red) {
        SetColor(p, Node::Black);
        SetColor(uncle, Node::Black);
        SetColor(g, Node::Red);
        z = g;
        continue;
      }
      if (z == Nodes(p).right) {
        z = p;
        RotateLeft(z);
        p = GetParent(z);
      }
      SetColor(p, Node::Black);
      SetColor(g, Node::Red);
      RotateRight(g);
    } else {
      RBTIterator uncle = Nodes(g).left;
      if (GetColor(uncle) == Node::Red) {
        SetColor(p, Node::Black);
        SetColor(uncle, Node::Black);
        SetColor(g, Node::Red);
        z = g;
        continue;
      }
      if (z == Nodes(p).left) {
        z = p;
        RotateRight(z);
        p = GetParent(z);
      }
      SetColor(p, Node::Black);
      SetColor(g, Node::Red);
      RotateLeft(g);
    }
  }
  SetColor(root_, Node::Black);
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::DeleteBSTByIdx(RBTIterator z) {
  if (Nodes(z).left != kNoNode && Nodes(z).right != kNoNode) {
    SwapWithSuccessor(z, TreeMinimum(Nodes(z).right));
  }
  RBTIterator child = Nodes(z).left != kNoNode ? Nodes(z).left : Nodes(z).right;
  RBTIterator parent = Nodes(z).parent;
  Color removed = Nodes(z).color;
  Transplant(z, child);
  if (removed == Node::Black) DeleteFixup(child, parent);
  __invalidate_node(z);
  Nodes(z).next_free = next_free_;
  next_free_ = z;
  --count_;
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::SwapWithSuccessor(RBTIterator a, RBTIterator b) {
  RBTIterator a_parent = Nodes(a).parent;
  RBTIterator a_left = Nodes(a).left;
  RBTIterator a_right = Nodes(a).right;
  RBTIterator b_parent = Nodes(b).parent;
  RBTIterator b_right = Nodes(b).right;  // b has no left child
  std::swap(Nodes(a).color, Nodes(b).color);
  ReplaceChild(a_parent, a, b);
  Nodes(b).parent = a_parent;
  Nodes(b).left = a_left;
  Nodes(a_left).parent = b;
  if (a_right == b) {
    Nodes(b).right = a;
    Nodes(a).parent = b;
  } else {
    Nodes(b).right = a_right;
    Nodes(a_right).parent = b;
    Nodes(b_parent).left = a;
    Nodes(a).parent = b_parent;
  }
  Nodes(a).left = kNoNode;
  Nodes(a).right = b_right;
  if (b_right != kNoNode) Nodes(b_right).parent = a;
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::DeleteFixup(RBTIterator x, RBTIterator parent) {
  while (x != root_ && GetColor(x) == Node::Black) {
    if (x == Nodes(parent).left) {
      RBTIterator w = Nodes(parent).right;  // exists: black heights are equal
      if (GetColor(w) == Node::Red) {
        SetColor(w, Node::Black);
        SetColor(parent, Node::Red);
        RotateLeft(parent);
        w = Nodes(parent).right;
      }
      if (GetColor(Nodes(w).left) == Node::Black && GetColor(Nodes(w).right) == Node::Black) {
        SetColor(w, Node::Red);
        x = parent;
        parent = GetParent(x);
        continue;
      }
      if (GetColor(Nodes(w).right) == Node::Black) {
        SetColor(Nodes(w).left, Node::Black);
        SetColor(w, Node::Red);
        RotateRight(w);
        w = Nodes(parent).right;
      }
      SetColor(w, GetColor(parent));
      SetColor(parent, Node::Black);
      SetColor(Nodes(w).right, Node::Black);
      RotateLeft(parent);
    } else {
      RBTIterator w = Nodes(parent).left;
      if (GetColor(w) == Node::Red) {
        SetColor(w, Node::Black);
        SetColor(parent, Node::Red);
        RotateRight(parent);
        w = Nodes(parent).left;
      }
      if (GetColor(Nodes(w).left) == Node::Black && GetColor(Nodes(w).right) == Node::Black) {
        SetColor(w, Node::Red);
        x = parent;
        parent = GetParent(x);
        continue;
      }
      if (GetColor(Nodes(w).left) == Node::Black) {
        SetColor(Nodes(w).right, Node::Black);
        SetColor(w, Node::Red);
        RotateLeft(w);
        w = Nodes(parent).left;
      }
      SetColor(w, GetColor(parent));
      SetColor(parent, Node::Black);
      SetColor(Nodes(w).left, Node::Black);
      RotateRight(parent);
    }
    x = root_;
  }
  SetColor(x, Node::Black);
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::RotateLeft(RBTIterator x) {
  RBTIterator y = Nodes(x).right;
  Nodes(x).right = Nodes(y).left;
  if (Nodes(y).left != kNoNode) Nodes(Nodes(y).left).parent = x;
  Transplant(x, y);
  Nodes(y).left = x;
  Nodes(x).parent = y;
}

template <typename Key, typename Value>
void RedBlackTree<Key, Value>::RotateRight(RBTIterator x) {
  RBTIterator y = Nodes(x).left;
  Nodes(x).left = Nodes(y).right;
  if (Nodes(y).right != kNoNode) Nodes(Nodes(y).right).parent = x;
  Transplant(x, y);
  Nodes(y).right = x;
  Nodes(x).parent = y;
}

template <typename Key, typename Value>
RBTIterator RedBlackTree<Key, Value>::Successor(RBTIterator i) const {
  if (Nodes(i).right != kNoNode) return TreeMinimum(Nodes(i).right);
  RBTIterator p = Nodes(i).parent;
  while (p != kNoNode && i == Nodes(p).right) {
    i = p;
    p = Nodes(p).parent;
  }
  return p;
}

template <typename Key, typename Value>
RBTIterator RedBlackTree<Key, Value>::Predecessor(RBTIterator i) const {
  if (Nodes(i).left != kNoNode) return TreeMaximum(Nodes(i).left);
  RBTIterator p = Nodes(i).parent;
  while (p != kNoNode && i == Nodes(p).left) {
    i = p;
    p = Nodes(p).parent;
  }
  return p;
}

}  // namespace Keel::Collections
