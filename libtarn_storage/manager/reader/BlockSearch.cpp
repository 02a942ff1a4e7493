// Choosing the block for a by-time search, from the per-block second ranges
// of the index alone. When the requested time lies outside every block that
// could hold the answer, the search is retargeted to the edge second of the
// chosen block, so that the in-block search (which finds nothing past the
// block's events) always gets a second inside the block.

#include "Keel/Log.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/index/Index.h"

namespace Tarn::Storage {
namespace {

using Context = EventStorageProvider::BlockSearchContext;

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kNoDays = 60,
  kExactDayMissing = 61,
  kExactBlockMissing = 62,
  kNothingAfter = 63,
  kFirstDayUnusable = 64,
  kNextDayUnusable = 65,
  kNoNextDay = 66,
  kAfterBlockMissing = 67,
  kNothingBefore = 68,
  kLastDayUnusable = 69,
  kPreviousDayUnusable = 70,
  kNoPreviousDay = 71,
  kBeforeBlockMissing = 72,
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, message, a, b, c);
}

void Choose(Context& context, uint16_t day, uint32_t block) {
  *context.result = RawIterator(day, block, 0);
}

void Retarget(Context& context, uint16_t day, uint32_t second) {
  context.day = day;
  context.second = second;
}

uint32_t FirstSecond(const DayInfo& info) {
  const BlockInfo* first = info.GetBlockCount() != 0 ? info.GetBlock(0) : nullptr;
  return first != nullptr ? first->start_seconds : DayInfo::InvalidSecond;
}

// Block 0 of `day`, retargeted to its first second.
bool ChooseFirstBlock(Context& context, uint16_t day, const DayInfo& info, Message unusable) {
  uint32_t first = FirstSecond(info);
  if (first == DayInfo::InvalidSecond) {
    Log(unusable, day, info.GetBlockCount());
    return false;
  }
  Choose(context, day, 0);
  Retarget(context, day, first);
  return true;
}

// The last block of `day`, retargeted to its last second.
bool ChooseLastBlock(Context& context, uint16_t day, const DayInfo& info, Message unusable) {
  const uint32_t count = info.GetBlockCount();
  const BlockInfo* last = count != 0 ? info.GetBlock(count - 1) : nullptr;
  if (last == nullptr || last->end_seconds == DayInfo::InvalidSecond) {
    Log(unusable, day, count);
    return false;
  }
  Choose(context, day, count - 1);
  Retarget(context, day, last->end_seconds);
  return true;
}

// The first day after `day`: its block 0. An empty such day fails the
// search rather than being skipped.
bool ChooseNextDay(Index& index, Context& context, uint16_t day) {
  bool found = false;
  bool walked = index.tree().Iterate(
      [&](const uint16_t& key, DayInfo& info, void*, bool& stop) {
        if (key <= day) return true;
        stop = true;
        found = ChooseFirstBlock(context, key, info, kNextDayUnusable);
        return found;
      },
      nullptr, false);
  if (!walked || !found) {
    Log(kNoNextDay, day);
    return false;
  }
  return true;
}

// The last day before `day`: its last block.
bool ChoosePreviousDay(Index& index, Context& context, uint16_t day) {
  bool found = false;
  bool walked = index.tree().Iterate(
      [&](const uint16_t& key, DayInfo& info, void*, bool& stop) {
        if (key >= day) return true;
        stop = true;
        found = ChooseLastBlock(context, key, info, kPreviousDayUnusable);
        return found;
      },
      nullptr, true);
  if (!walked || !found) {
    Log(kNoPreviousDay, day);
    return false;
  }
  return true;
}

bool SearchExact(Index& index, Context& context) {
  const DayInfo* info = index.tree().SearchUnsafe(context.day);
  if (info == nullptr) {
    Log(kExactDayMissing, context.day);
    return false;
  }
  for (uint32_t b = 0; b < info->GetBlockCount(); ++b) {
    const BlockInfo* block = info->GetBlock(b);
    if (block == nullptr) {
      Log(kExactBlockMissing, context.day, b);
      return false;
    }
    if (block->start_seconds <= context.second && context.second <= block->end_seconds) {
      Choose(context, context.day, b);
      return true;
    }
  }
  return false;  // no block covers the second: a plain miss
}

