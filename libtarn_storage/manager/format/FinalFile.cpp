#include "manager/format/FinalFile.h"

#include <algorithm>
#include <cerrno>

#include "Keel/Collections/Buffer.h"
#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Keel/OS/FileSystem.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "Keel/OS/Path.h"
#include "Tarn/Events/EventHeader.h"
#include "Tarn/Events/Record.h"

namespace Tarn::Storage {
namespace {

// Keel::Log::StorageManager identifiers of this file; the file formats of
// the store share the 300s.
enum Message : uint32_t {
  kWriteBadBlock = 371,
  kWriteOpen = 372,
  kWriteHeader = 373,
  kWriteChunkBuffer = 374,
  kWriteRaw = 375,
  kWriteFlushBody = 376,
  kWriteMagic = 377,
  kWriteFlushMagic = 378,
  kWriteClose = 379,
  kReadOpen = 380,
  kReadSize = 381,
  kReadHeader = 382,
  kIncomplete = 383,
  kTruncatedHeader = 384,
  kBadVersion = 385,
  kBadReserved = 386,
  kBadSizes = 387,
  kReadRaw = 388,
  kBadTable = 389,
  kBadRecord = 390,
  kWriteDirectorySync = 391,
  kDisarm = 392,
};

constexpr uint32_t kMagicOffset = 0;
constexpr uint32_t kVersionOffset = 4;
constexpr uint32_t kReservedOffset = 8;
constexpr uint32_t kReservedSize = 24;
constexpr uint32_t kTableOffsetOffset = 32;
constexpr uint32_t kCountOffset = 36;
constexpr uint32_t kRawSizeOffset = 40;
constexpr uint32_t kDayOffset = 44;
// Inverting through a bounded buffer keeps a 500 MB block from being copied
// whole.
constexpr uint64_t kChunkSize = 1u << 20;

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageManager, message, a, b, c);
}

struct FinalHeader {
  uint32_t magic = 0;
  uint32_t version = kFinalFileVersion;
  uint32_t table_offset = 0;
  uint32_t event_count = 0;
  uint32_t raw_size = 0;
  uint16_t day = 0;
};

void StoreHeader(const FinalHeader& header, uint8_t (&bytes)[kFinalHeaderSize]) {
  std::fill(std::begin(bytes), std::end(bytes), 0);
  Events::Record::StoreUInt32(bytes + kMagicOffset, header.magic);
  Events::Record::StoreUInt32(bytes + kVersionOffset, header.version);
  Events::Record::StoreUInt32(bytes + kTableOffsetOffset, header.table_offset);
  Events::Record::StoreUInt32(bytes + kCountOffset, header.event_count);
  Events::Record::StoreUInt32(bytes + kRawSizeOffset, header.raw_size);
  Events::Record::StoreUInt16(bytes + kDayOffset, header.day);
}

FinalHeader LoadHeader(const uint8_t (&bytes)[kFinalHeaderSize]) {
  FinalHeader header;
  header.magic = Events::Record::LoadUInt32(bytes + kMagicOffset);
  header.version = Events::Record::LoadUInt32(bytes + kVersionOffset);
  header.table_offset = Events::Record::LoadUInt32(bytes + kTableOffsetOffset);
  header.event_count = Events::Record::LoadUInt32(bytes + kCountOffset);
  header.raw_size = Events::Record::LoadUInt32(bytes + kRawSizeOffset);
  header.day = Events::Record::LoadUInt16(bytes + kDayOffset);
  return header;
}

bool ReservedIsZero(const uint8_t (&bytes)[kFinalHeaderSize]) {
  const uint8_t* reserved = bytes + kReservedOffset;
  return std::all_of(reserved, reserved + kReservedSize, [](uint8_t b) { return b == 0; });
}

// A non-empty table of exactly `event_count` entries closes the block.
bool CountMatchesTable(uint64_t raw_size, uint32_t table_offset, uint32_t event_count) {
  return event_count != 0 && table_offset <= raw_size &&
         raw_size - table_offset == uint64_t{event_count} * kEntrySize;
}

// Every record is whole: its own size field spans exactly its entry's bytes.
bool RecordsAreWhole(const Keel::Collections::Buffer& raw, uint32_t table_offset) {
  const RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset);
  for (uint32_t i = 0; i < view.EventCount(); ++i) {
    const uint8_t* record = nullptr;
    uint32_t size = 0;
    if (!view.Event(i, record, size) || !Events::EventHeader(record, size).Valid()) {
      Log(kBadRecord, i, size);
      return false;
    }
  }
  return true;
}

bool WriteInverted(Keel::OS::File& file, const Keel::Collections::Buffer& raw) {
  Keel::Collections::Buffer chunk;
  if (!chunk.Create(std::min(kChunkSize, raw.Size()))) {
    Log(kWriteChunkBuffer, raw.Size());
    return false;
  }
  for (uint64_t done = 0; done < raw.Size();) {
    uint64_t length = std::min(kChunkSize, raw.Size() - done);
    chunk.Reset();
    chunk.Push(raw.Data() + done, length);  // within the created capacity
    InvertBytes(chunk.Data(), length);
    if (!file.WriteAt(kFinalHeaderSize + done, chunk.Data(), length)) {
      Log(kWriteRaw, file.LastError(), done, raw.Size());
      return false;
    }
    done += length;
  }
  return true;
}

