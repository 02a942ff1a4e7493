#pragma once

// A real store (writer thread, day files, index) driven by a test clock, with
// the reader on top of it, fed whole blocks at chosen seconds.

#include <gtest/gtest.h>

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <string>
#include <vector>

#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/Time.h"
#include "Tarn/Events/Base.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace tarn::test {

inline Tarn::Storage::Settings ReaderSettings() {
  Tarn::Storage::Settings s = Tarn::Storage::Settings::default_();
  s.block_buffer_size = 102'400;
  s.max_storage_size = 52'428'800;
  s.max_days = 10;
  return s;
}

inline Keel::OS::DateTime TimeOf(uint32_t day, uint32_t second) {
  return Keel::OS::DateTime(static_cast<int64_t>(EpochOf(day, second)));
}

class ReaderStore {
 public:
  explicit ReaderStore(Tarn::Storage::Settings settings = ReaderSettings()) : settings_(settings) {}
  ~ReaderStore() { Keel::OS::Faults::ClearRules(); }

  bool Open() {
    manager_ = std::make_unique<Tarn::Storage::StorageManager>();
    if (!manager_->Create(settings_, &clock_, 1, dir_.path().c_str())) return false;
    reader_ =
        std::make_unique<Tarn::Storage::EventStorageProvider>(*manager_, manager_->telemetry());
    return reader_->Create();
  }

  // One whole block of events at `seconds` of `day`, readable afterwards.
  bool Block(uint16_t day, std::initializer_list<uint32_t> seconds) {
    for (uint32_t second : seconds) {
      clock_.SetDay(day, second);
      fed_.push_back(MakeEvent(static_cast<uint32_t>(fed_.size()), 120));
      Tarn::Events::Objects::Base event(fed_.back().data(), fed_.back().size());
      if (!manager_->AddEvent(event)) return false;
    }
    return manager_->Flush();
  }

  // Puts `day` into the index with no block. The writer never leaves such a
  // day; the reader's rules for one are still its own.
  bool EmptyDay(uint16_t day) {
    if (!manager_->Flush()) return false;
    return manager_->ProcessIndex(
        [](Tarn::Storage::Index& index, void* context) {
          Tarn::Storage::DayInfo info;
          return info.Create() &&
                 index.tree().Insert(*static_cast<uint16_t*>(context), std::move(info));
        },
        &day);
  }

  Tarn::Storage::EventStorageProvider& reader() { return *reader_; }
  Tarn::Storage::StorageManager& manager() { return *manager_; }
  // The records fed, in order.
  const std::vector<std::vector<uint8_t>>& fed() const { return fed_; }
  std::string DayFile(uint16_t day) const {
    return dir_.File(Tarn::Storage::Utils::DayFileName(day, 2));
  }
  const std::string& directory() const { return dir_.path(); }

  // Closes the whole store, the reader first.
  void Close() {
    reader_.reset();
    manager_.reset();
  }

 private:
  Tarn::Storage::Settings settings_;
  TempDir dir_;
  FakeClock clock_{EpochOf(9000, 0)};
  std::unique_ptr<Tarn::Storage::StorageManager> manager_;
  std::unique_ptr<Tarn::Storage::EventStorageProvider> reader_;
  std::vector<std::vector<uint8_t>> fed_;
};

}  // namespace tarn::test
