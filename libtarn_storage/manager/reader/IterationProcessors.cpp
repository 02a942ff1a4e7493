// The processors that produce and move positions. They run under the manager
// mutex, so they use the tree's unlocked accessors; none of them opens a
// block: the index's event counts are enough to step.

#include <algorithm>

#include "Keel/Log.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/index/Index.h"

namespace Tarn::Storage {
namespace {

using Keel::Collections::kNoNode;
using Keel::Collections::RBTIterator;

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kNoDays = 20,
  kFirstDayMissing = 21,
  kFirstDayEmpty = 22,
  kLastBlockEmpty = 23,
  kLastWalkFailed = 24,
  kStepInvalid = 25,
  kTreeNotInitialized = 26,
  kStepDayMissing = 27,
  kStepBlockMissing = 28,
  kNextBlockEmpty = 29,
  kNextDayUnreadable = 30,
  kNextDayEmpty = 31,
  kPreviousBlockEmpty = 32,
  kPreviousLookupFailed = 33,
  kPreviousDayUnreadable = 34,
  kPreviousDayEmpty = 35,
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, message, a, b, c);
}

RawIterator& PositionOf(void* context) { return *static_cast<RawIterator*>(context); }

// Events a position can name in a block. The index keeps 25 bits of event
// count but a position only 24 of event number: stepping past event
// 0xFFFFFF inside the block would wrap to its event 0 and walk for ever.
uint32_t NamedEvents(const BlockInfo& block) {
  return std::min(block.events_count, EventStorageProvider::kEventIndexEnd);
}

// The day count is read on its own under the tree's lock, if it has one.
bool HasDays(Index& index) {
  if (index.tree().GetCount() != 0) return true;
  Log(kNoDays);
  return false;
}

// Steps 1-5 shared by both directions: the position must name an existing
// block of an indexed day. `info` and `block` receive them.
bool LocateBlock(Index& index, RawIterator at, DayInfo*& info, const BlockInfo*& block) {
  if (!at.IsValid()) {
    Log(kStepInvalid);
    return false;
  }
  if (!index.tree().IsInitialized()) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageProvider, kTreeNotInitialized, at.Day(), 0, 0);
    return false;
  }
  info = index.tree().SearchUnsafe(at.Day());
  if (info == nullptr) {
    Log(kStepDayMissing, at.Day());
    return false;
  }
  block = at.Block() < info->GetBlockCount() ? info->GetBlock(at.Block()) : nullptr;
  if (block == nullptr) {
    Log(kStepBlockMissing, at.Day(), at.Block(), info->GetBlockCount());
    return false;
  }
  return true;
}

// The day at `node` of the tree, which must have a first block with events.
bool FirstOfDay(Index& index, RBTIterator node, RawIterator& result) {
  uint16_t* day = nullptr;
  DayInfo* info = nullptr;
  if (!index.tree().GetUnsafe(node, day, info) || day == nullptr || info == nullptr) {
    Log(kNextDayUnreadable, node);
    return false;
  }
  const BlockInfo* first = info->GetBlockCount() != 0 ? info->GetBlock(0) : nullptr;
  if (first == nullptr || first->events_count == 0) {
    // An empty neighbouring day ends the walk; it is not skipped.
    Log(kNextDayEmpty, *day, info->GetBlockCount());
    return false;
  }
  result = RawIterator(*day, 0, 0);
  return true;
}

// The day at `node`, which must have a last block with events.
bool LastOfDay(Index& index, RBTIterator node, RawIterator& result) {
  uint16_t* day = nullptr;
  DayInfo* info = nullptr;
  if (!index.tree().GetUnsafe(node, day, info) || day == nullptr || info == nullptr) {
    Log(kPreviousDayUnreadable, node);
    return false;
  }
  const uint32_t count = info->GetBlockCount();
  const BlockInfo* last = count != 0 ? info->GetBlock(count - 1) : nullptr;
  if (last == nullptr || last->events_count == 0) {
    Log(kPreviousDayEmpty, *day, count);
    return false;
  }
  result = RawIterator(*day, count - 1, NamedEvents(*last) - 1);
  return true;
}

}  // namespace

bool EventStorageProvider::GetFirstIterValProcessor(Index& index, void* context) {
  RawIterator& result = PositionOf(context);
  result = RawIterator::Invalid;
  if (!HasDays(index)) return false;
  uint16_t* day = nullptr;
  DayInfo* info = index.tree().GetMinUnsafe(day);
  if (info == nullptr || day == nullptr) {
    Log(kFirstDayMissing);
    return false;
  }
  // An empty earliest day is not skipped (unlike the last one): the first
  // position of such a store does not exist.
  if (info->GetBlockCount() == 0) {
    Log(kFirstDayEmpty, *day);
    return false;
  }
  result = RawIterator(*day, 0, 0);
  return true;
}

