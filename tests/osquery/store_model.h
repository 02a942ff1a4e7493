#pragma once

// A brute-force model of the store for the read side's model test: the
// writer's rules for cutting, placing, evicting, stopping and starting,
// applied to the accepted events alone, and the answers worked out from it.

#include <algorithm>
#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "manager/index/RawIterator.h"
#include "osquery/TimeRange.h"
#include "row_model.h"

namespace tarn::test {

using Tarn::Storage::RawIterator;

constexpr uint32_t kModelBlockSize = 102'400;

// One accepted event and the position the model says it must have.
struct ModelEvent {
  uint16_t day;
  uint32_t second;
  std::string table;
  RowPtr row;
  std::vector<uint8_t> record;
  uint64_t position = RawIterator::Invalid;
};

// What the store must hold: the writer's rules for cutting, placing,
// evicting, stopping and starting, applied to the events alone.
class StoreModel {
 public:
  explicit StoreModel(uint32_t max_days) : max_days_(max_days) {}

  void Accept(ModelEvent event) {
    const uint64_t size = event.record.size() + 8;
    if (!open_.empty() && (event.day != open_day_ || open_bytes_ + size > kModelBlockSize)) {
      PlaceOpen();
    }
    if (open_.empty()) open_day_ = event.day;
    open_bytes_ += size;
    open_.push_back(std::move(event));
  }
  void PlaceOpen() {
    Place(open_day_, std::move(open_));
    open_.clear();
    open_bytes_ = 0;
  }
  void Stop() {
    final_ = std::move(open_);
    final_day_ = open_day_;
    open_.clear();
    open_bytes_ = 0;
  }
  // A start with the clock on `today` (none: a reading the store cannot
  // file, which wipes nothing): a store that holds a later day is wiped, the
  // block left by the stop is taken back.
  void Start(std::optional<uint16_t> today) {
    while (days_.size() > max_days_) days_.erase(days_.begin());
    if (today && !days_.empty() && days_.rbegin()->first > *today) {
      days_.clear();
      final_.clear();
      padding_.reset();
    }
    Place(final_day_, std::move(final_));
    final_.clear();
  }
  // The second the store records for an event its clock puts at `second` of
  // `day`: never below one recorded for that day before.
  uint32_t Recorded(uint16_t day, uint32_t second) const {
    return std::max(second, LastSecond(day).value_or(0));
  }
  // A day that fills the budget up to a few bytes, so that the next block
  // placed evicts it by size.
  void AddPadding(uint16_t day, std::vector<ModelEvent> events) {
    Place(day, std::move(events));
    padding_ = day;
  }

  const std::map<uint16_t, std::vector<ModelEvent>>& days() const { return days_; }
  std::vector<const ModelEvent*> Stored() const {
    std::vector<const ModelEvent*> all;
    for (const auto& [day, events] : days_) {
      for (const ModelEvent& e : events) all.push_back(&e);
    }
    return all;
  }
  // The last second any event of `day` was accepted at, stored or not yet.
  std::optional<uint32_t> LastSecond(uint16_t day) const {
    std::optional<uint32_t> last;
    auto note = [&](const std::vector<ModelEvent>& events) {
      for (const ModelEvent& e : events) {
        if (e.day == day) last = std::max(last.value_or(0), e.second);
      }
    };
    if (auto it = days_.find(day); it != days_.end()) note(it->second);
    note(open_);
    note(final_);
    return last;
  }
  std::optional<uint16_t> padding() const { return padding_; }
  uint16_t OldestDay(uint16_t fallback) const {
    uint16_t oldest = days_.empty() ? fallback : days_.begin()->first;
    if (!final_.empty()) oldest = std::min(oldest, final_day_);
    if (!open_.empty()) oldest = std::min(oldest, open_day_);
    return std::min(oldest, fallback);
  }

