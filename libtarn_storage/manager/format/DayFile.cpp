#include "manager/format/DayFile.h"

#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "Keel/OS/Path.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Storage {
namespace {

// Keel::Log::StorageManager identifiers of this file; the file formats of
// the store share the 300s.
enum Message : uint32_t {
  kHeaderTooShort = 321,
  kHeaderBadMagic = 322,
  kHeaderBadReserved = 323,
  kHeaderBadVersion = 324,
  kHeaderBadTrailer = 325,
  kCreateOpen = 326,
  kCreateWrite = 327,
  kCreateFlush = 328,
  kAppendOpen = 329,
  kAppendSize = 330,
  kAppendBadHeader = 331,
  kFreshHeaderWrite = 332,
  kFreshHeaderFlush = 333,
  kHeaderRead = 334,
  kDirectorySync = 335,
  kRepairOpen = 336,
  kRepairWrite = 337,
  kRepairFlush = 338,
};

constexpr uint32_t kMagicOffset = 0;
constexpr uint32_t kReservedOffset = 4;
constexpr uint32_t kVersionOffset = 8;
constexpr uint32_t kTrailerOffset = 12;

void Log(Message message, uint64_t a = 0, uint64_t b = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageManager, message, a, b, 0);
}

void BuildHeader(uint8_t (&header)[kDayFileHeaderSize]) {
  for (uint8_t& byte : header) byte = 0;
  Events::Record::StoreUInt32(header + kMagicOffset, kStoreMagic);
  Events::Record::StoreUInt32(header + kVersionOffset, kDayFileFormatVersion);
}

// Writes the header at offset 0 of an open file and makes it durable.
bool WriteHeader(Keel::OS::File& file, Message write_failed, Message flush_failed) {
  uint8_t header[kDayFileHeaderSize];
  BuildHeader(header);
  if (!file.WriteAt(0, header, sizeof(header))) {
    Log(write_failed, file.LastError());
    return false;
  }
  if (!file.Flush()) {
    Log(flush_failed, file.LastError());
    return false;
  }
  return true;
}

}  // namespace

bool SyncDirectoryOf(const std::string& path) {
  const std::string directory = Keel::OS::Path::Directory(path);
  if (Keel::OS::FileSystem::SyncDirectory(directory.empty() ? "." : directory)) return true;
  Log(kDirectorySync, Keel::OS::FileSystem::LastError());
  return false;
}

namespace {

}  // namespace

DayFileCheck CheckDayFileHeader(const uint8_t* bytes, uint64_t size, uint32_t expected_version) {
  if (bytes == nullptr || size < kDayFileHeaderSize) {
    Log(kHeaderTooShort, size);
    return DayFileCheck::TooShort;
  }
  uint32_t magic = Events::Record::LoadUInt32(bytes + kMagicOffset);
  if (magic != kStoreMagic) {
    Log(kHeaderBadMagic, magic);
    return DayFileCheck::BadMagic;
  }
  uint32_t reserved = Events::Record::LoadUInt32(bytes + kReservedOffset);
  if (reserved != 0) {
    Log(kHeaderBadReserved, reserved);
    return DayFileCheck::BadReserved;
  }
  uint32_t version = Events::Record::LoadUInt32(bytes + kVersionOffset);
  if (version != expected_version) {
    Log(kHeaderBadVersion, version, expected_version);
    return DayFileCheck::BadVersion;
  }
  uint64_t trailer = Events::Record::LoadUInt64(bytes + kTrailerOffset);
  if (trailer != 0) {
    Log(kHeaderBadTrailer, trailer);
    return DayFileCheck::BadTrailer;
  }
  return DayFileCheck::Ok;
}

bool CreateDayFile(const std::string& path, Keel::OS::File& file) {
  if (!file.Open(path, Keel::OS::File::Mode::CreateTruncate)) {
    Log(kCreateOpen, file.LastError());
    return false;
  }
  if (!WriteHeader(file, kCreateWrite, kCreateFlush) || !SyncDirectoryOf(path) ||
      !file.Seek(kDayFileHeaderSize)) {
    // A torn header would make the file unusable for good; an empty one gets
    // a fresh header the next time it is opened.
    file.Truncate(0);
    file.Close();
    return false;
  }
  return true;
}

bool RewriteDayFileHeader(const std::string& path) {
  Keel::OS::File file;
  if (!file.Open(path, Keel::OS::File::Mode::ReadWrite)) {
    Log(kRepairOpen, file.LastError());
    return false;
  }
  return WriteHeader(file, kRepairWrite, kRepairFlush);
}

AppendOpen OpenDayFileForAppend(const std::string& path, Keel::OS::File& file, uint64_t& size,
                                bool create) {
  size = 0;
  using Mode = Keel::OS::File::Mode;
  if (!file.Open(path, create ? Mode::OpenOrCreate : Mode::ReadWrite)) {
    Log(kAppendOpen, file.LastError());
    return AppendOpen::kIoError;
  }
  uint64_t file_size = 0;
  if (!file.GetSize(file_size)) {
    Log(kAppendSize, file.LastError());
    file.Close();
    return AppendOpen::kIoError;
  }
  if (file_size == 0) {
    if (!WriteHeader(file, kFreshHeaderWrite, kFreshHeaderFlush) || !SyncDirectoryOf(path)) {
      file.Truncate(0);
      file.Close();
      return AppendOpen::kIoError;
    }
    size = kDayFileHeaderSize;
    return AppendOpen::kOk;
  }
  DayFileCheck check;
  if (!ReadDayFileHeader(file, check)) {
    Log(kAppendBadHeader, static_cast<uint32_t>(check), file_size);
    file.Close();
    return check == DayFileCheck::ReadFailed ? AppendOpen::kIoError : AppendOpen::kBadHeader;
  }
  size = file_size;
  return AppendOpen::kOk;
}

bool ReadDayFileHeader(Keel::OS::File& file, DayFileCheck& check, uint32_t expected_version) {
  check = DayFileCheck::ReadFailed;
  uint8_t header[kDayFileHeaderSize];
  size_t got = 0;
  if (!file.ReadAt(0, header, sizeof(header), &got)) {
    Log(kHeaderRead, file.LastError());
    return false;
  }
  check = CheckDayFileHeader(header, got, expected_version);
  return check == DayFileCheck::Ok;
}

}  // namespace Tarn::Storage
