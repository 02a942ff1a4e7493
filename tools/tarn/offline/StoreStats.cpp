#include "tarn/offline/StoreStats.h"

#include <algorithm>
#include <cstdio>
#include <memory>

#include <nlohmann/json.hpp>

#include "Tarn/Events/Base.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/TimeIndex.h"
#include "osquery/Tables.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool {
namespace {

using Storage::BlockHeader;
using Storage::RawBlockView;

std::string TableName(uint32_t type_id) {
  const Storage::OSQuery::TableInfo* table = Storage::OSQuery::FindTable(type_id);
  return table != nullptr ? table->name : "type " + std::to_string(type_id);
}

void CountTables(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset,
                 std::map<std::string, uint64_t>& by_table) {
  RawBlockView view(raw, raw_size, table_offset);
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* record = nullptr;
    uint32_t size = 0;
    if (!view.Event(i, record, size)) continue;
    ++by_table[TableName(Events::Objects::Base(record, size).TypeId())];
  }
}

int64_t EpochMs(uint16_t day, uint32_t second) {
  return static_cast<int64_t>(Storage::ToEpochSeconds(day, second)) * 1000;
}

std::string SecondOfDay(uint32_t second) {
  char text[16];
  std::snprintf(text, sizeof(text), "%02u:%02u:%02u", second / 3600, second / 60 % 60, second % 60);
  return text;
}

void GatherDay(const std::string& directory, uint16_t day, Storage::DayInfo& info,
               bool count_tables, StoreStats& stats) {
  DayStats d;
  d.day = day;
  std::map<uint8_t, std::unique_ptr<DayFileReader>> readers;
  for (uint32_t v = 0; v < info.GetVersionCount(); ++v) {
    uint8_t version = info.GetVersion(v)->version;
    const DayFileEntry* file = stats.listing.Find(day, version);
    if (file == nullptr) continue;
    d.file_bytes += file->size;
    auto reader = std::make_unique<DayFileReader>();
    Storage::DayFileCheck check;
    if (reader->Open(directory + "/" + file->name, check)) readers[version] = std::move(reader);
  }
  Keel::Collections::Buffer raw;
  for (uint32_t b = 0; b < info.GetBlockCount(); ++b) {
    const Storage::BlockInfo* block = info.GetBlock(b);
    if (b == 0) d.first_second = block->start_seconds;
    d.last_second = block->end_seconds;
    ++d.blocks;
    d.events += block->events_count;
    auto it = readers.find(block->version);
    BlockHeader header;
    if (it == readers.end() || !it->second->ReadHeader(block->block_offset, header)) {
      ++stats.unreadable_blocks;
      continue;
    }
    d.block_bytes += Storage::kBlockHeaderSize + uint64_t{header.stored_size};
    d.raw_bytes += header.raw_size;
    if (!count_tables) continue;
    if (!it->second->Decode(block->block_offset, header, raw)) {
      ++stats.unreadable_blocks;
      continue;
    }
    CountTables(raw.Data(), header.raw_size, header.table_offset, stats.by_table);
  }
  stats.blocks += d.blocks;
  stats.events += d.events;
  stats.block_bytes += d.block_bytes;
  stats.raw_bytes += d.raw_bytes;
  if (d.blocks != 0) {
    if (stats.first_ms == 0) stats.first_ms = EpochMs(day, d.first_second);
    stats.last_ms = EpochMs(day, d.last_second);
  }
  stats.days.push_back(d);
}

}  // namespace

bool GatherStats(const std::string& directory, bool count_tables, StoreStats& stats,
                 std::string& error) {
  stats = StoreStats();
  if (!ListStore(directory, stats.listing, error)) return false;
  stats.by_table_counted = count_tables;
  Storage::Index index;
  uint32_t records = 0;
  stats.index = LoadIndexFile(directory, index, records);
  if (stats.index == IndexState::kLoaded) {
    index.tree().Iterate(
        [&](const uint16_t& day, Storage::DayInfo& info, void*, bool&) {
          GatherDay(directory, day, info, count_tables, stats);
          return true;
        },
        nullptr);
  }
  for (const DayFileEntry& file : stats.listing.day_files) {
    Storage::DayInfo* info =
        stats.index == IndexState::kLoaded ? index.tree().SearchUnsafe(file.day) : nullptr;
    if (info == nullptr || !info->HasVersion(file.version)) {
      ++stats.loose_files;
      stats.loose_bytes += file.size;
    }
  }
  if (stats.listing.has_final) {
    Keel::Collections::Buffer raw;
    uint32_t table_offset = 0;
    uint32_t count = 0;
    uint16_t day = 0;
    if (Storage::ReadFinalFile(directory + "/" + Storage::Utils::kFinalFileName, raw, table_offset,
                               count, day) == Storage::FinalFileState::Ok) {
      stats.pending_events = count;
      if (count_tables) {
        CountTables(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset, stats.by_table);
      }
    }
  }
  return true;
}

