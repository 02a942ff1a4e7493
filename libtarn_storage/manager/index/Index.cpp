#include "manager/index/Index.h"

#include <algorithm>
#include <cstring>
#include <string_view>

#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"

namespace Tarn::Storage {

// Index file layout: offsets within the header and a record, and the packed
// field's bit positions.
struct Index::Header {
  static constexpr uint32_t kMagicAt = 0;
  static constexpr uint32_t kVersionAt = 4;
  static constexpr uint32_t kCountAt = 6;
  static constexpr uint32_t kTimestampAt = 10;
  static constexpr uint32_t kReservedAt = 18;
  static constexpr uint32_t kReserved2At = 26;

  uint16_t format_version = 0;
  uint32_t record_count = 0;
  uint64_t last_event_timestamp = 0;
};

// The day that the loader is filling, reused while records share its day.
struct Index::LoadCursor {
  bool has_day = false;
  uint16_t day = 0;
  DayInfo* info = nullptr;
};

namespace {

using Keel::OS::File;

// Message ids start above DayInfo's, which shares the component.
enum Message : uint32_t {
  kTreeCreateFailed = 20,
  kFileMissing = 21,
  kFileEmpty = 22,
  kFileTruncated = 23,
  kBadMagic = 24,
  kFormatTooNew = 25,
  kTooManyRecords = 26,
  kReservedNotZero = 27,
  kRecordBadStart = 28,
  kRecordBadEnd = 29,
  kRecordNoEvents = 30,
  kRecordBadVersion = 31,
  kDayInsertFailed = 32,
  kDayCreateFailed = 33,
  kBlockAddFailed = 34,
  kVersionAddFailed = 35,
  kLoadReadFailed = 36,
  kWalkFailed = 37,
  kImageFailed = 38,
  kSaveOpenFailed = 39,
  kSaveWriteFailed = 40,
  kSaveFlushFailed = 41,
  kSaveCloseFailed = 42,
  kSaveMoveFailed = 43,
  kDumpFailed = 44,
  kRecordDayRepeated = 45,
  kSaveKept = 46,
};

constexpr char kMagic[4] = {'E', 'T', 'R', 'N'};

constexpr uint32_t kRecordOffsetAt = 0;
constexpr uint32_t kRecordDayAt = 4;
constexpr uint32_t kRecordVersionAt = 6;
constexpr uint32_t kRecordPackedAt = 7;

constexpr uint64_t kEventsMask = (1ull << 25) - 1;
constexpr uint64_t kSecondsMask = (1ull << 17) - 1;
constexpr int kStartShift = 25;
constexpr int kEndShift = 42;

// Records read per call while loading: about 60 KiB.
constexpr uint32_t kRecordsPerRead = 4096;
// Records the image has room for before its first growth.
constexpr uint32_t kInitialImageRecords = 256;

void LogError(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageIndex, message, a, b, c);
}

void LogWarning(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageIndex, message, a, b, c);
}

uint64_t LoadLE(const uint8_t* bytes, uint32_t width) {
  uint64_t value = 0;
  for (uint32_t i = width; i > 0; --i) value = (value << 8) | bytes[i - 1];
  return value;
}

void StoreLE(uint8_t* bytes, uint64_t value, uint32_t width) {
  for (uint32_t i = 0; i < width; ++i) bytes[i] = static_cast<uint8_t>(value >> (8 * i));
}

uint64_t PackCounts(const BlockInfo& block) {
  return (block.events_count & kEventsMask) |
         ((block.start_seconds & kSecondsMask) << kStartShift) |
         ((block.end_seconds & kSecondsMask) << kEndShift);
}

bool PushRecord(Keel::Collections::Buffer& image, uint16_t day, const BlockInfo& block) {
  return image.PushUInt32(block.block_offset) && image.PushUInt16(day) &&
         image.PushUInt8(block.version) && image.PushUInt64(PackCounts(block));
}

// Fills one {"values": {...}} entry at the end of `list`.
template <typename Fill>
bool AppendValues(Keel::Utils::TreeContainer::Node list, Fill fill) {
  Keel::Utils::TreeContainer::Node values = list.AppendChild().InsertChild("values");
  return values.IsValid() && values.SetObject() && fill(values);
}

