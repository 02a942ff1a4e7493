// A store made from the input: day files of compressed blocks built from
// fuzzed raw blocks, verbatim bytes (torn or foreign blocks, damaged
// headers), an index naming those blocks with true or fuzzed counts and
// seconds, fuzzed index records and a fuzzed shutdown file. Each day file
// is first walked block by block on its own; then the store is opened on
// them as a host opens one (start-up reconciliation and take-back
// included) and walked through the reader: first and last, stepping both
// ways, searches by time, events and their times, ProcessBlocks, both dumps,
// and optionally one more event appended to the damaged store. Nothing may
// crash or read out of bounds, and positions must stay consistent: a step
// forward and one back return to where they started, and every position
// handed out names an event of an indexed block.
//
// Input: a flags byte, then sections of [kind, where, ...] until the end.

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "Keel/Collections/Buffer.h"
#include "Keel/Lzma.h"
#include "Keel/OS/Time.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Events/Record.h"
#include "Tarn/Storage/ITimeProvider.h"
#include "manager/format/DayFile.h"
#include "manager/format/DayFileReader.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "manager/index/TimeIndex.h"
#include "osquery/QueryService.h"

namespace {

using namespace Tarn::Storage;  // NOLINT: a fuzzer's few functions
using tarn::fuzz::ByteReader;
using tarn::fuzz::FixedClock;
namespace Record = Tarn::Events::Record;

constexpr uint16_t kFirstDay = 9000;
constexpr size_t kMaxSections = 48;
constexpr size_t kMaxChunk = 4096;
// Positions walked one by one; the index's counts could make a full walk
// as long as 2^25 steps per block.
constexpr uint32_t kWalkSteps = 400;
constexpr uint32_t kProbedBlocks = 48;
constexpr uint32_t kSearchedBlocks = 12;
constexpr uint64_t kMaxEventsForProcessBlocks = 20'000;

enum Flags : uint8_t {
  kHonestIndex = 0x01,   // counts and seconds of built blocks come from the blocks
  kClockDayMask = 0x0E,  // the clock's day, from kFirstDay: later days are wiped
  kFewDays = 0x10,       // keep 2 days: start-up evicts the rest
  // Both bits: add one event after the walk. Rarer than the other choices
  // because the writer's compression costs more than all the rest of a run.
  kAppend = 0x60,
};

enum Kind : uint8_t { kBuiltBlock, kVerbatim, kIndexRecord, kFinalFile, kDayHeader, kKinds };

struct Inputs {
  uint8_t flags = 0;
  std::map<std::pair<uint16_t, uint8_t>, std::string> files;  // (day, version) to bytes
  std::map<uint16_t, std::vector<BlockInfo>> records;         // by day, in order
  std::string raw_records;                                    // appended verbatim
  uint32_t raw_record_count = 0;
  bool has_final = false;
  std::string final_file;
};

void Put(std::string& out, uint64_t value, int width) { tarn::fuzz::PutLE(out, value, width); }

std::string DayHeader(uint8_t version) {
  std::string header = "ETRN";
  Put(header, 0, 4);
  Put(header, version, 4);
  Put(header, 0, 8);
  return header;
}

// A raw block compressed the way the writer does it (any preset decodes).
std::string BuildBlock(std::string_view raw, uint32_t table_offset) {
  Keel::Collections::Buffer payload;
  TARN_FUZZ_CHECK(payload.Create(0));
  Keel::Lzma::Options fast;
  fast.preset = 0;
  fast.threads = 1;
  TARN_FUZZ_CHECK(Keel::Lzma::Compress(raw.data(), raw.size(), payload, fast));
  InvertBytes(payload.Data(), payload.Size());
  std::string block;
  Put(block, payload.Size(), 4);
  Put(block, raw.size(), 4);
  Put(block, table_offset, 4);
  block.append(reinterpret_cast<const char*>(payload.Data()), payload.Size());
  return block;
}

// What the block's own table says: its count and first and last seconds.
BlockInfo Describe(std::string_view raw, uint32_t table_offset) {
  BlockInfo info;
  info.events_count = 1;
  if (table_offset >= raw.size() || (raw.size() - table_offset) % kEntrySize != 0) return info;
  info.events_count = static_cast<uint32_t>((raw.size() - table_offset) / kEntrySize);
  auto second = [&](uint32_t i) {
    ByteReader entry(reinterpret_cast<const uint8_t*>(raw.data()) + table_offset + i * 8 + 4, 4);
    return static_cast<uint32_t>(entry.Take(4) & kSecondMask) % kSecondsPerDay;
  };
  info.start_seconds = second(0);
  info.end_seconds = second(info.events_count - 1);
  return info;
}

Inputs Parse(const uint8_t* data, size_t size) {
  Inputs in;
  ByteReader bytes(data, size);
  in.flags = static_cast<uint8_t>(bytes.Take(1));
  for (size_t section = 0; section < kMaxSections && bytes.Left() >= 2; ++section) {
    const uint8_t kind = static_cast<uint8_t>(bytes.Take(1) % kKinds);
    const uint8_t where = static_cast<uint8_t>(bytes.Take(1));
    const uint16_t day = kFirstDay + (where & 3);
    // Mostly the version the writer uses; 0 and 1 are still read.
    const uint8_t version = static_cast<uint8_t>(2 - std::min((where >> 2) & 3, 2));
    const bool indexed = (where & 0x80) == 0;
    if (kind == kIndexRecord) {
      in.raw_records += bytes.Bytes(Index::kRecordSize);
      in.raw_records.resize(Index::kRecordSize * ++in.raw_record_count, '\0');
      continue;
    }
    if (kind == kFinalFile) {
      in.has_final = true;
      in.final_file = bytes.Bytes(bytes.Take(2) % kMaxChunk);
      continue;
    }
    // A new file starts with a valid header unless bit 6 says it has none.
    auto [file, created] = in.files.try_emplace({day, version});
    if (created && (where & 0x40) == 0) file->second = DayHeader(version);
    const uint32_t offset = static_cast<uint32_t>(file->second.size());

    BlockInfo block;
    switch (kind) {
      case kBuiltBlock: {
        const uint32_t table_offset = static_cast<uint32_t>(bytes.Take(2));
        const std::string_view raw = bytes.Bytes(bytes.Take(2) % kMaxChunk);
        file->second += BuildBlock(raw, table_offset);
        block = Describe(raw, table_offset);
        break;
      }
      case kVerbatim:
        file->second += bytes.Bytes(bytes.Take(2) % kMaxChunk);
        break;
      case kDayHeader: {
        const std::string_view header = bytes.Bytes(kDayFileHeaderSize);
        file->second.replace(0, std::min(file->second.size(), header.size()), header);
        continue;
      }
    }
    if (!indexed) continue;
    if (kind != kBuiltBlock || (in.flags & kHonestIndex) == 0) {
      // Any count the 25 bits hold and any seconds the 17 bits hold: the
      // loader skips records it must not take.
      block.events_count = static_cast<uint32_t>(bytes.Take(4) & 0x1FFFFFF);
      block.start_seconds = static_cast<uint32_t>(bytes.Take(3) & kSecondMask);
      block.end_seconds = static_cast<uint32_t>(bytes.Take(3) & kSecondMask);
    }
    block.block_offset = offset;
    block.version = version;
    in.records[day].push_back(block);
  }
  return in;
}

void WriteStore(const tarn::fuzz::ScratchDir& dir, const Inputs& in) {
  for (const auto& [key, bytes] : in.files) {
    tarn::fuzz::WriteFile(dir.File(Utils::DayFileName(key.first, key.second)), bytes.data(),
                          bytes.size());
  }
  uint32_t count = in.raw_record_count;
  std::string records;
  for (const auto& [day, blocks] : in.records) {
    for (const BlockInfo& b : blocks) {
      Put(records, b.block_offset, 4);
      Put(records, day, 2);
      Put(records, b.version, 1);
      const uint64_t packed =
          b.events_count | uint64_t{b.start_seconds} << 25 | uint64_t{b.end_seconds} << 42;
      Put(records, packed, 8);
      ++count;
    }
  }
  if (count != 0) {
    std::string index = "ETRN";
    Put(index, 2, 2);
    Put(index, count, 4);
    Put(index, ToEpochSeconds(kFirstDay, 0), 8);
    Put(index, 0, 16);
    index += records + in.raw_records;
    tarn::fuzz::WriteFile(dir.File(Index::FILENAME), index.data(), index.size());
  }
  if (in.has_final) {
    tarn::fuzz::WriteFile(dir.File(Utils::kFinalFileName), in.final_file.data(),
                          in.final_file.size());
  }
}

// Every day file charted on its own, as start-up and the tool chart them:
// its spans tile the file from the header to the end, and a whole block
// that decodes holds exactly the events its table counts.
void CheckDayFileCharts(const tarn::fuzz::ScratchDir& dir, const Inputs& in) {
  for (const auto& file : in.files) {
    const auto& [key, bytes] = file;
    const uint64_t size = bytes.size();  // a binding cannot be captured by clang 14
    DayFileReader reader;
    DayFileCheck check = DayFileCheck::ReadFailed;
    if (!reader.Open(dir.File(Utils::DayFileName(key.first, key.second)), check,
                     Keel::OS::File::Mode::Read, key.second)) {
      TARN_FUZZ_CHECK(check != DayFileCheck::Ok);
      continue;
    }
    TARN_FUZZ_CHECK(reader.Size() == size);
    std::vector<FileSpan> spans;
    TARN_FUZZ_CHECK(reader.Chart({}, spans));
    uint64_t expected = kDayFileHeaderSize;
    for (const FileSpan& span : spans) {
      TARN_FUZZ_CHECK(span.offset == expected && span.end > span.offset && span.end <= size);
      expected = span.end;
    }
    TARN_FUZZ_CHECK(expected == std::max<uint64_t>(size, kDayFileHeaderSize));
    TARN_FUZZ_CHECK(reader.DecodeSpans(spans, [&](const WalkedBlock& block) {
      if (block.decoded) {
        const BlockHeader& h = block.header;
        TARN_FUZZ_CHECK(block.view.EventCount() == (h.raw_size - h.table_offset) / kEntrySize);
        for (uint32_t i = 0; i < block.view.EventCount(); ++i) {
          const uint8_t* record = nullptr;
          uint32_t length = 0;
          TARN_FUZZ_CHECK(block.view.Event(i, record, length) && length != 0);
          TARN_FUZZ_CHECK(block.view.Second(i) < kSecondsPerDay);
        }
      }
      return true;
    }));
  }
}

// The index as the store holds it after start-up: every block's count and
// seconds.
using Counts = std::map<uint16_t, std::vector<BlockInfo>>;

Counts Snapshot(StorageManager& manager) {
  Counts counts;
  TARN_FUZZ_CHECK(manager.ProcessIndex(
      [](Index& index, void* context) {
        auto& out = *static_cast<Counts*>(context);
        return index.tree().Iterate(
            [&out](const uint16_t& day, DayInfo& info, void*, bool&) {
              std::vector<BlockInfo>& blocks = out[day];
              for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
                blocks.push_back(*info.GetBlock(b));
              }
              return true;
            },
            nullptr);
      },
      &counts));
  return counts;
}

