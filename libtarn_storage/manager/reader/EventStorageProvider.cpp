#include "manager/reader/EventStorageProvider.h"

#include <new>

#include "Keel/Log.h"
#include "Keel/OS/Path.h"

namespace Tarn::Storage {
namespace {

using Keel::OS::Threading::MutexGuard;

// Keel::Log::StorageProvider identifiers of this file.
enum Message : uint32_t {
  kMutexFailed = 1,
  kCacheFailed = 2,
  kFirstFailed = 3,
  kLastFailed = 4,
  kBlockSearchFailed = 5,
  kBlockUnavailable = 6,
  kNoEventAtTime = 7,
  kProtoStatsUnavailable = 8,
  kStepBroken = 9,  // a = position
};

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageProvider, message, a, b, c);
}

// Runs a position processor on a copy of `position`; the result replaces
// the copy only when the processor succeeds.
bool RunStep(StorageManager& manager, StorageManager::Processor processor, uint64_t& position) {
  RawIterator moved(position);
  // Invalid at once: a failed step ends the caller's walk.
  position = RawIterator::Invalid;
  if (!manager.ProcessIndex(processor, &moved)) return false;
  position = moved;
  return true;
}

int CompareField(uint64_t a, uint64_t b) {
  if (a == b) return 0;
  return a < b ? -1 : 1;
}

}  // namespace

EventStorageProvider::EventStorageProvider(StorageManager& manager,
                                           Telemetry::StorageTelemetry& telemetry)
    : manager_(manager), telemetry_(telemetry) {}

EventStorageProvider::~EventStorageProvider() {
  mutex_.reset();
  cache_.Clear();
}

bool EventStorageProvider::Create() {
  if (mutex_ == nullptr) mutex_.reset(new (std::nothrow) Mutex());
  if (mutex_ == nullptr) {
    Log(kMutexFailed);
    return false;
  }
  if (!cache_.Create()) {
    Log(kCacheFailed);
    mutex_.reset();
    return false;
  }
  return true;
}

uint64_t EventStorageProvider::GetIterVal(const DateTime& time) {
  IEventStorage& storage = *this;
  return storage.GetIterVal(time, Comm::Interface::Exact);
}

uint64_t EventStorageProvider::GetFirstIterVal() {
  RawIterator result;
  if (!manager_.ProcessIndex(&GetFirstIterValProcessor, &result)) {
    Log(kFirstFailed);
    return InvalidIterVal;
  }
  return result;
}

uint64_t EventStorageProvider::GetLastIterVal() {
  RawIterator result;
  if (!manager_.ProcessIndex(&GetLastIterValProcessor, &result)) {
    Log(kLastFailed);
    return InvalidIterVal;
  }
  return result;
}

bool EventStorageProvider::Increment(uint64_t& position) {
  return RunStep(manager_, &IncrementProcessor, position);
}

bool EventStorageProvider::Decrement(uint64_t& position) {
  return RunStep(manager_, &DecrementProcessor, position);
}

EventStorageProvider::Step EventStorageProvider::StepForward(uint64_t& position) {
  StepContext step{position};
  const bool moved = manager_.ProcessIndex(&StepForwardProcessor, &step);
  const uint64_t from = position;
  position = moved ? uint64_t{step.position} : InvalidIterVal;
  if (moved) return Step::kNext;
  if (step.at_end) return Step::kEnd;
  Log(kStepBroken, from);
  return Step::kBroken;
}

int EventStorageProvider::Compare(uint64_t a, uint64_t b) {
  if (a == b) return 0;
  RawIterator left(a);
  RawIterator right(b);
  if (int order = CompareField(left.Day(), right.Day())) return order;
  if (int order = CompareField(left.Block(), right.Block())) return order;
  return CompareField(left.Event(), right.Event());
}

RawIterator EventStorageProvider::GetBlockIterValEx(const DateTime& time, SearchStrategy strategy) {
  RawIterator result;
  // Unsigned on purpose: a time before 2000 wraps to a far-off day number,
  // exactly as it would have for the writer.
  TimeIndex at = ToTimeIndex(static_cast<uint64_t>(time.ToSecondsSinceEpoch()));
  BlockSearchContext context{&result, at.day, at.second, strategy};
  if (!manager_.ProcessIndex(&GetBlockIterValProcessorEx, &context)) {
    Log(kBlockSearchFailed, at.day, at.second, strategy);
    return InvalidIterVal;
  }
  return result;
}

uint64_t EventStorageProvider::GetIterVal(const DateTime& time, SearchStrategy strategy) {
  MutexGuard lock(mutex_.get());
  RawIterator result;
  TimeIndex at = ToTimeIndex(static_cast<uint64_t>(time.ToSecondsSinceEpoch()));
  BlockSearchContext context{&result, at.day, at.second, strategy};
  if (!manager_.ProcessIndex(&GetBlockIterValProcessorEx, &context)) {
    Log(kBlockSearchFailed, at.day, at.second, strategy);
    return InvalidIterVal;
  }
  BlockCache::BlockPtr block = GetBlockFromCache(result);
  if (block == nullptr) {
    Log(kBlockUnavailable, result);
    return InvalidIterVal;
  }
  // The processor may have moved the target into the chosen block.
  uint32_t event = GetEventIndexFromBlock(*block, TimeIndex{context.day, context.second}, strategy);
  if (event == kNoEvent) {
    Log(kNoEventAtTime, result, context.second, strategy);
    return InvalidIterVal;
  }
  return RawIterator(result.Day(), result.Block(), event);
}

bool EventStorageProvider::__dump_proto_stats(const char* path) {
  if (statistics_ == nullptr) {
    Log(kProtoStatsUnavailable, path != nullptr);
    return false;
  }
  std::string target = path != nullptr
                           ? std::string(path)
                           : Keel::OS::Path::Join(manager_.Directory(), kProtoStatsDumpName);
  return statistics_->DumpProtoStats(target);
}

}  // namespace Tarn::Storage
