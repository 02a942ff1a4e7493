#include "manager/format/EventsBlock.h"

#include <chrono>
#include <cstring>

#include "Keel/Collections/Buffer.h"
#include "Keel/Log.h"
#include "Keel/OS/File.h"
#include "Tarn/Events/Record.h"
#include "manager/writer/Settings.h"

namespace Tarn::Storage {
namespace {

// Keel::Log::StorageManager identifiers of this file; the file formats of
// the store share the 300s.
enum Message : uint32_t {
  kNoEntries = 341,
  kBlockTooLarge = 342,
  kBadEntry = 343,
  kTableAppend = 344,
  kCompress = 345,
  kEncoded = 346,
  kPayloadSizeMismatch = 347,
  kOffsetBeyondIndex = 348,
  kWriteStoredSize = 349,
  kWriteRawSize = 350,
  kWriteTableOffset = 351,
  kWritePayload = 352,
  kWriteFlush = 353,
  kHeaderPastEnd = 354,
  kHeaderRead = 355,
  kEmptyPayload = 356,
  kPayloadPastEnd = 357,
  kBadSizes = 358,
  kPayloadRead = 359,
  kUncompress = 360,
};

constexpr uint64_t kMaxRawSize = 0xFFFFFFFFull;

void Log(Message message, uint64_t a = 0, uint64_t b = 0, uint64_t c = 0) {
  KEEL_LOG(Keel::Log::Error, Keel::Log::StorageManager, message, a, b, c);
}

BlockEntry EntryAt(const uint8_t* table, uint32_t i) {
  return BlockEntry{Events::Record::LoadUInt32(table + i * kEntrySize),
                    Events::Record::LoadUInt32(table + i * kEntrySize + 4)};
}

// Index of the first entry that breaks the table's rules, or `count`. The
// first record starts the block and every record is at least one byte long.
template <typename Entries>
uint32_t FirstBadEntry(const Entries& entries, uint32_t count, uint32_t table_offset) {
  uint32_t previous = 0;
  for (uint32_t i = 0; i < count; ++i) {
    BlockEntry entry = entries(i);
    bool placed = i == 0 ? entry.offset == 0 : entry.offset > previous;
    if (!placed || entry.offset >= table_offset ||
        (entry.second_word & kSecondMask) >= kSecondsPerDay) {
      return i;
    }
    previous = entry.offset;
  }
  return count;
}

bool WriteWord(Keel::OS::File& file, uint64_t offset, uint32_t value, Message failed) {
  uint8_t bytes[4];
  Events::Record::StoreUInt32(bytes, value);
  if (file.WriteAt(offset, bytes, sizeof(bytes))) return true;
  Log(failed, file.LastError(), offset);
  return false;
}

uint64_t MicrosecondsSince(std::chrono::steady_clock::time_point start) {
  auto elapsed = std::chrono::steady_clock::now() - start;
  return std::chrono::duration_cast<std::chrono::microseconds>(elapsed).count();
}

}  // namespace

bool BlockSizesAreSane(const BlockHeader& header) {
  if (header.table_offset >= header.raw_size) return false;
  uint32_t table_size = header.raw_size - header.table_offset;
  return table_size % kEntrySize == 0 && header.table_offset <= SettingsBounds::kBlockSizeEnd &&
         table_size / kEntrySize <= header.table_offset;
}

bool AppendEntryTable(Keel::Collections::Buffer& raw,
                      const Keel::Collections::Array<BlockEntry>& entries) {
  uint32_t count = entries.Count();
  if (count == 0) {
    Log(kNoEntries, raw.Size());
    return false;
  }
  uint64_t table_offset = raw.Size();
  if (table_offset > kMaxRawSize || uint64_t{count} * kEntrySize > kMaxRawSize - table_offset) {
    Log(kBlockTooLarge, table_offset, count);
    return false;
  }
  auto entry_at = [&entries](uint32_t i) { return *entries.Get(i); };
  uint32_t bad = FirstBadEntry(entry_at, count, static_cast<uint32_t>(table_offset));
  if (bad != count) {
    Log(kBadEntry, bad, entries.Get(bad)->offset, entries.Get(bad)->second_word);
    return false;
  }
  if (!raw.Resize(table_offset + uint64_t{count} * kEntrySize)) {  // unchanged on failure
    Log(kTableAppend, table_offset, count);
    return false;
  }
  uint8_t* table = raw.Data() + table_offset;
  for (uint32_t i = 0; i < count; ++i) {
    const BlockEntry& entry = *entries.Get(i);
    Events::Record::StoreUInt32(table + i * kEntrySize, entry.offset);
    Events::Record::StoreUInt32(table + i * kEntrySize + 4, entry.second_word & kSecondMask);
  }
  return true;
}

bool CheckEntryTable(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset) {
  if (table_offset >= raw_size || (raw_size - table_offset) % kEntrySize != 0) {
    Log(kBadSizes, raw_size, table_offset);
    return false;
  }
  uint32_t count = (raw_size - table_offset) / kEntrySize;
  const uint8_t* table = raw + table_offset;
  auto entry_at = [table](uint32_t i) { return EntryAt(table, i); };
  uint32_t bad = FirstBadEntry(entry_at, count, table_offset);
  if (bad == count) return true;
  Log(kBadEntry, bad, EntryAt(table, bad).offset, EntryAt(table, bad).second_word);
  return false;
}

void InvertBytes(uint8_t* data, uint64_t size) {
  // Word at a time; the compiler turns the copies into plain loads and stores.
  uint64_t i = 0;
  for (; i + 8 <= size; i += 8) {
    uint64_t word;
    std::memcpy(&word, data + i, 8);
    word = ~word;
    std::memcpy(data + i, &word, 8);
  }
  for (; i < size; ++i) data[i] = static_cast<uint8_t>(~data[i]);
}

bool EncodeBlock(Keel::Collections::Buffer& raw,
                 const Keel::Collections::Array<BlockEntry>& entries,
                 Keel::Collections::Buffer& payload, EncodedBlock& out,
                 const Keel::Lzma::Options& options, PayloadForm form) {
  uint64_t table_offset = raw.Size();
  if (!AppendEntryTable(raw, entries)) return false;
  auto start = std::chrono::steady_clock::now();
  Keel::Lzma::Options laid_out = options;
  laid_out.table_offset =
      form == PayloadForm::kRecordsThenTable ? table_offset : Keel::Lzma::Options::kNoTable;
  if (!Keel::Lzma::Compress(raw.Data(), raw.Size(), payload, laid_out)) {
    raw.Resize(table_offset);
    Log(kCompress, raw.Size(), options.preset, options.threads);
    return false;
  }
  // A buffer holds below 4 GiB, so the stored size always fits its field.
  InvertBytes(payload.Data(), payload.Size());

  out.header.stored_size = static_cast<uint32_t>(payload.Size());
  out.header.raw_size = static_cast<uint32_t>(raw.Size());
  out.header.table_offset = static_cast<uint32_t>(table_offset);
  out.event_count = entries.Count();
  out.first_second = entries.Get(0)->second_word & kSecondMask;
  out.last_second = entries.Get(entries.Count() - 1)->second_word & kSecondMask;
  KEEL_LOG(Keel::Log::Information, Keel::Log::StorageManager, kEncoded, out.header.raw_size,
           out.header.stored_size, MicrosecondsSince(start));
  return true;
}

bool WriteBlock(Keel::OS::File& file, uint64_t offset, const BlockHeader& header,
                const Keel::Collections::Buffer& payload) {
  if (payload.Size() != header.stored_size) {
    Log(kPayloadSizeMismatch, payload.Size(), header.stored_size);
    return false;
  }
  // The index keeps block offsets in 32 bits.
  if (offset > kMaxRawSize) {
    Log(kOffsetBeyondIndex, offset);
    return false;
  }
  if (!WriteWord(file, offset, header.stored_size, kWriteStoredSize) ||
      !WriteWord(file, offset + 4, header.raw_size, kWriteRawSize) ||
      !WriteWord(file, offset + 8, header.table_offset, kWriteTableOffset)) {
    return false;
  }
  if (!file.WriteAt(offset + kBlockHeaderSize, payload.Data(), payload.Size())) {
    Log(kWritePayload, file.LastError(), offset, payload.Size());
    return false;
  }
  if (!file.Flush()) {
    Log(kWriteFlush, file.LastError(), offset);
    return false;
  }
  return true;
}

bool ReadBlockHeader(Keel::OS::File& file, uint64_t offset, uint64_t file_size, BlockHeader& out,
                     bool* io_error) {
  if (io_error != nullptr) *io_error = false;
  if (offset > file_size || file_size - offset < kBlockHeaderSize) {
    Log(kHeaderPastEnd, offset, file_size);
    return false;
  }
  uint8_t bytes[kBlockHeaderSize];
  if (!file.ReadAtExact(offset, bytes, sizeof(bytes))) {
    Log(kHeaderRead, file.LastError(), offset);
    if (io_error != nullptr) *io_error = true;
    return false;
  }
  BlockHeader header;
  header.stored_size = Events::Record::LoadUInt32(bytes);
  header.raw_size = Events::Record::LoadUInt32(bytes + 4);
  header.table_offset = Events::Record::LoadUInt32(bytes + 8);
  if (header.stored_size == 0) {
    Log(kEmptyPayload, offset);
    return false;
  }
  if (file_size - offset - kBlockHeaderSize < header.stored_size) {
    Log(kPayloadPastEnd, offset, header.stored_size, file_size);
    return false;
  }
  if (!BlockSizesAreSane(header)) {
    Log(kBadSizes, header.raw_size, header.table_offset, offset);
    return false;
  }
  out = header;
  return true;
}

bool ReadBlockPayload(Keel::OS::File& file, uint64_t offset, const BlockHeader& header,
                      Keel::Collections::Buffer& payload) {
  if (!payload.Resize(header.stored_size)) {
    payload.Reset();
    Log(kPayloadRead, 0, offset, header.stored_size);
    return false;
  }
  if (!file.ReadAtExact(offset + kBlockHeaderSize, payload.Data(), header.stored_size)) {
    payload.Reset();
    Log(kPayloadRead, file.LastError(), offset, header.stored_size);
    return false;
  }
  return true;
}

bool DecodeBlock(Keel::Collections::Buffer& payload, const BlockHeader& header,
                 Keel::Collections::Buffer& raw) {
  if (payload.Size() != header.stored_size) {
    raw.Reset();
    Log(kPayloadSizeMismatch, payload.Size(), header.stored_size);
    return false;
  }
  if (!BlockSizesAreSane(header)) {
    raw.Reset();
    Log(kBadSizes, header.raw_size, header.table_offset);
    return false;
  }
  InvertBytes(payload.Data(), payload.Size());
  if (!Keel::Lzma::Uncompress(payload.Data(), payload.Size(), raw, header.raw_size)) {
    Log(kUncompress, header.stored_size, header.raw_size);
    return false;  // Uncompress left `raw` empty
  }
  if (!CheckEntryTable(raw.Data(), header.raw_size, header.table_offset)) {
    raw.Reset();
    return false;
  }
  return true;
}

RawBlockView::RawBlockView(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset)
    : raw_(raw),
      table_offset_(table_offset),
      count_(raw != nullptr && table_offset <= raw_size ? (raw_size - table_offset) / kEntrySize
                                                        : 0) {}

uint32_t RawBlockView::EntryOffset(uint32_t i) const {
  return Events::Record::LoadUInt32(raw_ + table_offset_ + i * kEntrySize);
}

bool RawBlockView::Event(uint32_t i, const uint8_t*& data, uint32_t& size) const {
  if (i >= count_) return false;
  uint32_t begin = EntryOffset(i);
  uint32_t end = i + 1 < count_ ? EntryOffset(i + 1) : table_offset_;
  if (begin >= end || end > table_offset_) return false;
  data = raw_ + begin;
  size = end - begin;
  return true;
}

uint32_t RawBlockView::Second(uint32_t i) const {
  if (i >= count_) return kNoSecond;
  return Events::Record::LoadUInt32(raw_ + table_offset_ + i * kEntrySize + 4) & kSecondMask;
}

}  // namespace Tarn::Storage