// A position the reader hands out names an event the index can address.
void CheckNamesEvent(const Counts& counts, uint64_t value) {
  const RawIterator at(value);
  auto day = counts.find(at.Day());
  TARN_FUZZ_CHECK(day != counts.end() && at.Block() < day->second.size());
  TARN_FUZZ_CHECK(at.Event() < day->second[at.Block()].events_count);
}

// One step forward and one back (or back and forward) return to `p`.
void CheckSteps(EventStorageProvider& reader, const Counts& counts, uint64_t p) {
  uint64_t next = p;
  if (reader.Increment(next)) {
    CheckNamesEvent(counts, next);
    TARN_FUZZ_CHECK(reader.Compare(p, next) < 0);
    uint64_t back = next;
    TARN_FUZZ_CHECK(reader.Decrement(back) && back == p);
  }
  uint64_t previous = p;
  if (reader.Decrement(previous)) {
    CheckNamesEvent(counts, previous);
    TARN_FUZZ_CHECK(reader.Compare(previous, p) < 0);
    uint64_t forth = previous;
    TARN_FUZZ_CHECK(reader.Increment(forth) && forth == p);
  }
}

void CheckEventAt(EventStorageProvider& reader, uint64_t p) {
  Tarn::Events::GenericEventHolder holder;
  if (reader.GetEvent(p, &holder)) {
    BlockCache::BlockPtr block = reader.GetBlockFromCache(RawIterator(p));
    const uint8_t* record = nullptr;
    uint32_t size = 0;
    TARN_FUZZ_CHECK(block != nullptr && block->Event(RawIterator(p).Event(), record, size));
    TARN_FUZZ_CHECK(holder.Size() == size && std::memcmp(holder.Data(), record, size) == 0);
  }
  Keel::OS::DateTime time;
  if (reader.GetTime(p, time)) {
    const TimeIndex at = ToTimeIndex(static_cast<uint64_t>(time.ToSecondsSinceEpoch()));
    TARN_FUZZ_CHECK(at.day == RawIterator(p).Day());
  }
}

