#pragma once

#include <cstdint>
#include <memory>

#include "Keel/OS/Threading.h"
#include "manager/reader/DecodedBlock.h"

namespace Tarn::Storage {

// The reader's cache of decoded blocks, keyed by block key (day and block
// number, event number cleared) and the store's generation when the block was
// read. The writer can give a key to another block (a day evicted and made
// again, a file replaced); it then moves to a new generation, and a block of
// an older one is never handed out again. Decoding is the expensive step of reading,
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

  // The block cached under `key` in `generation`, marked as just used; null
  // on a miss. A block of another generation is dropped.
  BlockPtr Find(uint64_t key, uint64_t generation);

  // Caches `block`, read in `generation`, under `key`, evicting the least
  // recently used block when full. When the key is already cached in that
  // generation (another reader loaded it in the meantime) that block stays
  // and is returned instead.
  BlockPtr Insert(uint64_t key, uint64_t generation, BlockPtr block);

  void Clear();
  uint32_t Count() const;

 private:
  struct Slot {
    uint64_t key = 0;
    uint64_t generation = 0;
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
