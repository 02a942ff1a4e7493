// Arbitrary bytes as "storage.final.db". ReadFinalFile must classify the
// file as a plain reading of its format does, hand back exactly the raw
// block it holds, and never read past it. A file it accepts is then taken
// back by a starting store, which must put every one of its events, byte for
// byte, into the day's file and delete the shutdown file.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>

#include "FuzzSupport.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/OS/FileSystem.h"
#include "Tarn/Storage/ITimeProvider.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "manager/index/TimeIndex.h"

namespace {

using namespace Tarn::Storage;  // NOLINT: a fuzzer's few functions
using tarn::fuzz::ByteReader;
using tarn::fuzz::FixedClock;

struct Expected {
  FinalFileState state = FinalFileState::Incomplete;
  uint32_t table_offset = 0;
  uint32_t event_count = 0;
  uint16_t day = 0;
};

// The file format read the simplest way, kept apart from the reader's code.
Expected Classify(const uint8_t* data, size_t size) {
  Expected out;
  if (size < 4 || std::memcmp(data, "ETRN", 4) != 0) return out;
  out.state = FinalFileState::Invalid;
  if (size < kFinalHeaderSize) return out;
  ByteReader header(data + 4, kFinalHeaderSize - 4);
  uint64_t version = header.Take(4);
  for (int i = 0; i < 3; ++i) {
    if (header.Take(8) != 0) return out;
  }
  uint64_t table_offset = header.Take(4);
  uint64_t count = header.Take(4);
  uint64_t raw_size = header.Take(4);
  uint16_t day = static_cast<uint16_t>(header.Take(2));
  if (version != 2 || size != kFinalHeaderSize + raw_size || count == 0 ||
      table_offset > raw_size || raw_size - table_offset != count * 8) {
    return out;
  }
  // The entry table, read from the inverted bytes: the first record at 0,
  // each later one after it and before the table, every second in the day.
  const uint8_t* raw = data + kFinalHeaderSize;
  uint64_t previous = 0;
  for (uint64_t i = 0; i < count; ++i) {
    uint8_t entry[8];
    for (int k = 0; k < 8; ++k) entry[k] = static_cast<uint8_t>(~raw[table_offset + 8 * i + k]);
    ByteReader fields(entry, 8);
    uint64_t offset = fields.Take(4);
    uint64_t second = fields.Take(4) & kSecondMask;
    if ((i == 0 ? offset != 0 : offset <= previous) || offset >= table_offset ||
        second >= kSecondsPerDay) {
      return out;
    }
    previous = offset;
  }
  // Each record whole: its own size field (bytes 10-11) spans its entry.
  for (uint64_t i = 0; i < count; ++i) {
    auto offset_of = [&](uint64_t k) {
      uint64_t value = 0;
      for (int b = 3; b >= 0; --b) {
        value = value << 8 | static_cast<uint8_t>(~raw[table_offset + 8 * k + b]);
      }
      return value;
    };
    const uint64_t begin = offset_of(i);
    const uint64_t end = i + 1 < count ? offset_of(i + 1) : table_offset;
    if (end - begin < 24 || end - begin > 65'535) return out;
    const uint64_t own = static_cast<uint8_t>(~raw[begin + 10]) |
                         uint64_t{static_cast<uint8_t>(~raw[begin + 11])} << 8;
    if (own != end - begin) return out;
  }
  out = {FinalFileState::Ok, static_cast<uint32_t>(table_offset), static_cast<uint32_t>(count),
         day};
  return out;
}

// A store started on the directory takes an accepted block back into its
// day file; any other shutdown file leaves its name (deleted when its write
// never finished, set aside when it is not a block) and nothing is stored.
void CheckTakeBack(const tarn::fuzz::ScratchDir& dir, const Keel::Collections::Buffer& raw,
                   const Expected& expected) {
  Settings settings = Settings::default_();
  settings.block_buffer_size = 102'400;
  settings.max_storage_size = 52'428'800;
  settings.max_days = 10;
  // Its own day is the store's current day, which nothing evicts.
  FixedClock clock(ToEpochSeconds(expected.day, 0));
  StorageManager manager;
  TARN_FUZZ_CHECK(manager.Create(settings, &clock, 0, dir.path().c_str()));
  EventStorageProvider reader(manager, manager.telemetry());
  TARN_FUZZ_CHECK(reader.Create());
  TARN_FUZZ_CHECK(manager.Flush());
  TARN_FUZZ_CHECK(!Keel::OS::FileSystem::Exists(dir.File(Utils::kFinalFileName)));
  if (expected.state != FinalFileState::Ok) {
    TARN_FUZZ_CHECK(reader.GetSize() == 0);
    return;
  }
  TARN_FUZZ_CHECK(reader.GetSize() == expected.event_count);

  RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), expected.table_offset);
  BlockCache::BlockPtr block = reader.GetBlockFromCache(RawIterator(expected.day, 0, 0));
  TARN_FUZZ_CHECK(block != nullptr && block->EventCount() == expected.event_count);
  uint32_t floor = 0;
  for (uint32_t i = 0; i < expected.event_count; ++i) {
    const uint8_t* want = nullptr;
    const uint8_t* got = nullptr;
    uint32_t want_size = 0;
    uint32_t got_size = 0;
    TARN_FUZZ_CHECK(view.Event(i, want, want_size) && block->Event(i, got, got_size));
    TARN_FUZZ_CHECK(want_size == got_size && std::memcmp(want, got, got_size) == 0);
    // Filed in order of its seconds: one below an earlier one rises to it.
    floor = std::max(floor, view.Second(i));
    TARN_FUZZ_CHECK(block->Second(i) == floor);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tarn::fuzz::ScratchDir dir;
  dir.Clear();
  const std::string path = dir.File(Utils::kFinalFileName);
  tarn::fuzz::WriteFile(path, data, size);
  const Expected expected = Classify(data, size);

  Keel::Collections::Buffer raw;
  TARN_FUZZ_CHECK(raw.Create(0));
  uint32_t table_offset = 0;
  uint32_t event_count = 0;
  uint16_t day = 0;
  FinalFileState state = ReadFinalFile(path, raw, table_offset, event_count, day);
  TARN_FUZZ_CHECK(state == expected.state);
  if (state != FinalFileState::Ok) {
    TARN_FUZZ_CHECK(raw.Empty());
    CheckTakeBack(dir, raw, expected);
    return 0;
  }
  TARN_FUZZ_CHECK(table_offset == expected.table_offset && event_count == expected.event_count &&
                  day == expected.day);
  TARN_FUZZ_CHECK(raw.Size() == size - kFinalHeaderSize);
  for (uint64_t i = 0; i < raw.Size(); ++i) {
    TARN_FUZZ_CHECK(raw.Data()[i] == static_cast<uint8_t>(~data[kFinalHeaderSize + i]));
  }
  CheckTakeBack(dir, raw, expected);
  return 0;
}