 private:
  void Place(uint16_t day, std::vector<ModelEvent> events) {
    if (events.empty()) return;
    if (days_.count(day) == 0) {
      if (days_.size() + 1 > max_days_) days_.erase(days_.begin());
      blocks_[day] = 0;
    }
    if (padding_ && days_.count(*padding_) == 0) padding_.reset();
    // The padding day holds the store over its budget: days go oldest first,
    // never the day being written, until it has gone.
    for (auto it = days_.begin(); padding_ && it != days_.end();) {
      if (it->first == day) {
        ++it;
        continue;
      }
      if (it->first == *padding_) padding_.reset();
      it = days_.erase(it);
    }
    std::vector<ModelEvent>& stored = days_[day];
    const uint32_t block = blocks_[day]++;
    for (uint32_t i = 0; i < events.size(); ++i) {
      events[i].position = RawIterator(day, block, i);
      stored.push_back(std::move(events[i]));
    }
  }

  uint32_t max_days_;
  std::map<uint16_t, std::vector<ModelEvent>> days_;
  std::map<uint16_t, uint32_t> blocks_;
  std::vector<ModelEvent> open_, final_;
  uint16_t open_day_ = 0, final_day_ = 0;
  uint64_t open_bytes_ = 0;
  std::optional<uint16_t> padding_;
};

// What the by-time search must answer. AtOrBefore has the store's
// documented shape: an exact second gives its first event; otherwise the
// last earlier event, except that when the search had to move to the end of
// an earlier block (or day) it lands on the first event of that block's
// last second.
inline uint64_t ExpectedByTime(const std::vector<const ModelEvent*>& events, uint16_t day,
                        uint32_t second, uint32_t strategy) {
  auto key = [](const ModelEvent* e) { return std::make_pair(e->day, e->second); };
  auto block = [](const ModelEvent* e) { return RawIterator(e->position).AsKey(); };
  const auto wanted = std::make_pair(day, second);
  auto at_or_after = std::find_if(events.begin(), events.end(),
                                  [&](const ModelEvent* e) { return key(e) >= wanted; });
  const bool exact = at_or_after != events.end() && key(*at_or_after) == wanted;
  if (strategy == 0) return exact ? (*at_or_after)->position : RawIterator::Invalid;
  if (strategy == 1) return at_or_after != events.end() ? (*at_or_after)->position : RawIterator::Invalid;
  if (strategy != 2) return RawIterator::Invalid;
  if (exact) return (*at_or_after)->position;
  if (at_or_after == events.begin()) return RawIterator::Invalid;
  auto before = at_or_after - 1;
  if (at_or_after != events.end() && block(*at_or_after) == block(*before)) {
    return (*before)->position;
  }
  auto first = before;
  while (first != events.begin() && block(*(first - 1)) == block(*before) &&
         (*(first - 1))->second == (*before)->second) {
    --first;
  }
  return (*first)->position;
}

// The status a query's date_time constraints settle before any row is
// read: 4 for contradictions; over an empty store (which reports the widest
// window, where no position lies) 5 for a range that narrows it; else 0.
inline uint32_t ExpectedTimeStatus(const std::vector<Filter>& filters, bool empty_store) {
  uint64_t lower = Tarn::Storage::OSQuery::TimeRange::kDefaultLower, upper = Tarn::Storage::OSQuery::TimeRange::kDefaultUpper;
  std::optional<uint64_t> equal;
  for (const Filter& f : filters) {
    if (f.column != "date_time") continue;
    const uint64_t second = std::stoull(f.expr) / 1000;
    if (f.op == 2) {
      if (equal && *equal != second) return 4;
      equal = second;
    } else if (f.op == 4) {
      lower = std::max(lower, second + 1);
    } else if (f.op == 32) {
      lower = std::max(lower, second);
    } else {
      if (second == 0) return 4;
      upper = std::min(upper, second - 1);
    }
  }
  if (equal) {
    if (*equal < lower || *equal > upper) return 4;
    lower = upper = *equal;
  }
  if (!empty_store || lower > upper) return 0;
  const bool narrowed = lower != Tarn::Storage::OSQuery::TimeRange::kDefaultLower ||
                        upper != Tarn::Storage::OSQuery::TimeRange::kDefaultUpper;
  return narrowed ? 5 : 0;
}

}  // namespace tarn::test
