// What lies at a position (an event and its time), the store's stored blocks
// handed out whole, and what describes the store as a whole.

#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/OS/Path.h"
#include "Keel/Utils/String.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/index/Index.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::Threading::MutexGuard;

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kNullHolder = 170,
  kEventBlockUnavailable = 171,
  kEventPastBlock = 172,
  kEventUnreadable = 173,
  kHolderRefused = 174,
  kTimeBlockUnavailable = 175,
  kTimePastBlock = 176,
  kBlocksBadRange = 177,
  kBlocksNoCallback = 178,
  kBlocksBuffer = 179,
  kBlocksReadFailed = 180,
  kWindowFailed = 181,
  kWindowFirst = 182,
  kWindowFirstDay = 183,
  kWindowLast = 184,
  kWindowLastDay = 185,
  kSizeFailed = 186,
  kSizeUnknown = 187,
  kDumpWalk = 188,
  kDumpLine = 189,
  kDumpWrite = 190,
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, message, a, b, c);
}

int64_t EpochOf(uint16_t day, uint32_t second) {
  return static_cast<int64_t>(ToEpochSeconds(day, second));
}

const BlockInfo* BlockOf(Index& index, RawIterator at) {
  const DayInfo* info = index.tree().SearchUnsafe(at.Day());
  return info != nullptr && at.Block() < info->GetBlockCount() ? info->GetBlock(at.Block())
                                                               : nullptr;
}

}  // namespace

bool EventStorageProvider::GetEvent(uint64_t position, Events::GenericEventHolder* holder) {
  if (holder == nullptr) {
    Log(kNullHolder, position);
    return false;
  }
  MutexGuard lock(mutex_.get());
  const RawIterator at(position);
  BlockCache::BlockPtr block = GetBlockFromCache(at);
  if (block == nullptr) {
    Log(kEventBlockUnavailable, position);
    return false;
  }
  if (at.Event() >= block->EventCount()) {
    Log(kEventPastBlock, position, block->EventCount());
    return false;
  }
  const uint8_t* record = nullptr;
  uint32_t size = 0;
  if (!block->Event(at.Event(), record, size)) {
    Log(kEventUnreadable, position);
    return false;
  }
  if (!holder->Store(record, size)) {
    Log(kHolderRefused, position, size);
    return false;
  }
  return true;
}

bool EventStorageProvider::GetTime(uint64_t position, DateTime& time) {
  MutexGuard lock(mutex_.get());
  const RawIterator at(position);
  BlockCache::BlockPtr block = GetBlockFromCache(at);
  if (block == nullptr) {
    Log(kTimeBlockUnavailable, position);
    return false;
  }
  if (at.Event() >= block->EventCount()) {
    Log(kTimePastBlock, position, block->EventCount());
    return false;
  }
  // The day comes from the position, the second from the block.
  time = DateTime(EpochOf(at.Day(), block->Second(at.Event())));
  return true;
}

bool EventStorageProvider::ProcessBlocks(uint64_t from, uint64_t to, BlockCallback callback) {
  if (!IsValid(from) || !IsValid(to)) {
    Log(kBlocksBadRange, from, to);
    return false;
  }
  if (!callback) {
    // Calling an empty function would throw; no exception leaves the store.
    Log(kBlocksNoCallback);
    return false;
  }
  Buffer stored;
  if (!CreateReaderBuffer(stored)) {
    Log(kBlocksBuffer);
    return false;
  }
  uint64_t last_sent = InvalidIterVal;
  uint64_t position = from;
  // One event at a time, so each block goes out once, when its first
  // visited event is reached, even if `to` lies inside it.
  while (IsValid(position) && Compare(RawIterator(position).AsKey(), to) <= 0) {
    const uint64_t key = RawIterator(position).AsKey();
    if (key != last_sent) {
      stored.Reset();
      RawEventsBlockMetadata meta;
      if (!GetBlock(key, meta, stored)) {
        Log(kBlocksReadFailed, key);
        return false;
      }
      DecodeToken token;
      token.block_key = key;
      token.event_table_offset = meta.event_table_offset;
      token.event_count = meta.event_count;
      token.decoded_size = meta.decoded_size;
      token.file_version = meta.version;
      callback(token, stored);
      last_sent = key;
    }
    // A day evicted under the walk must not pass for the end of the range.
    if (StepForward(position) == Step::kBroken) return false;
  }
  return true;
}

