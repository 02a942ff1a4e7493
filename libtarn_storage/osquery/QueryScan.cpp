#include "osquery/QueryScan.h"

#include "Keel/Log.h"
#include "Tarn/Events/EventHeader.h"
#include "manager/reader/EventStorageProvider.h"
#include "osquery/Matcher.h"
#include "osquery/Tables.h"

namespace Tarn::Storage::OSQuery {

namespace {

enum Message : uint32_t {
  kScratchFailed = 130,
  kNoBlockVersion = 131,     // a = position
  kBlockUnavailable = 132,   // a = position
  kNoEvent = 133,            // a = position, b = events in the block
  kVersionPassedOver = 134,  // a = type id, b = version
  kScanEnded = 135,          // a = status, b = rows, c = positions visited
};

// The row arena's first block; it grows as large as one row needs.
constexpr uint64_t kScratchMaximum = 524'288'000;
// Database files older than this version hold blocks the scan cannot read.
constexpr unsigned int kFirstReadableVersion = 2;

// Positions inside one decoded block are stepped locally: the block holds
// exactly the events the index counts for it (the reader checks that when
// it decodes), so the index is consulted only to cross into the next block.
class Scan {
 public:
  Scan(EventStorageProvider& provider, const OSQuerySettings& settings,
       const ScanRequest& request, ResponseBuilder& response, RowAdder add_row)
      : provider_(provider),
        settings_(settings),
        request_(request),
        response_(response),
        add_row_(add_row) {}

  bool Run();

 private:
  bool EnterBlock(RawIterator at);
  // One position of a readable block: false ends the scan, status set.
  bool Visit(RawIterator at);
  // Moves to the next position; false (status 5) when the store can no
  // longer step on from this one.
  bool Advance(uint64_t& position);

  EventStorageProvider& provider_;
  const OSQuerySettings& settings_;
  const ScanRequest& request_;
  ResponseBuilder& response_;
  const RowAdder add_row_;
  Keel::Collections::Buffer scratch_;
  BlockCache::BlockPtr block_;  // null while in a block that is not read
  uint64_t block_key_ = RawIterator::Invalid;
  uint64_t visited_ = 0;
};

bool Scan::Run() {
  if (!scratch_.Create(0, kScratchMaximum, Keel::Collections::GrowType::Percent, 100)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kScratchFailed, 0, 0, 0);
    return false;
  }
  uint64_t position = request_.start;
  if (!EnterBlock(position)) return false;
  while (provider_.IsValid(position) && provider_.Compare(position, request_.end) <= 0) {
    // Before every position, matching or not: reaching the limit with
    // positions left means the answer would be cut.
    if (response_.rows >= response_.max_rows) {
      response_.status = kStatusRowLimit;
      return false;
    }
    const RawIterator at(position);
    if (at.AsKey() != block_key_ && !EnterBlock(at)) return false;
    if (block_ != nullptr && !Visit(at)) return response_.status == kStatusPartial;
    ++visited_;
    if (!Advance(position)) return false;
  }
  response_.status = kStatusComplete;
  KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kScanEnded, response_.status,
           response_.rows, visited_);
  return true;
}

bool Scan::EnterBlock(RawIterator at) {
  block_.reset();
  block_key_ = at.AsKey();
  scratch_.Reset();
  unsigned int version = 0;
  if (!provider_.GetBlockVersion(at, version)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoBlockVersion, at, 0, 0);
    return false;
  }
  if (version < kFirstReadableVersion) return true;  // its positions are passed over
  block_ = provider_.GetBlockFromCache(at);
  if (block_ == nullptr) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kBlockUnavailable, at, 0, 0);
    return false;
  }
  return true;
}

bool Scan::Visit(RawIterator at) {
  const uint8_t* record = nullptr;
  uint32_t size = 0;
  if (at.Event() >= block_->EventCount() || !block_->Event(at.Event(), record, size)) {
    KEEL_LOG(Keel::Log::Error, Keel::Log::StorageQuery, kNoEvent, at, block_->EventCount(), 0);
    return false;
  }
  const Events::Objects::Base event(record, size);
  if (event.TypeId() != request_.type_id) return true;
  const uint16_t version = Events::EventHeader(record, size).Version();
  if (!IsSupportedVersion(request_.type_id, version)) {
    KEEL_LOG(Keel::Log::Debug, Keel::Log::StorageQuery, kVersionPassedOver, request_.type_id,
             version, 0);
    return true;
  }
  if (!MatchEvent(event, *request_.constraints)) return true;
  switch (add_row_(event, response_, *request_.columns, settings_, scratch_)) {
    case kRowAdded:
      if (response_.with_positions && !response_.positions.PushUInt64(at)) {
        response_.status = kStatusInternal;
        return false;
      }
      return true;
    case kRowBufferFull:
      response_.token = at;
      response_.status = kStatusPartial;
      return false;
    default:
      response_.status = kStatusRowFailed;
      return false;
  }
}

bool Scan::Advance(uint64_t& position) {
  const RawIterator at(position);
  if (block_ != nullptr && at.Event() + 1 < block_->EventCount()) {
    position = RawIterator(at.Day(), at.Block(), at.Event() + 1);
    return true;
  }
  // Only the store's real end may end the scan early: a day evicted under
  // it would otherwise make a cut answer look complete.
  return provider_.StepForward(position) != EventStorageProvider::Step::kBroken;
}

}  // namespace

bool ScanPositions(EventStorageProvider& provider, const OSQuerySettings& settings,
                   const ScanRequest& request, ResponseBuilder& response, RowAdder add_row) {
  if (request.columns == nullptr || request.constraints == nullptr || add_row == nullptr) {
    return false;
  }
  return Scan(provider, settings, request, response, add_row).Run();
}

}  // namespace Tarn::Storage::OSQuery