// Everything but the magic, made durable.
bool WriteBody(Keel::OS::File& file, const Keel::Collections::Buffer& raw,
               const FinalHeader& header) {
  uint8_t bytes[kFinalHeaderSize];
  StoreHeader(header, bytes);
  if (!file.WriteAt(0, bytes, sizeof(bytes))) {
    Log(kWriteHeader, file.LastError());
    return false;
  }
  if (!WriteInverted(file, raw)) return false;
  if (!file.Flush()) {
    Log(kWriteFlushBody, file.LastError());
    return false;
  }
  return true;
}

// The magic alone: a torn or failed write of these four bytes leaves a value
// other than "ETRN", which reads as an incomplete file. Rewriting the whole
// header could land the magic and still fail.
bool WriteMagic(Keel::OS::File& file) {
  uint8_t magic[4];
  Events::Record::StoreUInt32(magic, kStoreMagic);
  if (!file.WriteAt(kMagicOffset, magic, sizeof(magic))) {
    Log(kWriteMagic, file.LastError());
    return false;
  }
  if (!file.Flush()) {
    Log(kWriteFlushMagic, file.LastError());
    return false;
  }
  return true;
}

FinalFileState Invalid(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  Log(message, a, b, c);
  return FinalFileState::Invalid;
}

FinalFileState Unreadable(Message message, uint64_t a = 0, uint64_t b = 0) {
  Log(message, a, b, 0);
  return FinalFileState::ReadFailed;
}

}  // namespace

bool WriteFinalFile(const std::string& path, const Keel::Collections::Buffer& raw_with_table,
                    uint32_t table_offset, uint32_t event_count, uint16_t day) {
  uint64_t raw_size = raw_with_table.Size();
  if (!CountMatchesTable(raw_size, table_offset, event_count)) {
    Log(kWriteBadBlock, raw_size, table_offset, event_count);
    return false;
  }
  // A buffer holds below 4 GiB, so raw_size fits its 32-bit field.
  if (!CheckEntryTable(raw_with_table.Data(), static_cast<uint32_t>(raw_size), table_offset)) {
    return false;
  }
  Keel::OS::File file;
  if (!file.Open(path, Keel::OS::File::Mode::CreateTruncate)) {
    Log(kWriteOpen, file.LastError());
    return false;
  }
  FinalHeader header;
  header.table_offset = table_offset;
  header.event_count = event_count;
  header.raw_size = static_cast<uint32_t>(raw_size);
  header.day = day;
  if (!WriteBody(file, raw_with_table, header) || !WriteMagic(file)) return false;
  if (!file.Close()) {
    Log(kWriteClose, file.LastError());
    return false;
  }
  // The file's name must survive a power cut as well as its bytes.
  if (!SyncDirectoryOf(path)) {
    Log(kWriteDirectorySync, Keel::OS::FileSystem::LastError());
    return false;
  }
  return true;
}

bool DisarmFinalFile(const std::string& path) {
  Keel::OS::File file;
  const uint8_t zero[4] = {0, 0, 0, 0};
  if (!file.Open(path, Keel::OS::File::Mode::ReadWrite) ||
      !file.WriteAt(kMagicOffset, zero, sizeof(zero)) || !file.Flush()) {
    Log(kDisarm, file.LastError());
    return false;
  }
  return true;
}

FinalFileState ReadFinalFile(const std::string& path, Keel::Collections::Buffer& raw,
                             uint32_t& table_offset, uint32_t& event_count, uint16_t& day) {
  raw.Reset();
  // Asked first so that the usual absence is not logged as a failed open.
  if (!Keel::OS::FileSystem::Exists(path)) return FinalFileState::Absent;
  Keel::OS::File file;
  if (!file.Open(path, Keel::OS::File::Mode::Read)) {
    if (file.LastError() == ENOENT) return FinalFileState::Absent;
    return Unreadable(kReadOpen, file.LastError());
  }
  uint64_t file_size = 0;
  if (!file.GetSize(file_size)) return Unreadable(kReadSize, file.LastError());
  uint8_t bytes[kFinalHeaderSize];
  size_t got = 0;
  if (!file.ReadAt(0, bytes, sizeof(bytes), &got)) {
    return Unreadable(kReadHeader, file.LastError());
  }

  if (got < 4 || Events::Record::LoadUInt32(bytes + kMagicOffset) != kStoreMagic) {
    KEEL_LOG(Keel::Log::Warning, Keel::Log::StorageManager, kIncomplete, file_size, got, 0);
    return FinalFileState::Incomplete;
  }
  if (got < kFinalHeaderSize) return Invalid(kTruncatedHeader, got);
  FinalHeader header = LoadHeader(bytes);
  if (header.version != kFinalFileVersion) return Invalid(kBadVersion, header.version);
  if (!ReservedIsZero(bytes)) return Invalid(kBadReserved);
  if (file_size != kFinalHeaderSize + uint64_t{header.raw_size} ||
      !CountMatchesTable(header.raw_size, header.table_offset, header.event_count)) {
    return Invalid(kBadSizes, file_size, header.raw_size, header.event_count);
  }

  if (!raw.Resize(header.raw_size) ||
      !file.ReadAtExact(kFinalHeaderSize, raw.Data(), header.raw_size)) {
    raw.Reset();
    return Unreadable(kReadRaw, file.LastError(), header.raw_size);
  }
  InvertBytes(raw.Data(), raw.Size());
  if (!CheckEntryTable(raw.Data(), header.raw_size, header.table_offset) ||
      !RecordsAreWhole(raw, header.table_offset)) {
    raw.Reset();
    return Invalid(kBadTable);
  }
  table_offset = header.table_offset;
  event_count = header.event_count;
  day = header.day;
  return FinalFileState::Ok;
}

}  // namespace Tarn::Storage
