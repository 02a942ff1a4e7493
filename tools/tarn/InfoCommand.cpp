// tarn info and tarn dump-index: read the store's files directly. Both only
// read, and the index file is replaced whole when the store saves it, so
// they also work while a store runs (showing its last saved index).

#include <cstdio>
#include <filesystem>
#include <fstream>

#include <nlohmann/json.hpp>

#include "Keel/Utils/TreeContainer.h"
#include "tarn/Commands.h"
#include "tarn/StoreFiles.h"
#include "tarn/StoreStats.h"
#include "tarn/TextForms.h"

namespace Tarn::Tool {

namespace {

// What counts toward the size limit: every day file, indexed or not.
uint64_t DayFileBytes(const StoreStats& stats) {
  uint64_t total = stats.loose_bytes;
  for (const DayStats& day : stats.days) total += day.file_bytes;
  return total;
}

// The oldest days a store opened with the given limits evicts: days past
// the day limit, then days while its files pass the size limit.
std::vector<uint16_t> DaysPastLimits(const StoreStats& stats, const InfoOptions& options) {
  uint64_t total = DayFileBytes(stats);
  std::vector<uint16_t> evicted;
  size_t kept = stats.days.size();
  for (const DayStats& day : stats.days) {
    const bool too_many = options.max_days && kept > *options.max_days;
    const bool too_big = options.max_size && total > *options.max_size;
    if (!too_many && !too_big) break;
    evicted.push_back(day.day);
    total -= day.file_bytes;
    --kept;
  }
  return evicted;
}

std::string LimitsText(const StoreStats& stats, const InfoOptions& options) {
  std::string text = "limits       ";
  if (options.max_size) {
    text += FormatBytes(DayFileBytes(stats)) + " of " + FormatBytes(*options.max_size);
  }
  if (options.max_size && options.max_days) text += ", ";
  if (options.max_days) {
    text += std::to_string(stats.days.size()) + " of " + std::to_string(*options.max_days) +
            " days";
  }
  const std::vector<uint16_t> evicted = DaysPastLimits(stats, options);
  if (evicted.empty()) return text + ": within them\n";
  text += ": opened with these limits, the store evicts " + Counted(evicted.size(), "day") + " (";
  for (size_t i = 0; i < evicted.size(); ++i) text += (i ? ", " : "") + FormatDay(evicted[i]);
  return text + ")\n";
}

nlohmann::ordered_json LimitsJson(const StoreStats& stats, const InfoOptions& options) {
  nlohmann::ordered_json limits;
  if (options.max_size) limits["max_size"] = *options.max_size;
  if (options.max_days) limits["max_days"] = *options.max_days;
  limits["evicted_days"] = nlohmann::json::array();
  for (uint16_t day : DaysPastLimits(stats, options)) {
    limits["evicted_days"].push_back(FormatDay(day));
  }
  return limits;
}

}  // namespace

int RunInfo(const InfoOptions& options) {
  if (!std::filesystem::is_directory(options.store)) {
    PrintError("there is no store in " + options.store);
    return 1;
  }
  StoreStats stats;
  std::string error;
  if (!GatherStats(options.store, options.tables, stats, error)) {
    PrintError(error);
    return 1;
  }
  const bool limits = options.max_size || options.max_days;
  std::string text;
  if (options.json) {
    text = StatsJson(options.store, stats);
    if (limits) {
      nlohmann::ordered_json document = nlohmann::ordered_json::parse(text);
      document["limits"] = LimitsJson(stats, options);
      text = document.dump(2);
    }
    text += "\n";
  } else {
    text = FormatStats(options.store, stats, 0);
    if (limits) text += "\n" + LimitsText(stats, options);
  }
  std::fputs(text.c_str(), stdout);
  return 0;
}

int RunDumpIndex(const DumpIndexOptions& options) {
  Storage::Index index;
  uint32_t records = 0;
  switch (LoadIndexFile(options.store, index, records)) {
    case IndexState::kMissing:
      PrintError("there is no storage.index.db in " + options.store +
                 " (`tarn recover` rebuilds it from the day files)");
      return 1;
    case IndexState::kUnusable:
      PrintError("storage.index.db in " + options.store +
                 " cannot be read (`tarn recover` rebuilds it from the day files)");
      return 1;
    case IndexState::kLoaded: break;
  }
  // The file does not keep the versions' sizes; the running store takes
  // them from the files, and so does this dump.
  StoreListing listing;
  std::string error;
  if (ListStore(options.store, listing, error)) {
    for (const DayFileEntry& file : listing.day_files) {
      Storage::DayInfo* info = index.tree().SearchUnsafe(file.day);
      if (info != nullptr && info->HasVersion(file.version)) {
        info->setOnDiskSize(file.version, file.size);
      }
    }
  }
  Keel::Utils::TreeContainer document;
  if (!index.Dump(document)) {
    PrintError("the index could not be turned into a document");
    return 1;
  }
  std::string text = document.Dump(2) + "\n";
  // A reading command leaves the store directory as it found it.
  if (options.out.empty() || options.out == "-") {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  const std::string& path = options.out;
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out.good()) {
    PrintError("cannot write " + path);
    return 1;
  }
  std::printf("wrote %s (%llu days, %llu blocks)\n", path.c_str(),
              static_cast<unsigned long long>(index.tree().GetCount()),
              static_cast<unsigned long long>(IndexedBlocks(index)));
  return 0;
}

}  // namespace Tarn::Tool
