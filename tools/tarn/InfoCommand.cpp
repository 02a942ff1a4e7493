// tarn info and tarn dump-index: read the store's files directly. Both only
// read, and the index file is replaced whole when the store saves it, so
// they also work while a store runs (showing its last saved index).

#include <cstdio>
#include <filesystem>
#include <fstream>

#include "Keel/Utils/TreeContainer.h"
#include "tarn/Commands.h"
#include "tarn/StoreFiles.h"
#include "tarn/StoreStats.h"

namespace Tarn::Tool {

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
  std::string text =
      options.json ? StatsJson(options.store, stats) + "\n" : FormatStats(options.store, stats, 0);
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
  if (options.out == "-") {
    std::fputs(text.c_str(), stdout);
    return 0;
  }
  const std::string path = options.out.empty() ? options.store + "/index.json" : options.out;
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