bool DumpDay(Keel::Utils::TreeContainer::Node day_node, const DayInfo& day) {
  using Node = Keel::Utils::TreeContainer::Node;
  // Finish one list before adding the next: adding a member may move it.
  Node blocks = day_node.InsertChild("blocks");
  if (!blocks.SetArray()) return false;
  for (uint32_t i = 0; i < day.GetBlockCount(); ++i) {
    const BlockInfo* block = day.GetBlock(i);
    if (block == nullptr) return false;
    bool filled = AppendValues(blocks, [block](Node values) {
      return values.Set("block_offset", block->block_offset) &&
             values.Set("events_count", block->events_count) &&
             values.Set("start_seconds", block->start_seconds) &&
             values.Set("end_seconds", block->end_seconds) &&
             values.Set("version", static_cast<uint32_t>(block->version));
    });
    if (!filled) return false;
  }
  Node versions = day_node.InsertChild("versions");
  if (!versions.SetArray()) return false;
  for (uint32_t i = 0; i < day.GetVersionCount(); ++i) {
    const VersionInfo* version = day.GetVersion(i);
    if (version == nullptr) return false;
    bool filled = AppendValues(versions, [version](Node values) {
      return values.Set("version", static_cast<uint32_t>(version->version)) &&
             values.Set("on_disk_size", version->on_disk_size);
    });
    if (!filled) return false;
  }
  return true;
}

}  // namespace

uint32_t Index::filename_size() { return static_cast<uint32_t>(std::strlen(FILENAME)); }

Index::Index() = default;

std::string Index::path() const { return Keel::OS::Path::Join(directory_, FILENAME); }

std::string Index::temp_path() const { return path() + kTempSuffix; }

bool Index::CreateTree(const Settings& settings) {
  uint32_t initial = std::clamp<uint32_t>(settings.max_days, 1, kMaxDays);
  if (!tree_.Create(initial, kMaxDays, 100, false, Keel::Collections::GrowType::Percent)) {
    LogError(kTreeCreateFailed, initial);
    return false;
  }
  return true;
}

// ---- Loading --------------------------------------------------------------

bool Index::load(Settings& settings) {
  Keel::Utils::String file_path(path());
  return load_from(settings, file_path);
}

bool Index::load_from(Settings& settings, Keel::Utils::String& path) {
  was_read_ = try_load_existing(settings, path);
  if (was_read_) return true;
  // The file only caches what the database files hold: start empty.
  last_event_timestamp_ = 0;
  return CreateTree(settings);
}

bool Index::try_load_existing(Settings& settings, Keel::Utils::String& path) {
  // A missing file is the normal first start; File would log it as an error.
  was_found_ = Keel::OS::FileSystem::Exists(path.str());
  if (!was_found_) {
    LogError(kFileMissing);
    return false;
  }
  File file;
  Header header;
  if (!file.Open(path.str(), File::Mode::Read) || !ReadHeader(file, header)) return false;
  if (!CreateTree(settings) || !ReadRecords(file, header.record_count)) return false;
  last_event_timestamp_ = header.last_event_timestamp;
  return true;
}

bool Index::ReadHeader(File& file, Header& header) {
  uint64_t size = 0;
  if (!file.GetSize(size)) return false;
  if (size == 0) {
    LogError(kFileEmpty);
    return false;
  }
  if (size < kHeaderSize) {
    LogError(kFileTruncated, size, 0);
    return false;
  }
  uint8_t bytes[kHeaderSize];
  if (!file.ReadExact(bytes, kHeaderSize)) return false;
  if (std::memcmp(bytes + Header::kMagicAt, kMagic, sizeof(kMagic)) != 0) {
    LogError(kBadMagic, LoadLE(bytes + Header::kMagicAt, 4));
    return false;
  }
  header.format_version = static_cast<uint16_t>(LoadLE(bytes + Header::kVersionAt, 2));
  header.record_count = static_cast<uint32_t>(LoadLE(bytes + Header::kCountAt, 4));
  header.last_event_timestamp = LoadLE(bytes + Header::kTimestampAt, 8);
  if (header.format_version > kFormatVersion) {
    LogError(kFormatTooNew, header.format_version);
    return false;
  }
  if (header.record_count >= kMaxRecords) {
    LogError(kTooManyRecords, header.record_count);
    return false;
  }
  for (uint32_t at : {Header::kReservedAt, Header::kReserved2At}) {
    if (LoadLE(bytes + at, 8) != 0) {
      LogError(kReservedNotZero, at);
      return false;
    }
  }
  uint64_t needed = kHeaderSize + uint64_t{kRecordSize} * header.record_count;
  if (size < needed) {
    LogError(kFileTruncated, size, needed);
    return false;
  }
  return true;
}

