// Reading a block named by a position: found through the index, read from
// its day file under the manager mutex (so that eviction cannot delete the
// file halfway through the read), decoded, and kept in the block cache.

#include <optional>

#include "Keel/Log.h"
#include "Keel/Lzma.h"
#include "Keel/OS/File.h"
#include "Keel/OS/Path.h"
#include "manager/format/DayFile.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "Tarn/Events/Record.h"
#include "manager/format/StorageHelper.h"

namespace Tarn::Storage {
namespace {

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kTreeNotInitialized = 100,
  kDayMissing = 101,
  kBlockMissing = 102,
  kEventPastBlock = 103,
  kNoFileName = 104,
  kOpenFailed = 105,
  kBadFileHeader = 110,
  kFileSize = 111,
  kBlockHeader = 112,
  kCountMismatch = 113,
  kPayload = 114,
  kReadFailed = 115,
  kDecodeFailed = 116,
  kNoStoredBytes = 117,
  kBufferFailed = 118,
  kLoadFailed = 119,
  kInsertFailed = 120,
  kVersionDayMissing = 121,
  kVersionBlockMissing = 122,
  kEventIndexTooLarge = 123,
  kNothingBefore = 124,
  kBadTable = 125,
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, message, a, b, c);
}

// The index entry of the position's block, whose event the position names.
const BlockInfo* FindBlock(Index& index, RawIterator at) {
  if (!index.tree().IsInitialized()) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageProvider, kTreeNotInitialized, at.Day(), 0, 0);
    return nullptr;
  }
  const DayInfo* info = index.tree().SearchUnsafe(at.Day());
  if (info == nullptr) {
    Log(kDayMissing, at.Day());
    return nullptr;
  }
  const BlockInfo* block =
      at.Block() < info->GetBlockCount() ? info->GetBlock(at.Block()) : nullptr;
  if (block == nullptr) {
    Log(kBlockMissing, at.Day(), at.Block(), info->GetBlockCount());
    return nullptr;
  }
  if (at.Event() >= block->events_count) {
    Log(kEventPastBlock, at.Day(), at.Event(), block->events_count);
    return nullptr;
  }
  return block;
}

// Reads the block's frame and payload. Every read is bounded by the file's
// size, and the frame must describe as many events as the index says.
bool ReadStored(Keel::OS::File& file, const BlockInfo& block, Keel::Collections::Buffer& stored,
                RawEventsBlockMetadata& meta) {
  uint64_t file_size = 0;
  if (!file.GetSize(file_size)) {
    Log(kFileSize, file.LastError());
    return false;
  }
  BlockHeader header;
  if (!ReadBlockHeader(file, block.block_offset, file_size, header)) {
    Log(kBlockHeader, block.block_offset, file_size);
    return false;
  }
  if (header.raw_size - header.table_offset != uint64_t{block.events_count} * kEntrySize) {
    Log(kCountMismatch, block.block_offset, header.raw_size - header.table_offset,
        block.events_count);
    return false;
  }
  if (!ReadBlockPayload(file, block.block_offset, header, stored)) {
    Log(kPayload, block.block_offset, header.stored_size);
    return false;
  }
  meta.event_table_offset = header.table_offset;
  meta.event_count = block.events_count;
  meta.decoded_size = header.raw_size;
  meta.version = block.version;
  return true;
}

}  // namespace

bool EventStorageProvider::GetBlockProcessor(Index& index, void* context) {
  return GetBlockProcessorFrom(index.directory(), index, context);
}

bool EventStorageProvider::GetBlockProcessorFrom(const std::string& directory, Index& index,
                                                 void* context) {
  auto& read = *static_cast<BlockReadContext*>(context);
  const BlockInfo* block = FindBlock(index, read.position);
  if (block == nullptr) return false;
  std::string name = Utils::DayFileName(read.position.Day(), block->version);
  if (name.empty()) {
    Log(kNoFileName, read.position.Day(), block->version);
    return false;
  }
  Keel::OS::File file;  // closed on every way out
  if (!file.Open(Keel::OS::Path::Join(directory, name), Keel::OS::File::Mode::Read)) {
    Log(kOpenFailed, read.position.Day(), block->version);
    return false;
  }
  // The header must name the version the file's name carries: a file renamed
  // or rewritten under another version is not read.
  DayFileCheck check;
  if (!ReadDayFileHeader(file, check, block->version)) {
    Log(kBadFileHeader, read.position.Day(), block->version, static_cast<uint32_t>(check));
    return false;
  }
  return ReadStored(file, *block, *read.stored, *read.meta);
}

bool EventStorageProvider::GetBlock(RawIterator position, RawEventsBlockMetadata& meta,
                                    Buffer& stored) const {
  BlockReadContext context{position, &stored, &meta};
  if (!manager_.ProcessIndex(&GetBlockProcessor, &context)) {
    Log(kReadFailed, position);
    return false;
  }
  return true;
}

