#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/Threading.h"
#include "Keel/OS/Time.h"
#include "Tarn/Comm/IEventStorage.h"
#include "manager/reader/BlockCache.h"
#include "manager/reader/DecodedBlock.h"
#include "manager/index/RawIterator.h"
#include "manager/writer/Settings.h"
#include "manager/writer/StorageManager.h"
#include "manager/telemetry/StorageTelemetry.h"
#include "manager/reader/TableStatistics.h"
#include "manager/index/TimeIndex.h"

namespace Tarn::Events {
class ExternalData;
}
namespace Tarn::Events::Objects {
class StorageQuery;
}

namespace Tarn::Storage {

class Index;

// A span of stored time, in seconds since the Unix epoch, both ends included.
struct DateTimeInterval {
  int64_t start = 0;
  int64_t end = 0;
};

// The reader of the event store. Positions are RawIterator values; stepping
// and choosing blocks read the day index only, through processors that the
// manager runs under its mutex. Events come from decoded blocks, which a
// small cache keeps.
//
// Lock order: the provider mutex (held by the by-time search, GetEvent and
// GetTime) before the manager mutex (inside ProcessIndex) before the
// index's and each DayInfo's own. The cache's mutex is taken on its own,
// never while reaching the index.
class EventStorageProvider final : public Comm::Interface::IEventStorage {
 public:
  using SearchStrategy = Comm::Interface::SearchStrategy;
  using Buffer = Keel::Collections::Buffer;
  using DateTime = Keel::OS::DateTime;

  static constexpr uint64_t InvalidIterVal = RawIterator::Invalid;
  // GetEventIndexFromBlock's answer when no event matches.
  static constexpr uint32_t kNoEvent = 0xFFFFFFFFu;
  // Event numbers are 24 bits wide: indices from here on cannot be named.
  static constexpr uint32_t kEventIndexEnd = 0x1000000u;
  // The window an empty store reports: 2000-01-01 to 2080-01-01, UTC.
  static constexpr int64_t kWidestWindowStart = 946'684'800;
  static constexpr int64_t kWidestWindowEnd = 3'471'292'800;
  static constexpr const char* kIndexDumpName = "index.json";
  static constexpr const char* kProtoStatsDumpName = "proto_stats.json";

  // Keeps both references; does no I/O. Use nothing before Create.
  EventStorageProvider(StorageManager& manager, Telemetry::StorageTelemetry& telemetry);
  ~EventStorageProvider();
  EventStorageProvider(const EventStorageProvider&) = delete;
  EventStorageProvider& operator=(const EventStorageProvider&) = delete;

  // Creates the provider's mutex and the block cache. False (logged) when
  // either cannot be had.
  bool Create();
  bool IsCreated() const { return mutex_ != nullptr; }

  // Installs what __dump_proto_stats runs; without it (or with null) that
  // answers false. Not while other threads may call the reader.
  void SetTableStatistics(TableStatistics* statistics) { statistics_ = statistics; }

  // The single-event request (type 186): copies the event it names into the
  // request's destination when all of it fits.
  bool HandleQuery(Events::Objects::StorageQuery* query, Events::ExternalData* data);

  // ---- IEventStorage, in slot order ------------------------------------

  uint32_t GetSize() override;
  void Flush() override;
  bool __dump_proto_stats(const char* path) override;
  bool ProcessBlocks(uint64_t from, uint64_t to, BlockCallback callback) override;
  uint64_t GetIterVal(uint64_t value) override { return value; }
  uint64_t GetIterVal(const DateTime& time, SearchStrategy strategy) override;
  uint64_t GetIterVal(const DateTime& time) override;
  uint64_t GetFirstIterVal() override;
  uint64_t GetLastIterVal() override;
  bool Increment(uint64_t& position) override;
  bool Decrement(uint64_t& position) override;
  bool GetEvent(uint64_t position, Events::GenericEventHolder* holder) override;
  bool IsValid(uint64_t position) override { return position != InvalidIterVal; }
  bool GetTime(uint64_t position, DateTime& time) override;
  int Compare(uint64_t a, uint64_t b) override;