bool SearchAtOrAfter(Index& index, Context& context) {
  const uint16_t day = context.day;
  const uint32_t second = context.second;
  uint16_t* key = nullptr;
  if (index.tree().GetMaxUnsafe(key) == nullptr) return false;
  if (*key < day) {
    Log(kNothingAfter, day, *key);
    return false;
  }
  DayInfo* smallest = index.tree().GetMinUnsafe(key);
  if (smallest == nullptr) return false;
  if (*key > day) return ChooseFirstBlock(context, *key, *smallest, kFirstDayUnusable);

  const DayInfo* info = index.tree().SearchUnsafe(day);
  if (info == nullptr) return ChooseNextDay(index, context, day);
  const uint32_t first = FirstSecond(*info);
  if (second < first) {
    Choose(context, day, 0);
    Retarget(context, day, first);
    return true;
  }
  if (second > info->GetLastEventSecondOfDay()) return ChooseNextDay(index, context, day);
  // A block that covers the second, or the first one after the gap it falls in.
  for (uint32_t b = 0; b < info->GetBlockCount(); ++b) {
    const BlockInfo* block = info->GetBlock(b);
    if (block == nullptr) break;
    if (block->end_seconds >= second || block->start_seconds > second) {
      Choose(context, day, b);
      return true;
    }
  }
  Log(kAfterBlockMissing, day, second);
  return false;
}

// Within a day whose first second is at or before `second` and whose last
// second is at or after it.
bool ChooseBlockBefore(const DayInfo& info, Context& context) {
  const uint16_t day = context.day;
  const uint32_t second = context.second;
  for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
    const BlockInfo* block = info.GetBlock(b);
    if (block == nullptr) break;
    if (block->start_seconds > second) {
      // The second lies in the gap before this block: the end of the one
      // before it. Block 0 starts at or before the second, so b > 0 here.
      if (b == 0) break;
      const BlockInfo* previous = info.GetBlock(b - 1);
      if (previous == nullptr) break;
      Choose(context, day, b - 1);
      Retarget(context, day, previous->end_seconds);
      return true;
    }
    if (block->end_seconds >= second) {
      Choose(context, day, b);
      return true;
    }
  }
  Log(kBeforeBlockMissing, day, second);
  return false;
}

bool SearchAtOrBefore(Index& index, Context& context) {
  const uint16_t day = context.day;
  const uint32_t second = context.second;
  uint16_t* key = nullptr;
  if (index.tree().GetMinUnsafe(key) == nullptr) return false;
  if (day < *key) {
    Log(kNothingBefore, day, *key);
    return false;
  }
  DayInfo* largest = index.tree().GetMaxUnsafe(key);
  if (largest == nullptr) return false;
  if (*key < day) return ChooseLastBlock(context, *key, *largest, kLastDayUnusable);

  const DayInfo* info = index.tree().SearchUnsafe(day);
  if (info == nullptr) return ChoosePreviousDay(index, context, day);
  if (second < FirstSecond(*info)) return ChoosePreviousDay(index, context, day);
  if (info->GetLastEventSecondOfDay() < second) {
    return ChooseLastBlock(context, day, *info, kLastDayUnusable);
  }
  return ChooseBlockBefore(*info, context);
}

}  // namespace

bool EventStorageProvider::GetBlockIterValProcessorEx(Index& index, void* context) {
  Context& search = *static_cast<Context*>(context);
  *search.result = RawIterator::Invalid;
  if (index.tree().GetCount() == 0) {
    Log(kNoDays);
    return false;
  }
  switch (search.strategy) {
    case Comm::Interface::Exact:
      return SearchExact(index, search);
    case Comm::Interface::AtOrAfter:
      return SearchAtOrAfter(index, search);
    default:
      // Every other value takes this road; the in-block search then
      // rejects values it does not know.
      return SearchAtOrBefore(index, search);
  }
}

}  // namespace Tarn::Storage
