#pragma once

#include <cstdint>

#include "Keel/Collections/Array.h"
#include "Keel/Collections/Buffer.h"
#include "manager/format/EventsBlock.h"

namespace Tarn::Storage {

// Why a block was handed to the writer.
enum HandOverReason : uint32_t {
  kOnInit = 0,   // the block a previous run left in the shutdown file
  kOnEvent = 1,  // full, or the day changed
  kOnClose = 2,  // the store is stopping: goes to the shutdown file
};

// The bytes of one block being filled or written: event records back to back
// and one entry per event. Intake and writer each own one and swap them at a
// hand-over, so neither allocates per block.
struct BlockBuffers {
  // Largest raw block a buffer may grow to.
  static constexpr uint32_t kMaxRawSize = 524'288'000;
  static constexpr uint32_t kInitialEntries = 1'024;

  Keel::Collections::Buffer raw;
  Keel::Collections::Array<BlockEntry> entries;

  bool Create(uint32_t capacity) {
    return raw.Create(capacity, kMaxRawSize, Keel::Collections::GrowType::Percent, 100) &&
           entries.Create(kInitialEntries, Keel::Collections::kUnlimited, 100,
                          Keel::Collections::GrowType::Percent);
  }
  void Reset() {
    raw.Reset();
    entries.SetCount(0);
  }
  bool Empty() const { return raw.Empty() || entries.Empty(); }
  // Bytes the block takes once its entry table is appended.
  uint64_t FramedSize() const { return raw.Size() + 8ull * entries.Count(); }
  void Swap(BlockBuffers& other) {
    std::swap(raw, other.raw);
    std::swap(entries, other.entries);
  }
};

}  // namespace Tarn::Storage