bool EventStorageProvider::GetLastIterValProcessor(Index& index, void* context) {
  RawIterator& result = PositionOf(context);
  result = RawIterator::Invalid;
  if (!HasDays(index)) return false;
  bool walked = index.tree().Iterate(
      [&result](const uint16_t& day, DayInfo& info, void*, bool& stop) {
        const uint32_t count = info.GetBlockCount();
        if (count == 0) return true;  // trailing days without blocks are passed over
        const BlockInfo* last = info.GetBlock(count - 1);
        if (last == nullptr || last->events_count == 0) {
          Log(kLastBlockEmpty, day, count);
          return false;
        }
        result = RawIterator(day, count - 1, NamedEvents(*last) - 1);
        stop = true;
        return true;
      },
      nullptr, true);
  if (!walked) {
    Log(kLastWalkFailed);
    return false;
  }
  // No day with blocks: success, and the result stays invalid.
  return true;
}

bool EventStorageProvider::IncrementProcessor(Index& index, void* context) {
  RawIterator& result = PositionOf(context);
  const RawIterator at = result;
  result = RawIterator::Invalid;
  DayInfo* info = nullptr;
  const BlockInfo* block = nullptr;
  if (!LocateBlock(index, at, info, block)) return false;

  if (at.Event() + 1 < NamedEvents(*block)) {
    result = RawIterator(at.Day(), at.Block(), at.Event() + 1);
    return true;
  }
  if (at.Block() + 1 < info->GetBlockCount()) {
    const BlockInfo* next = info->GetBlock(at.Block() + 1);
    if (next == nullptr || next->events_count == 0) {
      Log(kNextBlockEmpty, at.Day(), at.Block() + 1);
      return false;
    }
    result = RawIterator(at.Day(), at.Block() + 1, 0);
    return true;
  }
  RBTIterator next_day = index.tree().GetUpperBound(at.Day());
  if (next_day == kNoNode) return false;  // the end of the store: not an error
  return FirstOfDay(index, next_day, result);
}

// Whether `at` is the last event the index names: the normal end of a walk.
bool IsLastPosition(Index& index, RawIterator at) {
  uint16_t* day = nullptr;
  DayInfo* info = index.tree().GetMaxUnsafe(day);
  if (info == nullptr || *day != at.Day() || info->GetBlockCount() != at.Block() + 1) return false;
  const BlockInfo* block = info->GetBlock(at.Block());
  return block != nullptr && at.Event() + 1 == NamedEvents(*block);
}

bool EventStorageProvider::StepForwardProcessor(Index& index, void* context) {
  auto& step = *static_cast<StepContext*>(context);
  const RawIterator at = step.position;
  if (IncrementProcessor(index, &step.position)) return true;
  // Judged under the same hold of the index as the step itself, so that a
  // block written meanwhile cannot make an end look like a break.
  step.at_end = IsLastPosition(index, at);
  return false;
}

bool EventStorageProvider::DecrementProcessor(Index& index, void* context) {
  RawIterator& result = PositionOf(context);
  const RawIterator at = result;
  result = RawIterator::Invalid;
  DayInfo* info = nullptr;
  const BlockInfo* block = nullptr;
  if (!LocateBlock(index, at, info, block)) return false;

  if (at.Event() > 0) {
    result = RawIterator(at.Day(), at.Block(), at.Event() - 1);
    return true;
  }
  if (at.Block() > 0) {
    const BlockInfo* previous = info->GetBlock(at.Block() - 1);
    if (previous == nullptr || previous->events_count == 0) {
      Log(kPreviousBlockEmpty, at.Day(), at.Block() - 1);
      return false;
    }
    result = RawIterator(at.Day(), at.Block() - 1, NamedEvents(*previous) - 1);
    return true;
  }
  RBTIterator here = index.tree().Find(at.Day());
  if (here == kNoNode) {
    Log(kPreviousLookupFailed, at.Day());
    return false;
  }
  RBTIterator previous_day = index.tree().Prev(here);
  if (previous_day == kNoNode) return false;  // the start of the store: not an error
  return LastOfDay(index, previous_day, result);
}

}  // namespace Tarn::Storage
