#include "tarn/sql/SlicedScans.h"

#include <algorithm>
#include <limits>
#include <system_error>

#include "manager/reader/BlockCache.h"
#include "tarn/sql/ScanCache.h"

namespace Tarn::Tool {
namespace {

using Storage::OSQuery::TableInfo;

constexpr uint64_t kOpenEnd = std::numeric_limits<uint64_t>::max() / 2;

// The seconds a scan's known date_time terms leave; first above last when
// none.
SecondRange RangeOf(const PlannedScan& scan) {
  int64_t lower = 0;
  int64_t upper = 0;
  if (!DateTimeSpan(*scan.table, scan.terms, lower, upper)) return {0, kOpenEnd};
  if (lower > upper) return {1, 0};
  const uint64_t first = lower > 0 ? static_cast<uint64_t>(lower) / 1000 : 0;
  const uint64_t last = upper < std::numeric_limits<int64_t>::max()
                            ? std::min(static_cast<uint64_t>(std::max<int64_t>(upper, 0)) / 1000,
                                       kOpenEnd)
                            : kOpenEnd;
  return {first, last};
}

// Blocks per slice. One scan: four slices per thread, few enough that few
// blocks are decoded by the searches that start and end each query (the
// store runs those one at a time), many enough that SQLite gets its first
// rows early and reads them while the workers go on. Several scans: slices
// small enough that every worker's blocks stay in the module's block cache
// while each scan of the statement reads them.
size_t BlocksPerSlice(size_t blocks, size_t scans, unsigned threads) {
  if (scans == 1) return (blocks + 4 * threads - 1) / (4 * threads);
  const size_t per_worker = Storage::BlockCache::kCapacity / threads;
  return std::max<size_t>(per_worker > 1 ? per_worker - 1 : 1, 1);
}

}  // namespace

std::string ScanKey(const TableInfo& table, const std::string& columns,
                    const std::string& constraints) {
  return std::string(table.name) + '\n' + columns + '\n' + constraints;
}

std::shared_ptr<SlicedScans> SlicedScans::Start(QueryClient& client, const TimeSlices& slices,
                                                std::vector<PlannedScan> scans,
                                                unsigned threads) {
  if (threads < 2 || !slices.CanCut()) return nullptr;
  // A scan whose terms leave no time asks nothing: leave it to SQLite.
  std::erase_if(scans, [](const PlannedScan& scan) {
    const SecondRange range = RangeOf(scan);
    return range.first > range.last;
  });
  if (scans.empty()) return nullptr;
  std::vector<SecondRange> ranges;
  SecondRange hull{kOpenEnd, 0};
  for (const PlannedScan& scan : scans) {
    const SecondRange& range = ranges.emplace_back(RangeOf(scan));
    hull.first = std::min(hull.first, range.first);
    hull.last = std::max(hull.last, range.last);
  }
  const size_t blocks = slices.BlocksIn(hull);
  if (blocks < 2 && scans.size() == 1) return nullptr;
  std::vector<SecondRange> cut = slices.Cut(hull, BlocksPerSlice(blocks, scans.size(), threads));
  if (cut.size() < 2 && scans.size() == 1) return nullptr;
  std::shared_ptr<SlicedScans> sliced(
      new SlicedScans(client, std::move(scans), ranges, std::move(cut)));
  try {
    for (unsigned i = 0; i < threads; ++i) {
      sliced->workers_.emplace_back([s = sliced.get()] { s->Work(); });
    }
  } catch (const std::system_error&) {
    return nullptr;  // no thread to be had: each scan is asked for in turn
  }
  return sliced;
}

SlicedScans::SlicedScans(QueryClient& client, std::vector<PlannedScan> scans,
                         const std::vector<SecondRange>& ranges, std::vector<SecondRange> slices)
    : client_(client), scans_(std::move(scans)), slices_(std::move(slices)) {
  parts_.resize(slices_.size());
  for (size_t j = 0; j < slices_.size(); ++j) {
    for (size_t i = 0; i < scans_.size(); ++i) {
      auto part = std::make_shared<SlicePart>();
      const SecondRange slice{std::max(ranges[i].first, slices_[j].first),
                              std::min(ranges[i].last, slices_[j].last)};
      part->request = SliceRequest(scans_[i], slice);
      // Outside the scan's own time, or no row can match: nothing to ask.
      if (slice.first > slice.last || part->request.table.empty()) {
        part->state = SlicePart::State::kDone;
      }
      parts_[j].push_back(std::move(part));
    }
  }
}

SlicedScans::~SlicedScans() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
  }
  changed_.notify_all();
  for (std::thread& worker : workers_) worker.join();
}

QueryRequest SlicedScans::SliceRequest(const PlannedScan& scan, SecondRange slice) const {
  std::vector<SqlConstraint> terms = scan.terms;
  if (slice.first > 0) {
    terms.push_back({0, kSqlGreaterOrEqual,
                     SqlValue::Integer(static_cast<int64_t>(slice.first) * 1000)});
  }
  if (slice.last < kOpenEnd) {
    terms.push_back({0, kSqlLess, SqlValue::Integer(static_cast<int64_t>(slice.last + 1) * 1000)});
  }
  const PushedConstraints pushed = PushConstraints(*scan.table, terms);
  QueryRequest request;
  if (pushed.nothing) return request;  // no table: nothing to ask
  request.table = scan.table->name;
  request.columns = scan.columns;
  request.constraints = pushed.json;
  request.with_positions = true;
  return request;
}

