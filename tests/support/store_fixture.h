#pragma once

// Helpers for tests that drive a real store: a clock the test moves, event
// records of a chosen size, and a reader that checks what landed on disk.

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Storage/ITimeProvider.h"

namespace tarn::test {

// Seconds since 1970 of day `day` (days since 2000-01-01) at `second`.
constexpr uint64_t EpochOf(uint32_t day, uint32_t second) {
  return 946'684'800ull + day * 86'400ull + second;
}

class FakeClock final : public Tarn::Storage::ITimeProvider {
 public:
  explicit FakeClock(uint64_t epoch_seconds = EpochOf(9000, 0)) : now_(epoch_seconds) {}
  uint64_t GetEpochTime() override { return now_.load(); }
  uint64_t GetSystemTime() override { return now_.load() * 1000; }
  void Set(uint64_t epoch_seconds) { now_.store(epoch_seconds); }
  void SetDay(uint32_t day, uint32_t second = 0) { now_.store(EpochOf(day, second)); }

 private:
  std::atomic<uint64_t> now_;
};

// An event record of exactly `size` bytes (at least 27), tagged with `tag`
// in its first fixed slot so tests can tell events apart.
std::vector<uint8_t> MakeEvent(uint32_t tag, uint32_t size, uint32_t type_id = 5,
                               bool do_not_store = false);

// One stored event as read back from disk.
struct StoredEvent {
  uint16_t day;
  uint32_t second;
  std::vector<uint8_t> record;
};

// Reads every block the index names, in index order, and appends the events
// to `out`. False when a named block cannot be read or decoded.
bool ReadIndexedEvents(const std::string& directory, std::vector<StoredEvent>& out);

// Reads the events left in the shutdown file, if there is one.
bool ReadFinalEvents(const std::string& directory, std::vector<StoredEvent>& out);

// Bytes of the day files in `directory`, indexed or not: what counts toward
// the store's size budget.
uint64_t DayFileBytes(const std::string& directory);

// The tag MakeEvent put in a record.
uint32_t TagOf(const std::vector<uint8_t>& record);

}  // namespace tarn::test