bool Index::ReadRecords(File& file, uint32_t record_count) {
  if (record_count == 0) return true;
  // The save image doubles as the read buffer: it is idle during a load.
  uint64_t chunk_size = uint64_t{std::min(record_count, kRecordsPerRead)} * kRecordSize;
  if (!image_.IsCreated() && !image_.Create(chunk_size)) {
    LogError(kImageFailed, 2);
    return false;
  }
  if (!image_.Resize(chunk_size)) {
    LogError(kImageFailed, 3);
    return false;
  }
  const uint8_t* chunk = image_.Data();
  LoadCursor cursor;
  for (uint32_t done = 0; done < record_count;) {
    uint32_t batch = std::min(record_count - done, kRecordsPerRead);
    if (!file.ReadExact(image_.Data(), size_t{batch} * kRecordSize)) {
      LogError(kLoadReadFailed, done);
      return false;
    }
    for (uint32_t i = 0; i < batch; ++i) {
      if (!AddRecord(chunk + size_t{i} * kRecordSize, done + i, cursor)) return false;
    }
    done += batch;
  }
  return true;
}

// False only for a failure that ends the load; a bad record is skipped.
bool Index::AddRecord(const uint8_t* bytes, uint32_t position, LoadCursor& cursor) {
  uint16_t day = static_cast<uint16_t>(LoadLE(bytes + kRecordDayAt, 2));
  uint64_t packed = LoadLE(bytes + kRecordPackedAt, 8);
  BlockInfo block;
  block.block_offset = static_cast<uint32_t>(LoadLE(bytes + kRecordOffsetAt, 4));
  block.events_count = static_cast<uint32_t>(packed & kEventsMask);
  block.start_seconds = static_cast<uint32_t>((packed >> kStartShift) & kSecondsMask);
  block.end_seconds = static_cast<uint32_t>((packed >> kEndShift) & kSecondsMask);
  block.version = bytes[kRecordVersionAt];

  if (block.start_seconds >= kSecondsPerDay) {
    LogWarning(kRecordBadStart, position, day, block.start_seconds);
    return true;
  }
  if (block.end_seconds >= kSecondsPerDay) {
    LogWarning(kRecordBadEnd, position, day, block.end_seconds);
    return true;
  }
  if (block.events_count == 0) {
    LogWarning(kRecordNoEvents, position, day);
    return true;
  }
  if (block.version >= kVersionEnd) {
    LogWarning(kRecordBadVersion, position, day, block.version);
    return true;
  }

  if (!cursor.has_day || cursor.day != day) {
    // A day seen before: its records are not consecutive, so this one is
    // damaged. Skipped like any bad record; start-up finds its block again.
    if (tree_.SearchUnsafe(day) != nullptr) {
      LogWarning(kRecordDayRepeated, position, day);
      return true;
    }
    if (!tree_.Insert(day, DayInfo())) {
      LogError(kDayInsertFailed, position, day);
      return false;
    }
    // The pointer stays valid until the next insertion, which is the next day.
    cursor.info = tree_.SearchUnsafe(day);
    if (cursor.info == nullptr || !cursor.info->Create()) {
      LogError(kDayCreateFailed, position, day);
      return false;
    }
    cursor.has_day = true;
    cursor.day = day;
  }
  if (!cursor.info->AddBlock(block)) {
    LogError(kBlockAddFailed, position, day);
    return false;
  }
  if (!cursor.info->HasVersion(block.version) && !cursor.info->AddVersion(block.version, 0)) {
    LogError(kVersionAddFailed, position, day, block.version);
    return false;
  }
  return true;
}

// ---- Saving ---------------------------------------------------------------