void Walk(StorageManager& manager, EventStorageProvider& reader, const Counts& counts,
          const tarn::fuzz::ScratchDir& dir) {
  uint64_t total = 0;
  for (const auto& [day, blocks] : counts) {
    for (const BlockInfo& b : blocks) total += b.events_count;
  }
  TARN_FUZZ_CHECK(reader.GetSize() == std::min<uint64_t>(total, Index::kInvalidSize - 1));
  DateTimeInterval window;
  reader.GetStorageTimeWindow(window);

  const uint64_t first = reader.GetFirstIterVal();
  const uint64_t last = reader.GetLastIterVal();
  if (reader.IsValid(first)) TARN_FUZZ_CHECK(first == RawIterator(counts.begin()->first, 0, 0));
  if (reader.IsValid(last)) CheckNamesEvent(counts, last);

  uint64_t p = first;
  for (uint32_t step = 0; step < kWalkSteps && reader.IsValid(p); ++step) {
    CheckNamesEvent(counts, p);
    CheckEventAt(reader, p);
    const uint64_t before = p;
    if (!reader.Increment(p)) break;
    TARN_FUZZ_CHECK(reader.Compare(before, p) < 0);
  }
  p = last;
  for (uint32_t step = 0; step < kWalkSteps / 4 && reader.IsValid(p); ++step) {
    if (!reader.Decrement(p)) break;
  }

  // Every block's edges, and the last event number a position can carry.
  uint32_t probed = 0;
  for (const auto& [day, blocks] : counts) {
    for (uint32_t b = 0; b < blocks.size() && probed < kProbedBlocks; ++b, ++probed) {
      const BlockInfo& block = blocks[b];
      for (uint64_t e : {uint64_t{0}, uint64_t{block.events_count} - 1, uint64_t{0xFFFFFF}}) {
        if (e >= block.events_count || e > 0xFFFFFF) continue;
        const uint64_t at = RawIterator(day, b, e);
        CheckSteps(reader, counts, at);
        CheckEventAt(reader, at);
      }
      // Searches by time at the edges of the day and of the block: each may
      // decode a block, so fewer blocks get them.
      if (probed >= kSearchedBlocks) continue;
      for (uint32_t second : {0u, 86'399u, block.start_seconds, block.end_seconds,
                              block.start_seconds - 1, block.end_seconds + 1}) {
        if (second >= kSecondsPerDay) continue;
        const Keel::OS::DateTime time(static_cast<int64_t>(ToEpochSeconds(day, second)));
        for (auto strategy : {Tarn::Comm::Interface::Exact, Tarn::Comm::Interface::AtOrAfter,
                              Tarn::Comm::Interface::AtOrBefore}) {
          const uint64_t found = reader.GetIterVal(time, strategy);
          if (!reader.IsValid(found)) continue;
          CheckNamesEvent(counts, found);
          Keel::OS::DateTime at;
          if (strategy == Tarn::Comm::Interface::Exact) {
            TARN_FUZZ_CHECK(reader.GetTime(found, at) && at == time);
          }
        }
      }
    }
  }

  if (reader.IsValid(first) && reader.IsValid(last) && total <= kMaxEventsForProcessBlocks) {
    uint64_t previous_key = 0;
    bool any = false;
    reader.ProcessBlocks(
        first, last, [&](const auto& token, const Keel::Collections::Buffer& stored) {
          CheckNamesEvent(counts, token.block_key);
          TARN_FUZZ_CHECK(!any || reader.Compare(previous_key, token.block_key) < 0);
          any = true;
          previous_key = token.block_key;
          Keel::Collections::Buffer copy;
          Keel::Collections::Buffer decoded;
          TARN_FUZZ_CHECK(CreateReaderBuffer(copy) && CreateReaderBuffer(decoded));
          TARN_FUZZ_CHECK(copy.Push(stored.Data(), stored.Size()));
          if (EventStorageProvider::DecodeBlock(copy, token.decoded_size, decoded,
                                                manager.telemetry())) {
            TARN_FUZZ_CHECK(decoded.Size() == token.decoded_size);
          }
        });
  }

  TARN_FUZZ_CHECK(reader.__dump_index_data(dir.File("index.json")));
  reader.__dump_proto_stats(dir.File("proto_stats.json").c_str());
}