int SlicedScans::Find(const std::string& key) const {
  for (size_t i = 0; i < scans_.size(); ++i) {
    if (scans_[i].key == key) return static_cast<int>(i);
  }
  return -1;
}

void SlicedScans::Fetch(SlicePart& part) {
  QueryRequest request = part.request;
  for (;;) {
    QueryAnswer answer;
    std::string error;
    if (!client_.AskAround(request, answer, error)) {
      part.error = error;
      return;
    }
    if (!answer.HasRows()) {
      part.error = client_.Explain(answer);
      return;
    }
    const bool more = answer.status == QueryAnswer::kPartial;
    request.token = answer.next_token;
    request.page = answer.next_page;
    const uint64_t bytes = answer.events.size();
    part.answers.push_back(std::move(answer));
    std::lock_guard<std::mutex> lock(mutex_);
    // Counted page by page: no slice passes the budget unseen.
    part.bytes += bytes;
    held_bytes_ += bytes;
    if (!more) return;
    if (stop_) {
      part.error = "stopped";
      return;
    }
    if (held_bytes_ >= kBudget) {
      part.rest = request;  // the reader streams the pages left
      return;
    }
  }
}

void SlicedScans::Run(std::unique_lock<std::mutex>& lock, SlicePart& part) {
  part.state = SlicePart::State::kRunning;
  lock.unlock();
  Fetch(part);
  lock.lock();
  part.state = part.error.empty() ? SlicePart::State::kDone : SlicePart::State::kFailed;
  changed_.notify_all();
}

std::shared_ptr<SlicePart> SlicedScans::HandOver(size_t slice, size_t scan) {
  std::shared_ptr<SlicePart> part = parts_[slice][scan];
  auto taken = std::make_shared<SlicePart>();
  taken->state = SlicePart::State::kTaken;
  taken->request = part->request;
  parts_[slice][scan] = taken;
  held_bytes_ -= part->bytes;
  changed_.notify_all();
  return part;
}

void SlicedScans::Work() {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    changed_.wait(lock, [this] {
      return stop_ || next_slice_ >= slices_.size() || held_bytes_ < kBudget;
    });
    if (stop_ || next_slice_ >= slices_.size()) return;
    const size_t slice = next_slice_++;
    // Every scan of the slice in turn, while its blocks are in the cache.
    for (const std::shared_ptr<SlicePart>& part : parts_[slice]) {
      if (part->state != SlicePart::State::kWaiting) continue;
      Run(lock, *part);
      if (stop_) return;
    }
  }
}

std::shared_ptr<SlicePart> SlicedScans::Take(size_t scan, size_t slice) {
  std::unique_lock<std::mutex> lock(mutex_);
  std::shared_ptr<SlicePart>& held = parts_[slice][scan];
  // A part no worker has reached is waited for too, while the workers go
  // on: asking for it here would decode its blocks once more, away from the
  // slice the workers hold in the cache.
  changed_.wait(lock, [this, &held] {
    return held->state != SlicePart::State::kRunning &&
           (held->state != SlicePart::State::kWaiting || stop_ || held_bytes_ >= kBudget);
  });
  if (held->state == SlicePart::State::kTaken) return held;
  // From now on the part is the caller's: its rows, or its query to stream.
  std::shared_ptr<SlicePart> part = HandOver(slice, scan);
  return part->state == SlicePart::State::kWaiting ? parts_[slice][scan] : part;
}

std::shared_ptr<KeptScan> SlicedScans::Whole(size_t scan, std::string& error) {
  for (size_t slice = 0; slice < slices_.size(); ++slice) {
    std::unique_lock<std::mutex> lock(mutex_);
    const std::shared_ptr<SlicePart>& held = parts_[slice][scan];
    // As in Take: the workers reach the part with its slice's blocks in the
    // cache, unless they wait for room, and then only this thread can run it.
    changed_.wait(lock, [this, &held] {
      return held->state != SlicePart::State::kRunning &&
             (held->state != SlicePart::State::kWaiting || stop_ || held_bytes_ >= kBudget);
    });
    if (held->state == SlicePart::State::kTaken) return nullptr;
    std::shared_ptr<SlicePart> part = held;
    if (part->state == SlicePart::State::kWaiting) Run(lock, *part);
    if (part->state == SlicePart::State::kFailed) {
      error = part->error;
      return nullptr;
    }
  }
  auto whole = std::make_shared<KeptScan>();
  std::vector<std::shared_ptr<SlicePart>> parts;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (size_t slice = 0; slice < slices_.size(); ++slice) parts.push_back(HandOver(slice, scan));
  }
  for (const std::shared_ptr<SlicePart>& part : parts) {
    for (QueryAnswer& answer : part->answers) whole->Add(std::move(answer));
    // The pages a worker left when the rows held reached the budget.
    for (QueryRequest rest = part->rest; !rest.table.empty();) {
      QueryAnswer answer;
      if (!client_.AskAround(rest, answer, error)) return nullptr;
      if (!answer.HasRows()) {
        error = client_.Explain(answer);
        return nullptr;
      }
      rest.table = answer.status == QueryAnswer::kPartial ? rest.table : std::string();
      rest.token = answer.next_token;
      rest.page = answer.next_page;
      whole->Add(std::move(answer));
    }
  }
  return whole;
}

}  // namespace Tarn::Tool