bool Index::save(uint64_t last_event_timestamp) {
  last_event_timestamp_ = last_event_timestamp;
  if (keep_file_) {
    LogError(kSaveKept);
    return false;
  }
  Keel::Utils::String temp(temp_path());
  if (!save_to(last_event_timestamp, temp)) return false;
  // No delete of the old file first: rename replaces it atomically, while a
  // crash between a delete and the rename would leave no index at all, and a
  // failed rename after a delete would lose the previous file.
  if (!Keel::OS::FileSystem::MoveFile(temp.str(), path())) {
    LogError(kSaveMoveFailed, Keel::OS::FileSystem::LastError());
    return false;
  }
  return true;
}

bool Index::save_to(uint64_t last_event_timestamp, Keel::Utils::String& path) {
  if (!BuildImage(last_event_timestamp)) return false;
  File file;
  if (!file.Open(path.str(), File::Mode::CreateTruncate)) {
    LogError(kSaveOpenFailed, file.LastError());
    return false;
  }
  // The whole image in one write: a save follows every block.
  if (!file.Write(image_.Data(), image_.Size())) {
    LogError(kSaveWriteFailed, file.LastError(), image_.Size());
    return false;
  }
  if (!file.Flush()) {
    LogError(kSaveFlushFailed, file.LastError());
    return false;
  }
  if (!file.Close()) {
    LogError(kSaveCloseFailed, file.LastError());
    return false;
  }
  return true;
}

// Lays out the file in image_: a zero header, the records in tree order, then
// the header filled in once the record count is known.
bool Index::BuildImage(uint64_t last_event_timestamp) {
  if (!image_.IsCreated() &&
      !image_.Create(kHeaderSize + kRecordSize * kInitialImageRecords)) {
    LogError(kImageFailed, 0);
    return false;
  }
  image_.Reset();
  if (!image_.PushFill(0, kHeaderSize)) {
    LogError(kImageFailed, 1);
    return false;
  }
  uint64_t record_count = 0;
  bool walked = tree_.Iterate(
      [this, &record_count](const uint16_t& day, DayInfo& info, void*, bool&) {
        for (uint32_t i = 0; i < info.GetBlockCount(); ++i) {
          const BlockInfo* block = info.GetBlock(i);
          if (block == nullptr || !PushRecord(image_, day, *block)) return false;
        }
        record_count += info.GetBlockCount();
        return true;
      },
      nullptr);
  if (!walked) {
    LogError(kWalkFailed, record_count);
    return false;
  }
  // A reader refuses such a file, so it is not written.
  if (record_count >= kMaxRecords) {
    LogError(kTooManyRecords, record_count);
    return false;
  }
  uint8_t* header = image_.Data();
  std::memcpy(header + Header::kMagicAt, kMagic, sizeof(kMagic));
  StoreLE(header + Header::kVersionAt, kFormatVersion, 2);
  StoreLE(header + Header::kCountAt, record_count, 4);
  StoreLE(header + Header::kTimestampAt, last_event_timestamp, 8);
  return true;
}

// ---- Queries --------------------------------------------------------------

void Index::clear() {
  tree_.Clear();
  last_event_timestamp_ = 0;
}

uint32_t Index::get_size() {
  uint64_t total = 0;
  bool walked = tree_.Iterate(
      [&total](const uint16_t&, DayInfo& day, void*, bool&) {
        total += day.events_count();
        return true;
      },
      nullptr);
  if (!walked) {
    LogError(kWalkFailed, 0);
    return kInvalidSize;
  }
  // Saturate below the failure marker rather than wrap.
  return static_cast<uint32_t>(std::min<uint64_t>(total, kInvalidSize - 1));
}

bool Index::Dump(Keel::Utils::TreeContainer& document) {
  Keel::Utils::TreeContainer::Node root = document.Root();
  if (!root.SetObject()) {
    LogError(kDumpFailed, 0);
    return false;
  }
  bool walked = tree_.Iterate(
      [&root](const uint16_t& day, DayInfo& info, void*, bool&) {
        return DumpDay(root.InsertChild(std::to_string(day)), info);
      },
      nullptr);
  if (!walked) {
    LogError(kDumpFailed, 1);
    return false;
  }
  return true;
}

}  // namespace Tarn::Storage