std::string FormatStats(const std::string& directory, const StoreStats& s, size_t top_tables) {
  std::string out;
  char line[256];
  auto add = [&](const char* label, const std::string& value) {
    std::snprintf(line, sizeof(line), "%-13s%s\n", label, value.c_str());
    out += line;
  };
  add("store", directory);
  add("on disk", FormatBytes(s.listing.total_size) + " (" +
                     Counted(s.listing.day_files.size(), "day file") + ", index " +
                     (s.listing.has_index ? FormatBytes(s.listing.index_size) : "missing") + ")");
  if (s.index == IndexState::kMissing) add("index", "missing: `tarn recover` rebuilds it");
  if (s.index == IndexState::kUnusable) add("index", "unusable: `tarn recover` rebuilds it");
  std::string days = std::to_string(s.days.size());
  if (!s.days.empty()) {
    days += ": " + FormatDay(s.days.front().day) + " to " + FormatDay(s.days.back().day);
  }
  add("days", days);
  add("blocks", FormatCount(s.blocks));
  std::string events = FormatCount(s.events);
  if (s.pending_events != 0) {
    events += " (and " + FormatCount(s.pending_events) +
              " waiting in storage.final.db until the store next starts)";
  }
  add("events", events);
  if (s.raw_bytes != 0) {
    std::snprintf(line, sizeof(line), "%s of events in %s: ratio %.3f (%.1f times smaller)",
                  FormatBytes(s.raw_bytes).c_str(), FormatBytes(s.block_bytes).c_str(), s.Ratio(),
                  1 / s.Ratio());
    add("compression", line);
  }
  if (s.blocks != 0) add("time window", FormatTime(s.first_ms) + " to " + FormatTime(s.last_ms));
  if (s.loose_files != 0) {
    add("not indexed", Counted(s.loose_files, "day file") + " (" + FormatBytes(s.loose_bytes) +
                           "): `tarn recover` indexes them");
  }
  if (s.unreadable_blocks != 0) {
    add("unreadable", Counted(s.unreadable_blocks, "block") + ": run `tarn verify`");
  }
  for (const AsideEntry& aside : s.listing.aside) {
    add("set aside", aside.name + " (" + FormatBytes(aside.size) +
                         "): it kept failing to read; `tarn recover` tries it again");
  }
  if (!s.days.empty()) {
    std::snprintf(line, sizeof(line), "\n%-12s %7s %10s %11s %11s  %-8s  %s\n", "day", "blocks",
                  "events", "stored", "raw", "first", "last");
    out += line;
    for (const DayStats& d : s.days) {
      std::snprintf(line, sizeof(line), "%-12s %7u %10s %11s %11s  %-8s  %s\n",
                    FormatDay(d.day).c_str(), d.blocks, FormatCount(d.events).c_str(),
                    FormatBytes(d.block_bytes).c_str(), FormatBytes(d.raw_bytes).c_str(),
                    SecondOfDay(d.first_second).c_str(), SecondOfDay(d.last_second).c_str());
      out += line;
    }
  }
  if (s.by_table_counted && !s.by_table.empty()) {
    std::vector<std::pair<std::string, uint64_t>> tables(s.by_table.begin(), s.by_table.end());
    std::stable_sort(tables.begin(), tables.end(),
                     [](const auto& a, const auto& b) { return a.second > b.second; });
    uint64_t total = 0;
    for (const auto& t : tables) total += t.second;
    size_t shown = top_tables == 0 ? tables.size() : std::min(top_tables, tables.size());
    std::snprintf(
        line, sizeof(line), "\nevents by table (%s%s)\n", Counted(tables.size(), "table").c_str(),
        shown < tables.size() ? (", the " + std::to_string(shown) + " largest").c_str() : "");
    out += line;
    for (size_t i = 0; i < shown; ++i) {
      std::snprintf(line, sizeof(line), "  %-48s %10s %6.2f%%\n", tables[i].first.c_str(),
                    FormatCount(tables[i].second).c_str(),
                    100.0 * static_cast<double>(tables[i].second) / static_cast<double>(total));
      out += line;
    }
  }
  return out;
}

std::string StatsJson(const std::string& directory, const StoreStats& s) {
  nlohmann::ordered_json j;
  j["store"] = directory;
  j["index"] = s.index == IndexState::kLoaded    ? "ok"
               : s.index == IndexState::kMissing ? "missing"
                                                 : "unusable";
  j["bytes_on_disk"] = s.listing.total_size;
  j["day_files"] = s.listing.day_files.size();
  j["days"] = s.days.size();
  j["blocks"] = s.blocks;
  j["events"] = s.events;
  j["pending_events"] = s.pending_events;
  j["raw_bytes"] = s.raw_bytes;
  j["stored_bytes"] = s.block_bytes;
  j["ratio"] = s.Ratio();
  j["first"] = s.blocks != 0 ? FormatTime(s.first_ms) : "";
  j["last"] = s.blocks != 0 ? FormatTime(s.last_ms) : "";
  j["loose_files"] = s.loose_files;
  j["unreadable_blocks"] = s.unreadable_blocks;
  nlohmann::ordered_json aside = nlohmann::ordered_json::array();
  for (const AsideEntry& file : s.listing.aside) {
    aside.push_back({{"file", file.name}, {"was", file.original}, {"bytes", file.size}});
  }
  j["set_aside"] = aside;
  nlohmann::ordered_json days = nlohmann::ordered_json::array();
  for (const DayStats& d : s.days) {
    days.push_back({{"day", FormatDay(d.day)},
                    {"blocks", d.blocks},
                    {"events", d.events},
                    {"stored_bytes", d.block_bytes},
                    {"raw_bytes", d.raw_bytes},
                    {"first", FormatTime(EpochMs(d.day, d.first_second))},
                    {"last", FormatTime(EpochMs(d.day, d.last_second))}});
  }
  j["by_day"] = days;
  if (s.by_table_counted) j["by_table"] = s.by_table;
  return j.dump(2);
}

}  // namespace Tarn::Tool