bool EventStorageProvider::GetBlockDecoded(RawIterator position, EventsBlock& block, Buffer& stored,
                                           unsigned int& version) const {
  RawEventsBlockMetadata meta;
  if (!GetBlock(position, meta, stored)) return false;
  if (!DecodeBlock(stored, meta.decoded_size, block.bytes(), telemetry_)) {
    Log(kDecodeFailed, position, meta.decoded_size);
    return false;
  }
  if (!block.Adopt(meta.event_table_offset, meta.event_count)) {
    Log(kBadTable, position);
    return false;
  }
  version = meta.version;
  return true;
}

bool EventStorageProvider::DecodeBlock(Buffer& stored, unsigned int decoded_size, Buffer& decoded,
                                       Telemetry::StorageTelemetry& telemetry) {
  if (stored.Empty()) {
    Log(kNoStoredBytes);
    return false;
  }
  InvertBytes(stored.Data(), stored.Size());
  telemetry.notify_uncompression_started();
  decoded.Reset();
  std::optional<bool> ok =
      Keel::Lzma::Uncompress(stored.Data(), stored.Size(), decoded, decoded_size);
  telemetry.notify_uncompression_ended(ok);
  if (!*ok) Log(kDecodeFailed, stored.Size(), decoded_size);
  return *ok;
}

BlockCache::BlockPtr EventStorageProvider::LoadBlock(RawIterator position) {
  auto block = std::make_shared<EventsBlock>();
  Buffer stored;
  if (!block->Create() || !CreateReaderBuffer(stored)) {
    Log(kBufferFailed, position);
    return nullptr;
  }
  unsigned int version = 0;
  if (!GetBlockDecoded(position, *block, stored, version)) return nullptr;
  return block;
}

BlockCache::BlockPtr EventStorageProvider::GetBlockFromCache(RawIterator position) {
  const uint64_t key = position.AsKey();
  // Taken before the read: a block read while the index changed is cached
  // under the older generation and not handed out again.
  const uint64_t generation = manager_.Generation();
  if (BlockCache::BlockPtr hit = cache_.Find(key, generation)) return hit;
  telemetry_.notify_cache_miss();
  // Decoded outside the cache's lock; only a whole, checked block goes in.
  BlockCache::BlockPtr loaded = LoadBlock(position);
  if (loaded == nullptr) {
    Log(kLoadFailed, position);
    return nullptr;
  }
  BlockCache::BlockPtr cached = cache_.Insert(key, generation, std::move(loaded));
  if (cached == nullptr) {
    telemetry_.unreachable_reached();
    Log(kInsertFailed, position);
  }
  return cached;
}

bool EventStorageProvider::GetBlockVersion(RawIterator position, unsigned int& version) {
  struct Query {
    RawIterator position;
    unsigned int version;
  } query{position, 0};
  bool found = manager_.ProcessIndex(
      [](Index& index, void* context) {
        auto& q = *static_cast<Query*>(context);
        const DayInfo* info = index.tree().SearchUnsafe(q.position.Day());
        if (info == nullptr) {
          Log(kVersionDayMissing, q.position.Day());
          return false;
        }
        const BlockInfo* block = q.position.Block() < info->GetBlockCount()
                                     ? info->GetBlock(q.position.Block())
                                     : nullptr;
        if (block == nullptr) {
          Log(kVersionBlockMissing, q.position.Day(), q.position.Block());
          return false;
        }
        q.version = block->version;
        return true;
      },
      &query);
  if (found) version = query.version;
  return found;
}

uint32_t EventStorageProvider::GetEventIndexFromBlock(const EventsBlock& block,
                                                      const TimeIndex& time,
                                                      SearchStrategy strategy) {
  const uint32_t second = time.second;
  const uint32_t count = block.EventCount();
  // Lower bound: the first event whose second is not below the one asked for.
  uint32_t low = 0;
  uint32_t high = count;
  while (low < high) {
    uint32_t middle = low + (high - low) / 2;
    if (block.Second(middle) < second) {
      low = middle + 1;
    } else {
      high = middle;
    }
  }
  if (low == count) return kNoEvent;  // every strategy, AtOrBefore included
  uint32_t found = low;
  switch (strategy) {
    case Comm::Interface::Exact:
      if (block.Second(found) != second) return kNoEvent;
      break;
    case Comm::Interface::AtOrAfter:
      break;
    case Comm::Interface::AtOrBefore:
      if (block.Second(found) > second) {
        if (found == 0) {
          Log(kNothingBefore, second, block.Second(0));
          return kNoEvent;
        }
        --found;
      }
      break;
    default:
      return kNoEvent;
  }
  if (found >= kEventIndexEnd) {
    Log(kEventIndexTooLarge, found);
    return kNoEvent;
  }
  return found;
}

}  // namespace Tarn::Storage
