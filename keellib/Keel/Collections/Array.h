#pragma once

#include <cstdint>
#include <new>
#include <utility>
#include <vector>

#include "Keel/Collections/Growth.h"
#include "Keel/Log.h"

namespace Keel::Collections {

// A growable array with an initial capacity, a maximum element count and a
// growth policy. Nothing throws: an insertion that would pass the maximum or
// runs out of memory returns false, logs, and leaves the array unchanged.
// Pointers into the array stay valid until the next insertion.
template <typename T>
class Array {
 public:
  // Ordering for sorted insertion: negative, zero or positive.
  using Comparator = int (*)(const T& a, const T& b);

  Array() = default;

  // Drops any content and reserves `initial` elements. `maximum` bounds the
  // element count (kUnlimited for none); `step` is the growth per `grow`.
  bool Create(uint32_t initial, uint32_t maximum = kUnlimited, uint32_t step = 100,
              GrowType::Type grow = GrowType::Percent) {
    items_.clear();
    maximum_ = maximum;
    step_ = step;
    grow_ = grow;
    if (initial > maximum || !Reallocate(initial)) return false;
    created_ = true;
    return true;
  }

  // Creates the array with default growth on first use.
  bool InitializeLazy() { return created_ || Create(0); }

  bool IsCreated() const { return created_; }
  uint32_t Count() const { return static_cast<uint32_t>(items_.size()); }
  uint32_t Capacity() const { return static_cast<uint32_t>(items_.capacity()); }
  uint32_t Maximum() const { return maximum_; }
  bool Empty() const { return items_.empty(); }

  T* Get(uint32_t index) { return index < items_.size() ? &items_[index] : nullptr; }
  const T* Get(uint32_t index) const { return index < items_.size() ? &items_[index] : nullptr; }
  bool Get(uint32_t index, T& out) const {
    if (index >= items_.size()) return false;
    out = items_[index];
    return true;
  }
  bool Set(uint32_t index, const T& value) {
    if (index >= items_.size()) return false;
    items_[index] = value;
    return true;
  }

  bool Add(const T& value) { return InsertAt(Count(), T(value)); }
  bool Add(T&& value) { return InsertAt(Count(), std::move(value)); }

  bool InsertAt(uint32_t index, T&& value) {
    if (index > items_.size() || !Grow(1)) return false;
    items_.insert(items_.begin() + index, std::move(value));
    return true;
  }
  bool InsertAt(uint32_t index, const T& value) { return InsertAt(index, T(value)); }

  // Inserts after every element that compares less than or equal to `value`,
  // so equal elements keep their insertion order. `where` gets the index.
  bool InsertSorted(const T& value, Comparator compare, uint32_t* where = nullptr) {
    uint32_t index = UpperBound(value, compare);
    if (!InsertAt(index, value)) return false;
    if (where) *where = index;
    return true;
  }

  // Index of the first element not less than `value` (binary search).
  uint32_t LowerBound(const T& value, Comparator compare) const {
    return Bound(value, compare, false);
  }
  // Index of the first element greater than `value` (binary search).
  uint32_t UpperBound(const T& value, Comparator compare) const {
    return Bound(value, compare, true);
  }

  bool RemoveAt(uint32_t index) {
    if (index >= items_.size()) return false;
    items_.erase(items_.begin() + index);
    return true;
  }

  // Removes every element for which `predicate` holds, keeping the order.
  template <typename Predicate>
  uint32_t RemoveIf(Predicate predicate) {
    uint32_t before = Count();
    std::erase_if(items_, predicate);
    return before - Count();
  }

  bool PopBack(T& out) {
    if (items_.empty()) return false;
    out = std::move(items_.back());
    items_.pop_back();
    return true;
  }

  // Shrinks the element count; storage is kept. Growing is refused.
  bool SetCount(uint32_t count) {
    if (count > items_.size()) return false;
    items_.resize(count);
    return true;
  }

  // Makes room for `more` elements beyond the current count.
  bool Grow(uint32_t more) {
    uint64_t needed = static_cast<uint64_t>(items_.size()) + more;
    // The maximum holds even when leftover capacity from an earlier Create
    // would have room.
    if (needed > maximum_) {
      KEEL_LOG(Log::Error, Log::Collections, kArrayBeyondMaximum, needed, maximum_, 0);
      return false;
    }
    if (needed <= items_.capacity()) return true;
    uint64_t target =
        Internal::CalculateCollectionGrowth(items_.capacity(), needed, maximum_, grow_, step_);
    if (target == 0) {
      KEEL_LOG(Log::Error, Log::Collections, kArrayBeyondMaximum, needed, maximum_, 0);
      return false;
    }
    return Reallocate(target);
  }

  void Clear() { items_.clear(); }
  void Free() {
    std::vector<T>().swap(items_);
    created_ = false;
  }

  T* Data() { return items_.data(); }
  const T* Data() const { return items_.data(); }
  T* begin() { return items_.data(); }
  T* end() { return items_.data() + items_.size(); }
  const T* begin() const { return items_.data(); }
  const T* end() const { return items_.data() + items_.size(); }

 private:
  static constexpr uint32_t kArrayBeyondMaximum = 10;
  static constexpr uint32_t kArrayOutOfMemory = 11;

  bool Reallocate(uint64_t capacity) {
    try {
      items_.reserve(capacity);
    } catch (const std::exception&) {
      KEEL_LOG(Log::Error, Log::Collections, kArrayOutOfMemory, capacity, items_.capacity(), 0);
      return false;
    }
    return true;
  }

  uint32_t Bound(const T& value, Comparator compare, bool upper) const {
    uint32_t low = 0;
    uint32_t high = Count();
    while (low < high) {
      uint32_t middle = low + (high - low) / 2;
      int order = compare(items_[middle], value);
      if (order < 0 || (upper && order == 0)) {
        low = middle + 1;
      } else {
        high = middle;
      }
    }
    return low;
  }

  std::vector<T> items_;
  uint32_t maximum_ = kUnlimited;
  uint32_t step_ = 100;
  GrowType::Type grow_ = GrowType::Percent;
  bool created_ = false;
};

}  // namespace Keel::Collections