  // Increment for a walk that must not end early without saying so.
  enum class Step { kNext, kEnd, kBroken };
  // kNext: `position` is the next event. kEnd: it was the last event the
  // store holds. kBroken (logged): the store no longer names it (its day
  // was evicted under the walk) or cannot step past it, so a walk that
  // stops here has not seen everything. `position` is invalid unless kNext.
  Step StepForward(uint64_t& position);

  // ---- Blocks ----------------------------------------------------------

  // The block-level half of the by-time search: the chosen block with event
  // number 0, or InvalidIterVal (logged). Takes no provider mutex.
  RawIterator GetBlockIterValEx(const DateTime& time, SearchStrategy strategy);

  // The stored (complemented .xz) bytes of the position's block and what is
  // needed to decode them. The event number must name an event of it.
  bool GetBlock(RawIterator position, RawEventsBlockMetadata& meta, Buffer& stored) const;
  // Reads the block into `stored` as scratch and decodes it into `block`.
  bool GetBlockDecoded(RawIterator position, EventsBlock& block, Buffer& stored,
                       unsigned int& version) const;
  // Complements `stored` in place (it is left that way) and decompresses it
  // into `decoded`, which must come to exactly `decoded_size` bytes. The
  // stream's check makes a damaged block fail.
  static bool DecodeBlock(Buffer& stored, unsigned int decoded_size, Buffer& decoded,
                          Telemetry::StorageTelemetry& telemetry);
  // The decoded block of the position, from the cache or loaded into it;
  // null (logged) when it cannot be read or decoded.
  BlockCache::BlockPtr GetBlockFromCache(RawIterator position);
  // The database file version of the position's block, from the index alone.
  bool GetBlockVersion(RawIterator position, unsigned int& version);
  // The event of `block` that `strategy` picks for the time's second (its
  // day is not used), or kNoEvent. AtOrBefore is strict on purpose: a second
  // after every event of the block finds nothing, because the block search
  // always hands over a second inside the chosen block.
  static uint32_t GetEventIndexFromBlock(const EventsBlock& block, const TimeIndex& time,
                                         SearchStrategy strategy);

  // ---- The store as a whole --------------------------------------------

  // First and last stored second, from the index alone. An empty store
  // reports the widest window.
  bool GetStorageTimeWindow(DateTimeInterval& window) const;

  // Writes one line per indexed block to "index.json" in the storage
  // directory (or to `path`).
  bool __dump_index_data();
  bool __dump_index_data(const std::string& path);

  // Blocks the cache holds now; for tests and tools.
  uint32_t CachedBlockCount() const { return cache_.Count(); }

  // ---- Processors, run by StorageManager::ProcessIndex ------------------

  // By-time block search. The processor sets *result and overwrites day and
  // second with the time the in-block search must look for.
  struct BlockSearchContext {
    RawIterator* result;
    uint16_t day;
    uint32_t second;
    SearchStrategy strategy;
  };

  // Block read: the position, the buffer for the stored bytes and where the
  // metadata goes.
  struct BlockReadContext {
    RawIterator position;
    Buffer* stored;
    RawEventsBlockMetadata* meta;
  };

  // Context of the four position processors: the position (a RawIterator),
  // replaced by the result.
  static bool GetFirstIterValProcessor(Index& index, void* context);
  static bool GetLastIterValProcessor(Index& index, void* context);
  static bool IncrementProcessor(Index& index, void* context);
  // Context: a StepContext.
  static bool StepForwardProcessor(Index& index, void* context);
  struct StepContext {
    RawIterator position;
    bool at_end = false;
  };
  static bool DecrementProcessor(Index& index, void* context);
  static bool GetBlockIterValProcessorEx(Index& index, void* context);
  // GetBlockProcessor reads from the index's own directory, which is the
  // directory the writer writes to.
  static bool GetBlockProcessor(Index& index, void* context);
  static bool GetBlockProcessorFrom(const std::string& directory, Index& index, void* context);
  // Context: a DateTimeInterval.
  static bool GetStorageTimeWindowProcessor(Index& index, void* context);

 private:
  using Mutex = Keel::OS::Threading::Mutex;

  BlockCache::BlockPtr LoadBlock(RawIterator position);

  std::unique_ptr<Mutex> mutex_;
  BlockCache cache_;
  StorageManager& manager_;
  Telemetry::StorageTelemetry& telemetry_;
  TableStatistics* statistics_ = nullptr;
};

}  // namespace Tarn::Storage
