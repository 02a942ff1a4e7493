#pragma once

// The table scans of one statement, run ahead of SQLite on every core.
//
// When a statement is prepared, the planner tells each table what it will
// be asked: its columns and the terms whose values are known beforehand.
// From that the scans are known before the first row is wanted, and worker
// threads run them over time slices of the store (TimeSlices): each worker
// takes the next slice and asks every scan of the statement for it in turn,
// so the slice's blocks are decoded once, by the first scan, and found in
// the module's block cache by the others. SQLite then reads each scan's rows
// slice after slice, in time order: the rows one query over the whole range
// would have given, in its order.
//
// SQLite waits for the slice it needs. The rows the workers hold are
// bounded (kBudget): past it they wait for SQLite to take some, and a slice
// none of them has reached is then streamed by the reading thread itself,
// page by page, as a scan without workers is.
//
// Locks: one mutex, taken on its own, never while asking the store.

#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "osquery/Tables.h"
#include "tarn/host/QueryClient.h"
#include "tarn/sql/SqlConstraints.h"
#include "tarn/sql/TimeSlices.h"

namespace Tarn::Tool {

class KeptScan;

// A scan a statement will make, as its plan says.
struct PlannedScan {
  const Storage::OSQuery::TableInfo* table = nullptr;
  std::string columns;               // the column list the scan asks for
  std::vector<SqlConstraint> terms;  // the terms whose values the plan knows
  std::string key;                   // ScanKey of the above
};

// What names a scan's rows: table, columns and the store's constraints.
std::string ScanKey(const Storage::OSQuery::TableInfo& table, const std::string& columns,
                    const std::string& constraints);

// One slice of one scan.
struct SlicePart {
  enum class State : uint8_t { kWaiting, kRunning, kDone, kFailed, kTaken };

  State state = State::kWaiting;
  QueryRequest request;              // the slice's query, first page
  std::vector<QueryAnswer> answers;  // every page of it, once done
  // When the rows held reached the budget before the slice's last page:
  // the query of the pages left (its token), for the reader to stream.
  QueryRequest rest;
  std::string error;                 // once failed
  uint64_t bytes = 0;
};

class SlicedScans {
 public:
  static constexpr uint64_t kBudget = uint64_t{512} << 20;

  // Runs `scans` on `threads` workers; null when cutting them would not pay
  // (one scan over fewer than two blocks) or cannot be done exactly.
  static std::shared_ptr<SlicedScans> Start(QueryClient& client, const TimeSlices& slices,
                                            std::vector<PlannedScan> scans, unsigned threads);
  ~SlicedScans();  // stops the workers; a slice being asked for ends first
  SlicedScans(const SlicedScans&) = delete;
  SlicedScans& operator=(const SlicedScans&) = delete;

  // The scan whose key is `key`, or -1.
  int Find(const std::string& key) const;
  size_t SliceCount() const { return slices_.size(); }

  // Slice `slice` of scan `scan`, waiting while a worker asks for it. The
  // part's rows are the caller's from then on; a part in state kWaiting or
  // kTaken is the caller's to stream with its request.
  std::shared_ptr<SlicePart> Take(size_t scan, size_t slice);

  // Every slice of `scan` as one kept scan, waiting for the workers and
  // asking for the slices none has taken; null when a slice was taken
  // already, or with `error` set when one failed.
  std::shared_ptr<KeptScan> Whole(size_t scan, std::string& error);

 private:
  // `ranges`: each scan's own seconds.
  SlicedScans(QueryClient& client, std::vector<PlannedScan> scans,
              const std::vector<SecondRange>& ranges, std::vector<SecondRange> slices);
  void Work();
  // Asks for a waiting part with `lock` let go meanwhile, and records what
  // came back.
  void Run(std::unique_lock<std::mutex>& lock, SlicePart& part);
  // Hands a part to the caller (its rows leave the budget) and leaves a
  // taken one, with its query, in its place. Under the mutex.
  std::shared_ptr<SlicePart> HandOver(size_t slice, size_t scan);
  // Asks every page of the part's query; the part's answers or error.
  void Fetch(SlicePart& part);
  QueryRequest SliceRequest(const PlannedScan& scan, SecondRange slice) const;

  QueryClient& client_;
  std::vector<PlannedScan> scans_;
  std::vector<SecondRange> slices_;
  // By slice, then scan.
  std::vector<std::vector<std::shared_ptr<SlicePart>>> parts_;

  std::mutex mutex_;
  std::condition_variable changed_;
  size_t next_slice_ = 0;  // the next one a worker takes
  uint64_t held_bytes_ = 0;
  bool stop_ = false;
  std::vector<std::thread> workers_;
};

}  // namespace Tarn::Tool
