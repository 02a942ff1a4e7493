#pragma once

// A store written by the real writer (StorageManager driven directly, with a
// clock the benchmark owns) in a fresh directory under the temporary
// directory, filled with records spread evenly over whole days, and what the
// benchmarks need to know about it afterwards. Removed with its directory
// when it goes.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Tarn/Storage/ITimeProvider.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/StorageManager.h"
#include "manager/index/TimeIndex.h"

namespace Tarn::Bench {

// The first day the benchmarks' stores hold: 2024-08-23.
constexpr uint16_t kFirstDay = 9000;

// Seconds the benchmark sets; milliseconds follow them.
class BenchClock final : public Storage::ITimeProvider {
 public:
  uint64_t GetEpochTime() override { return now.load(); }
  uint64_t GetSystemTime() override { return now.load() * 1000; }
  std::atomic<uint64_t> now{Storage::ToEpochSeconds(kFirstDay, 0)};
};

struct StoreShape {
  const char* name = "bench";   // the directory is <tmp>/tarn-<name>-XXXXXX
  uint64_t bytes = 100u << 20;  // raw records to write, about
  uint32_t record_bytes = 250;  // the records' mean size, to turn bytes into events
  uint16_t days = 4;            // from kFirstDay on
  uint32_t block_size = 10'485'760;
};

// Makes the next record, stamped `time_ms`; valid until the next call.
using RecordSource = std::function<const std::vector<uint8_t>&(uint64_t time_ms)>;

// Sees each stored block, still encoded, as a full walk would.
using BlockVisitor = std::function<void(const Comm::Interface::IEventStorage::DecodeToken& token,
                                        const Keel::Collections::Buffer& stored)>;

class BenchStore {
 public:
  BenchStore() = default;
  ~BenchStore();
  BenchStore(const BenchStore&) = delete;
  BenchStore& operator=(const BenchStore&) = delete;

  // Creates the store and writes about `shape.bytes` of records into it:
  // the same number each day, evenly over the day's seconds, then Flush.
  // Counts what it holds with Survey. False when any step failed.
  bool Build(const StoreShape& shape, const RecordSource& next);

  // Replaces the reader with one whose block cache is empty.
  void FreshReader();

  // Walks every stored block once (ProcessBlocks), counting events, blocks
  // and decoded bytes, and hands each block to `visit` when given.
  bool Survey(const BlockVisitor& visit = {});

  Storage::EventStorageProvider& reader() { return *reader_; }
  Storage::StorageManager& manager() { return manager_; }
  BenchClock& clock() { return clock_; }
  const std::string& directory() const { return directory_; }

  uint64_t events = 0;
  uint64_t raw_bytes = 0;  // decoded block sizes, summed
  uint32_t blocks = 0;
  bool ok = false;  // Build succeeded

 private:
  bool Fill(const StoreShape& shape, const RecordSource& next);

  std::string directory_;
  BenchClock clock_;
  Storage::StorageManager manager_;
  std::unique_ptr<Storage::EventStorageProvider> reader_;
};

}  // namespace Tarn::Bench
