#include "tarn/sql/TimeSlices.h"

#include <algorithm>

#include "manager/index/TimeIndex.h"
#include "tarn/offline/StoreFiles.h"

namespace Tarn::Tool {

void TimeSlices::Load(const std::string& store) {
  blocks_.clear();
  Storage::Index index;
  uint32_t records = 0;
  if (LoadIndexFile(store, index, records) != IndexState::kLoaded) return;
  bool in_order = true;
  index.tree().Iterate(
      [&](const uint16_t& day, Storage::DayInfo& info, void*, bool&) {
        for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
          const Storage::BlockInfo* block = info.GetBlock(i);
          if (block == nullptr || block->events_count == 0) continue;
          Block b{Storage::ToEpochSeconds(day, block->start_seconds),
                  Storage::ToEpochSeconds(day, block->end_seconds)};
          if (b.last < b.first || (!blocks_.empty() && b.first < blocks_.back().last)) {
            in_order = false;
          }
          blocks_.push_back(b);
        }
        return in_order;
      },
      nullptr);
  if (!in_order) blocks_.clear();
}

size_t TimeSlices::BlocksIn(SecondRange range) const {
  size_t count = 0;
  for (const Block& b : blocks_) count += b.first <= range.last && b.last >= range.first;
  return count;
}

std::vector<SecondRange> TimeSlices::Cut(SecondRange range, size_t blocks_per_part) const {
  std::vector<size_t> inside;  // the blocks that hold seconds of the range
  for (size_t i = 0; i < blocks_.size(); ++i) {
    if (blocks_[i].first <= range.last && blocks_[i].last >= range.first) inside.push_back(i);
  }
  std::vector<SecondRange> parts;
  uint64_t from = range.first;
  const size_t step = std::max<size_t>(blocks_per_part, 1);
  for (size_t k = step; k < inside.size(); k += step) {
    const Block& b = blocks_[inside[k]];
    // Inside the block when it spans more than one second, else at its start.
    uint64_t cut = b.last > b.first ? b.first + (b.last - b.first + 1) / 2 : b.first;
    cut = std::min(cut, range.last);
    if (cut <= from) continue;  // many blocks in one second: cut further on
    parts.push_back({from, cut - 1});
    from = cut;
  }
  parts.push_back({from, range.last});
  return parts;
}

}  // namespace Tarn::Tool
