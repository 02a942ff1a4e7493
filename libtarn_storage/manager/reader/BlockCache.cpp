#include "manager/reader/BlockCache.h"

#include <new>
#include <utility>

#include "Keel/Log.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::Threading::MutexGuard;

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kMutexFailed = 150,
  kNullBlock = 151,
};

}  // namespace

bool BlockCache::Create() {
  if (mutex_ != nullptr) return true;
  mutex_.reset(new (std::nothrow) Keel::OS::Threading::Mutex());
  if (mutex_ == nullptr) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, kMutexFailed, 0, 0, 0);
    return false;
  }
  return true;
}

BlockCache::Slot* BlockCache::Locate(uint64_t key) {
  for (Slot& slot : slots_) {
    if (slot.block != nullptr && slot.key == key) return &slot;
  }
  return nullptr;
}

BlockCache::Slot* BlockCache::Victim() {
  Slot* oldest = &slots_[0];
  for (Slot& slot : slots_) {
    if (slot.block == nullptr) return &slot;
    if (slot.last_used < oldest->last_used) oldest = &slot;
  }
  return oldest;
}

BlockCache::BlockPtr BlockCache::Find(uint64_t key, uint64_t generation) {
  // Declared before the lock so that a stale block is freed after it.
  BlockPtr stale;
  MutexGuard lock(mutex_.get());
  Slot* slot = Locate(key);
  if (slot == nullptr) return nullptr;
  if (slot->generation != generation) {
    stale = std::move(slot->block);
    return nullptr;
  }
  slot->last_used = ++clock_;
  return slot->block;
}

BlockCache::BlockPtr BlockCache::Insert(uint64_t key, uint64_t generation, BlockPtr block) {
  if (block == nullptr) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, kNullBlock, key, 0, 0);
    return nullptr;
  }
  // Declared before the lock so that an evicted block is freed after it.
  BlockPtr evicted;
  MutexGuard lock(mutex_.get());
  Slot* slot = Locate(key);
  if (slot != nullptr && slot->generation != generation) {
    // Read in another generation: the newer of the two stays.
    if (slot->generation > generation) return block;
    evicted = std::move(slot->block);
    slot->block = std::move(block);
    slot->generation = generation;
  } else if (slot == nullptr) {
    slot = Victim();
    evicted = std::move(slot->block);
    slot->key = key;
    slot->generation = generation;
    slot->block = std::move(block);
  }
  slot->last_used = ++clock_;
  return slot->block;
}

void BlockCache::Clear() {
  Slot dropped[kCapacity];
  MutexGuard lock(mutex_.get());
  for (uint32_t i = 0; i < kCapacity; ++i) std::swap(dropped[i], slots_[i]);
}

uint32_t BlockCache::Count() const {
  MutexGuard lock(mutex_.get());
  uint32_t count = 0;
  for (const Slot& slot : slots_) count += slot.block != nullptr ? 1 : 0;
  return count;
}

}  // namespace Tarn::Storage
