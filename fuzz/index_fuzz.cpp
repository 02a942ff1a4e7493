// Arbitrary bytes as "storage.index.db". The loaded index must be exactly
// what a plain reading of the file format gives (bad records skipped, an
// unusable file giving an empty index), agree with itself (event total,
// versions of each day) and survive a save and a second load unchanged.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "FuzzSupport.h"
#include "Keel/Utils/String.h"
#include "Keel/Utils/TreeContainer.h"
#include "manager/index/Index.h"

namespace {

using tarn::fuzz::ByteReader;
using Tarn::Storage::BlockInfo;
using Tarn::Storage::DayInfo;
using Tarn::Storage::Index;

struct Model {
  uint64_t last_event_timestamp = 0;
  std::map<uint16_t, std::vector<BlockInfo>> days;
};

// The file format read the simplest way, kept apart from the loader's code.
Model Expected(const uint8_t* data, size_t size) {
  Model empty;
  if (size < Index::kHeaderSize || std::memcmp(data, "ETRN", 4) != 0) return empty;
  ByteReader header(data + 4, Index::kHeaderSize - 4);
  uint64_t format = header.Take(2);
  uint64_t count = header.Take(4);
  uint64_t timestamp = header.Take(8);
  if (format > 2 || count >= 0x1000000 || header.Take(8) != 0 || header.Take(8) != 0) return empty;
  if (size < Index::kHeaderSize + 15 * count) return empty;

  Model model;
  model.last_event_timestamp = timestamp;
  ByteReader records(data + Index::kHeaderSize, 15 * count);
  bool has_day = false;
  uint16_t current = 0;
  for (uint64_t i = 0; i < count; ++i) {
    BlockInfo block;
    block.block_offset = static_cast<uint32_t>(records.Take(4));
    uint16_t day = static_cast<uint16_t>(records.Take(2));
    block.version = static_cast<uint8_t>(records.Take(1));
    uint64_t packed = records.Take(8);
    block.events_count = packed & 0x1FFFFFF;
    block.start_seconds = (packed >> 25) & 0x1FFFF;
    block.end_seconds = (packed >> 42) & 0x1FFFF;
    if (block.start_seconds >= 86400 || block.end_seconds >= 86400 || block.events_count == 0 ||
        block.version >= 3) {
      continue;
    }
    if (!has_day || day != current) {
      // A record of a day met before is damaged and skipped like any bad
      // record; one day too many for the tree makes the file unusable.
      if (model.days.count(day) != 0) continue;
      if (model.days.size() == Index::kMaxDays) return empty;
      has_day = true;
      current = day;
    }
    model.days[day].push_back(block);
  }
  return model;
}

std::string Encode(const Model& model) {
  std::string out = "ETRN";
  auto put = [&out](uint64_t value, int width) { tarn::fuzz::PutLE(out, value, width); };
  uint64_t count = 0;
  for (const auto& [day, blocks] : model.days) count += blocks.size();
  put(2, 2);
  put(count, 4);
  put(model.last_event_timestamp, 8);
  put(0, 16);
  for (const auto& [day, blocks] : model.days) {
    for (const BlockInfo& b : blocks) {
      put(b.block_offset, 4);
      put(day, 2);
      put(b.version, 1);
      put(b.events_count | uint64_t{b.start_seconds} << 25 | uint64_t{b.end_seconds} << 42, 8);
    }
  }
  return out;
}

void CheckMatches(Index& index, const Model& model) {
  TARN_FUZZ_CHECK(index.tree().IsInitialized());
  TARN_FUZZ_CHECK(index.last_event_timestamp() == model.last_event_timestamp);
  TARN_FUZZ_CHECK(index.tree().GetCount() == model.days.size());
  TARN_FUZZ_CHECK(index.get_count() == 0);
  uint64_t events = 0;
  auto expected = model.days.begin();
  bool walked = index.tree().Iterate(
      [&](const uint16_t& day, DayInfo& info, void*, bool&) {
        TARN_FUZZ_CHECK(expected != model.days.end() && expected->first == day);
        const std::vector<BlockInfo>& blocks = expected->second;
        TARN_FUZZ_CHECK(info.GetBlockCount() == blocks.size());
        std::vector<uint8_t> versions = {DayInfo::kInitialVersion};
        uint64_t day_events = 0;
        for (uint32_t i = 0; i < blocks.size(); ++i) {
          TARN_FUZZ_CHECK(*info.GetBlock(i) == blocks[i]);
          day_events += blocks[i].events_count;
          versions.push_back(blocks[i].version);
        }
        TARN_FUZZ_CHECK(info.events_count() == day_events);
        events += day_events;
        // Each version the records name, once, ascending, with no size.
        std::sort(versions.begin(), versions.end());
        versions.erase(std::unique(versions.begin(), versions.end()), versions.end());
        TARN_FUZZ_CHECK(info.GetVersionCount() == versions.size());
        for (uint32_t i = 0; i < versions.size(); ++i) {
          TARN_FUZZ_CHECK(info.GetVersion(i)->version == versions[i]);
          TARN_FUZZ_CHECK(info.GetVersion(i)->on_disk_size == 0);
        }
        TARN_FUZZ_CHECK(info.totalOnDiskSize() == 0);
        uint32_t first = blocks.empty() ? DayInfo::InvalidSecond : blocks.front().start_seconds;
        uint32_t last = blocks.empty() ? DayInfo::InvalidSecond : blocks.back().end_seconds;
        TARN_FUZZ_CHECK(info.GetFirstEventSecondOfDay() == first);
        TARN_FUZZ_CHECK(info.GetLastEventSecondOfDay() == last);
        ++expected;
        return true;
      },
      nullptr);
  TARN_FUZZ_CHECK(walked && expected == model.days.end());
  TARN_FUZZ_CHECK(index.get_size() == std::min<uint64_t>(events, Index::kInvalidSize - 1));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tarn::fuzz::ScratchDir dir;
  Tarn::Storage::Settings settings = Tarn::Storage::Settings::default_();
  settings.max_days = 1 + (size % 600);  // the tree's initial size, clamped by the index
  const Model model = Expected(data, size);

  Index index;
  index.set_directory(dir.path());
  tarn::fuzz::WriteFile(index.path(), data, size);
  TARN_FUZZ_CHECK(index.load(settings));
  CheckMatches(index, model);

  Keel::Utils::TreeContainer document;
  TARN_FUZZ_CHECK(index.Dump(document));
  TARN_FUZZ_CHECK(document.Root().Size() == model.days.size());

  // The file it saves holds exactly the accepted records, in order.
  TARN_FUZZ_CHECK(index.save(model.last_event_timestamp));
  const std::string saved = tarn::fuzz::ReadFile(index.path());
  TARN_FUZZ_CHECK(saved == Encode(model));
  Index again;
  again.set_directory(dir.path());
  TARN_FUZZ_CHECK(again.load(settings));
  CheckMatches(again, model);
  return 0;
}
