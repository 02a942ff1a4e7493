#include "tarn/offline/StoreFiles.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "Keel/OS/FileSystem.h"
#include "Keel/Utils/String.h"
#include "manager/format/FinalFile.h"
#include "manager/writer/Settings.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/TimeIndex.h"

namespace Tarn::Tool {

namespace fs = std::filesystem;
using Storage::BlockHeader;
using Storage::DayFileCheck;

const DayFileEntry* StoreListing::Find(uint16_t day, uint8_t version) const {
  for (const DayFileEntry& entry : day_files) {
    if (entry.day == day && entry.version == version) return &entry;
  }
  return nullptr;
}

bool ListStore(const std::string& directory, StoreListing& listing, std::string& error) {
  listing = StoreListing();
  std::error_code ec;
  fs::directory_iterator it(directory, ec);
  if (ec) {
    error = "cannot read the store directory " + directory + ": " + ec.message();
    return false;
  }
  for (const fs::directory_entry& entry : it) {
    std::error_code size_ec;
    if (!entry.is_regular_file(size_ec)) continue;
    uint64_t size = entry.file_size(size_ec);
    if (size_ec) size = 0;
    const std::string name = entry.path().filename().string();
    listing.total_size += size;
    uint16_t day = 0;
    uint8_t version = 0;
    if (Storage::Utils::IsStorageFile(name.c_str(), false, day, version)) {
      listing.day_files.push_back({day, version, name, size});
    } else if (name == Storage::Index::FILENAME) {
      listing.has_index = true;
      listing.index_size = size;
    } else if (name == Storage::Utils::kFinalFileName) {
      listing.has_final = true;
      listing.final_size = size;
    } else if (std::string original = Storage::Utils::NameBeforeAside(name); !original.empty()) {
      listing.aside.push_back({name, original, size});
    } else {
      listing.other_size += size;
    }
  }
  std::sort(listing.aside.begin(), listing.aside.end(),
            [](const AsideEntry& a, const AsideEntry& b) { return a.name < b.name; });
  std::sort(listing.day_files.begin(), listing.day_files.end(),
            [](const DayFileEntry& a, const DayFileEntry& b) {
              return a.day != b.day ? a.day < b.day : a.version < b.version;
            });
  return true;
}

IndexState LoadIndexFile(const std::string& directory, Storage::Index& index, uint32_t& records) {
  records = 0;
  index.set_directory(directory);
  Storage::Settings settings = Storage::Settings::default_();
  const std::string path = index.path();
  if (!Keel::OS::FileSystem::Exists(path)) return IndexState::kMissing;
  Keel::Utils::String text_path(path);
  // A file that fails to load may have left part of it in the tree: callers
  // use the index only when it is kLoaded.
  if (!index.try_load_existing(settings, text_path)) return IndexState::kUnusable;
  Keel::OS::File file;
  uint8_t header[Storage::Index::kHeaderSize];
  if (file.Open(path, Keel::OS::File::Mode::Read) && file.ReadExact(header, sizeof(header))) {
    std::memcpy(&records, header + 6, sizeof(records));  // after "ETRN" and the u16 format version
  }
  return IndexState::kLoaded;
}

uint64_t IndexedBlocks(Storage::Index& index) {
  uint64_t blocks = 0;
  index.tree().Iterate(
      [&blocks](const uint16_t&, Storage::DayInfo& info, void*, bool&) {
        blocks += info.GetBlockCount();
        return true;
      },
      nullptr);
  return blocks;
}

int64_t NewestStoredMs(const std::string& directory) {
  uint64_t newest = 0;  // epoch seconds
  Storage::Index index;
  uint32_t records = 0;
  if (LoadIndexFile(directory, index, records) == IndexState::kLoaded) {
    newest = index.last_event_timestamp();
    index.tree().Iterate(
        [&newest](const uint16_t& day, Storage::DayInfo& info, void*, bool&) {
          uint32_t second = info.GetLastEventSecondOfDay();
          if (second != Storage::DayInfo::InvalidSecond) {
            newest = std::max(newest, Storage::ToEpochSeconds(day, second));
          }
          return true;
        },
        nullptr);
  }
  Keel::Collections::Buffer raw;
  uint32_t table_offset = 0;
  uint32_t count = 0;
  uint16_t day = 0;
  const std::string final_path = directory + "/" + Storage::Utils::kFinalFileName;
  if (Keel::OS::FileSystem::Exists(final_path) &&
      Storage::ReadFinalFile(final_path, raw, table_offset, count, day) ==
          Storage::FinalFileState::Ok &&
      count != 0) {
    Storage::RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
    newest = std::max(newest, Storage::ToEpochSeconds(day, view.Second(count - 1)));
  }
  StoreListing listing;
  std::string error;
  if (ListStore(directory, listing, error)) {
    for (const DayFileEntry& file : listing.day_files) {
      newest = std::max(newest, Storage::ToEpochSeconds(file.day, 0));
    }
  }
  return static_cast<int64_t>(newest) * 1000;
}

}  // namespace Tarn::Tool