bool EventStorageProvider::GetStorageTimeWindowProcessor(Index& index, void* context) {
  auto& window = *static_cast<DateTimeInterval*>(context);
  if (index.tree().GetCount() == 0) {
    window = DateTimeInterval{kWidestWindowStart, kWidestWindowEnd};
    return true;
  }
  RawIterator first;
  if (!GetFirstIterValProcessor(index, &first)) {
    Log(kWindowFirst);
    return false;
  }
  const BlockInfo* first_block = BlockOf(index, RawIterator(first.Day(), 0, 0));
  if (first_block == nullptr) {
    Log(kWindowFirstDay, first.Day());
    return false;
  }
  RawIterator last;
  if (!GetLastIterValProcessor(index, &last) || !last.IsValid()) {
    Log(kWindowLast);
    return false;
  }
  const BlockInfo* last_block = BlockOf(index, RawIterator(last.Day(), last.Block(), 0));
  if (last_block == nullptr) {
    Log(kWindowLastDay, last.Day());
    return false;
  }
  window.start = EpochOf(first.Day(), first_block->start_seconds);
  window.end = EpochOf(last.Day(), last_block->end_seconds);
  return true;
}

bool EventStorageProvider::GetStorageTimeWindow(DateTimeInterval& window) const {
  if (!manager_.ProcessIndex(&GetStorageTimeWindowProcessor, &window)) {
    Log(kWindowFailed);
    return false;
  }
  return true;
}

uint32_t EventStorageProvider::GetSize() {
  uint32_t size = Index::kInvalidSize;
  bool ok = manager_.ProcessIndex(
      [](Index& index, void* context) {
        *static_cast<uint32_t*>(context) = index.get_size();
        return true;
      },
      &size);
  if (!ok) {
    Log(kSizeFailed);
    return Index::kInvalidSize;
  }
  if (size == Index::kInvalidSize) Log(kSizeUnknown);
  return size;
}

void EventStorageProvider::Flush() { manager_.Flush(); }

bool EventStorageProvider::__dump_index_data() {
  return __dump_index_data(Keel::OS::Path::Join(manager_.Directory(), kIndexDumpName));
}

bool EventStorageProvider::__dump_index_data(const std::string& path) {
  // One line per block: its key, day, block number, event count, first
  // second of day and the epoch second of its first event.
  struct Dump {
    Keel::Utils::String text;
    bool ok = true;
  } dump;
  bool walked = manager_.ProcessIndex(
      [](Index& index, void* context) {
        auto& out = *static_cast<Dump*>(context);
        return index.tree().Iterate(
            [&out](const uint16_t& day, DayInfo& info, void*, bool&) {
              for (uint32_t b = 0; b < info.GetBlockCount() && out.ok; ++b) {
                const BlockInfo* block = info.GetBlock(b);
                if (block == nullptr) continue;
                out.ok = out.text.AddFormat(
                    "- { id: 0x%016llx, d: %06llu, b: 0x%08llx, e: 0x%08llx, s: %06llu t:%32llu "
                    "}\n",
                    static_cast<unsigned long long>(RawIterator(day, b, 0)),
                    static_cast<unsigned long long>(day), static_cast<unsigned long long>(b),
                    static_cast<unsigned long long>(block->events_count),
                    static_cast<unsigned long long>(block->start_seconds),
                    static_cast<unsigned long long>(ToEpochSeconds(day, block->start_seconds)));
              }
              return out.ok;
            },
            nullptr);
      },
      &dump);
  if (!walked) {
    Log(dump.ok ? kDumpWalk : kDumpLine);
    return false;
  }
  Keel::OS::File file;
  const std::string& text = dump.text.str();
  if (!file.Open(path, Keel::OS::File::Mode::CreateTruncate) ||
      !file.Write(text.data(), text.size()) || !file.Flush()) {
    Log(kDumpWrite);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage
