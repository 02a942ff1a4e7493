#pragma once

#include <cstdint>
#include <memory>

#include "Keel/OS/Threading.h"
#include "manager/DecodedBlock.h"

namespace Tarn::Storage {

// The reader's cache of decoded blocks, keyed by block key (day and block
// number, event number cleared). Decoding is the expensive step of reading,
// so a walk through one block should decode it once. It holds kCapacity
// blocks and, when full, drops the one used least recently.
//
// Blocks are handed out shared: a block that is evicted while a reader still
// holds it lives until that reader lets go, so no caller can be left with a
// dangling block, whichever locks it holds. The cache takes its own mutex
// and nothing else; callers must never hold it while reaching the index.
class BlockCache {
 public:
  static constexpr uint32_t kCapacity = 9;
  using BlockPtr = std::shared_ptr<const EventsBlock>;

  BlockCache() = default;
  BlockCache(const BlockCache&) = delete;
  BlockCache& operator=(const BlockCache&) = delete;

  // Creates the mutex. False (logged) when it cannot be had.
  bool Create();

  // The block cached under `key`, marked as just used; null on a miss.
  BlockPtr Find(uint64_t key);

  // Caches `block` under `key`, evicting the least recently used block when
  // full. When the key is already cached (another reader loaded it in the
  // meantime) that block stays and is returned instead.
  BlockPtr Insert(uint64_t key, BlockPtr block);

  void Clear();
  uint32_t Count() const;

 private:
  struct Slot {
    uint64_t key = 0;
    uint64_t last_used = 0;
    BlockPtr block;  // null: a free slot
  };

  // Requires the mutex.
  Slot* Locate(uint64_t key);
  Slot* Victim();

  std::unique_ptr<Keel::OS::Threading::Mutex> mutex_;
  // Nine slots are found faster by a scan than by any keyed structure.
  Slot slots_[kCapacity];
  uint64_t clock_ = 0;
};

}  // namespace Tarn::Storage
