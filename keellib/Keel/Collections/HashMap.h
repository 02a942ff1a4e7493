#pragma once

#include <cstdint>
#include <functional>
#include <utility>

#include "Keel/Collections/Array.h"
#include "Keel/Log.h"

namespace Keel::Collections {

// Log message identifiers of the hash map (component Log::Collections).
namespace HashMapLog {
enum Message : uint32_t {
  kNotInitialized = 40,
  kCreateFailed = 41,
};
}  // namespace HashMapLog

// A hash map with separate chaining. Entries live in one Array and chain by
// index; each bucket holds the index of its first entry. Deleted entries go
// on a free list and are reused, so the entry array never shrinks. The bucket
// count is a power of two and doubles once entries outnumber buckets.
//
// Insert refuses a key that is present; Set replaces its value. A miss
// returns false without a log record; use before Create fails with one.
// Not synchronised: the owner serialises access.
template <typename Key, typename Value, typename Hash = std::hash<Key>>
class HashMap {
 public:
  HashMap() = default;

  // Empties the map and sets up `initial_buckets` buckets (rounded up to a
  // power of two, at least kMinBuckets) and at most `maximum` entries.
  bool Create(uint32_t initial_buckets = kMinBuckets, uint32_t maximum = kUnlimited) {
    created_ = false;
    count_ = 0;
    free_head_ = kNone;
    initial_buckets_ = RoundUp(initial_buckets);
    // Storage left from an earlier Create is released: the array checks its
    // maximum only when it grows.
    buckets_.Free();
    entries_.Free();
    if (initial_buckets_ == 0 || !entries_.Create(0, maximum) || !ReHash(initial_buckets_)) {
      KEEL_LOG(Log::Error, Log::Collections, HashMapLog::kCreateFailed, initial_buckets, maximum,
               0);
      return false;
    }
    created_ = true;
    return true;
  }
  bool InitializeLazy() { return created_ || Create(); }
  bool IsCreated() const { return created_; }

  uint32_t Count() const { return count_; }
  uint32_t BucketCount() const { return buckets_.Count(); }

  bool Insert(const Key& key, const Value& value) { return _Insert(key, value, false); }
  bool Set(const Key& key, const Value& value) { return _Insert(key, value, true); }
  bool Delete(const Key& key) { return _Delete(key); }

  bool Get(const Key& key, Value& out) const {
    const Entry* entry = Locate(key);
    if (entry == nullptr) return false;
    out = entry->value;
    return true;
  }
  // A pointer into the entry array, valid until the next insertion.
  Value* Get(const Key& key) {
    Entry* entry = const_cast<Entry*>(Locate(key));
    return entry ? &entry->value : nullptr;
  }
  bool Contains(const Key& key) const { return Locate(key) != nullptr; }

  // Drops every entry (storage is kept) and returns to the initial buckets.
  void Clear() {
    if (!created_) return;
    entries_.Clear();
    count_ = 0;
    free_head_ = kNone;
    ResizeHashTableToInitialSize();
  }

  // Redistributes the entries over `buckets` buckets (rounded up to a power
  // of two). Fails without change when the bucket array cannot be had.
  bool ReHash(uint32_t buckets) {
    buckets = RoundUp(buckets);
    if (buckets == 0) return false;
    Array<uint32_t> fresh;
    if (!fresh.Create(buckets)) return false;
    for (uint32_t b = 0; b < buckets; ++b) fresh.Add(kNone);
    const uint32_t shift = ShiftFor(buckets);
    for (uint32_t head : buckets_) {
      for (uint32_t i = head; i != kNone;) {
        Entry& entry = *entries_.Get(i);
        uint32_t following = entry.next;
        uint32_t& slot = *fresh.Get(BucketOf(entry.key, shift));
        entry.next = slot;
        slot = i;
        i = following;
      }
    }
    buckets_ = std::move(fresh);
    shift_ = shift;
    return true;
  }