// One event more, appended to whatever the damaged store kept, must be the
// last one it holds afterwards.
void CheckAppend(StorageManager& manager, EventStorageProvider& reader, uint64_t epoch) {
  std::vector<uint8_t> record(48, 0x5A);
  Record::StoreUInt32(record.data() + Record::kTypeOffset, 5);
  Record::StoreUInt32(record.data() + Record::kFlagsOffset, 0);
  Record::StoreUInt16(record.data() + Record::kVersionOffset, 1);
  Record::StoreUInt16(record.data() + Record::kSizeOffset, static_cast<uint16_t>(record.size()));
  Record::StoreUInt32(record.data() + 12, 0);
  Record::StoreUInt64(record.data() + Record::kTimeStampOffset, epoch * 1000);
  TARN_FUZZ_CHECK(manager.AddEvent(Tarn::Events::Objects::Base(record.data(), record.size())));
  TARN_FUZZ_CHECK(manager.Flush());
  const uint64_t last = reader.GetLastIterVal();
  Tarn::Events::GenericEventHolder holder;
  TARN_FUZZ_CHECK(reader.GetEvent(last, &holder));
  TARN_FUZZ_CHECK(holder.Size() == record.size() &&
                  std::memcmp(holder.Data(), record.data(), record.size()) == 0);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static tarn::fuzz::ScratchDir dir;
  dir.Clear();
  const Inputs in = Parse(data, size);
  WriteStore(dir, in);
  CheckDayFileCharts(dir, in);

  Settings settings = Settings::default_();
  settings.block_buffer_size = 102'400;
  settings.max_storage_size = 52'428'800;
  settings.max_days = (in.flags & kFewDays) != 0 ? 2 : 10;
  settings.telemetry_to_disk = false;
  const uint16_t today = kFirstDay + ((in.flags & kClockDayMask) >> 1);
  const uint64_t epoch = ToEpochSeconds(today, 43'200);
  FixedClock clock(epoch);

  StorageManager manager;
  TARN_FUZZ_CHECK(manager.Create(settings, &clock, 0, dir.path().c_str()));
  EventStorageProvider reader(manager, manager.telemetry());
  TARN_FUZZ_CHECK(reader.Create());
  OSQuery::QueryService queries(reader, manager);
  reader.SetTableStatistics(&queries);
  // A taken-back block is on disk after this, unless it could not be kept.
  manager.Flush();

  Walk(manager, reader, Snapshot(manager), dir);
  if ((in.flags & kAppend) == kAppend) {
    CheckAppend(manager, reader, epoch);
    Walk(manager, reader, Snapshot(manager), dir);
  }
  return 0;
}