  // Calls fn(key, value) for every entry, in no particular order.
  template <typename Fn>
  void ForEach(Fn&& fn) const {
    for (uint32_t head : buckets_) {
      for (uint32_t i = head; i != kNone; i = entries_.Get(i)->next) {
        fn(entries_.Get(i)->key, entries_.Get(i)->value);
      }
    }
  }

  static constexpr uint32_t kMinBuckets = 8;

 protected:
  bool _Insert(const Key& key, const Value& value, bool replace) {
    if (!Ready()) return false;
    uint32_t bucket = BucketOf(key, shift_);
    if (Entry* existing = Find(bucket, key)) {
      if (!replace) return false;
      existing->value = value;
      return true;
    }
    uint32_t slot = free_head_;
    if (slot == kNone) {
      slot = entries_.Count();
      if (!entries_.Add(Entry{key, value, kNone})) return false;  // the array logged
    } else {
      Entry& entry = *entries_.Get(slot);
      free_head_ = entry.next;
      entry.key = key;
      entry.value = value;
    }
    uint32_t& head = *buckets_.Get(bucket);
    entries_.Get(slot)->next = head;
    head = slot;
    ++count_;
    // A failed growth only lengthens the chains.
    if (count_ > buckets_.Count() && buckets_.Count() <= (kNone >> 1)) {
      ReHash(buckets_.Count() * 2);
    }
    return true;
  }

  bool _Delete(const Key& key) {
    if (!Ready()) return false;
    uint32_t* link = buckets_.Get(BucketOf(key, shift_));
    while (*link != kNone) {
      Entry& entry = *entries_.Get(*link);
      if (entry.key == key) {
        uint32_t slot = *link;
        *link = entry.next;
        entry.key = Key();
        entry.value = Value();
        entry.next = free_head_;
        free_head_ = slot;
        --count_;
        return true;
      }
      link = &entry.next;
    }
    return false;
  }

  void ResizeHashTableToInitialSize() {
    buckets_.SetCount(initial_buckets_ < buckets_.Count() ? initial_buckets_ : buckets_.Count());
    for (uint32_t& head : buckets_) head = kNone;
    shift_ = ShiftFor(buckets_.Count());
  }

 private:
  static constexpr uint32_t kNone = 0xFFFFFFFFu;

  struct Entry {
    Key key;
    Value value;
    uint32_t next;  // next entry of the chain, or of the free list
  };

  bool Ready() const {
    if (created_) return true;
    KEEL_LOG(Log::Error, Log::Collections, HashMapLog::kNotInitialized, 0, 0, 0);
    return false;
  }

  static uint32_t RoundUp(uint32_t buckets) {
    uint32_t n = kMinBuckets;
    while (n < buckets) {
      if (n > (kNone >> 1)) return 0;
      n <<= 1;
    }
    return n;
  }
  static uint32_t ShiftFor(uint32_t buckets) {
    uint32_t bits = 0;
    while ((1u << bits) < buckets) ++bits;
    return 64 - bits;
  }
  // Fibonacci hashing spreads keys whose hash is the key itself (std::hash of
  // integers) over all buckets; the top bits are the best mixed.
  static uint32_t BucketOf(const Key& key, uint32_t shift) {
    uint64_t h = static_cast<uint64_t>(Hash{}(key)) * 0x9E3779B97F4A7C15ull;
    return static_cast<uint32_t>(h >> shift);
  }

  Entry* Find(uint32_t bucket, const Key& key) {
    for (uint32_t i = *buckets_.Get(bucket); i != kNone; i = entries_.Get(i)->next) {
      if (entries_.Get(i)->key == key) return entries_.Get(i);
    }
    return nullptr;
  }
  const Entry* Locate(const Key& key) const {
    if (!Ready()) return nullptr;
    return const_cast<HashMap*>(this)->Find(BucketOf(key, shift_), key);
  }

  Array<uint32_t> buckets_;
  Array<Entry> entries_;
  uint32_t count_ = 0;
  uint32_t free_head_ = kNone;
  uint32_t initial_buckets_ = kMinBuckets;
  uint32_t shift_ = 64;
  bool created_ = false;
};

}  // namespace Keel::Collections
