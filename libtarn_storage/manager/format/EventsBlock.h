#pragma once

#include <cstdint>

#include "Keel/Collections/Array.h"
#include "Keel/Lzma.h"

namespace Keel::Collections {
class Buffer;
}
namespace Keel::OS {
class File;
}

namespace Tarn::Storage {

// An events block holds a run of events of one day. Its raw form is the event
// records back to back, then an entry table with one entry per event; on disk
// it is a 12-byte header (stored_size, raw_size, table_offset) followed by
// stored_size bytes of payload: the raw form compressed as .xz (PayloadForm),
// every byte then inverted. All integers are little-endian.

// One entry of the table: where the event's record starts in the raw block,
// and its second of the day in the low 17 bits (the upper 15 are written 0).
struct BlockEntry {
  uint32_t offset;
  uint32_t second_word;
};
static_assert(sizeof(BlockEntry) == 8, "an entry is two 32-bit words on disk");

constexpr uint32_t kSecondMask = 0x1FFFF;
constexpr uint32_t kSecondsPerDay = 86400;
constexpr uint32_t kBlockHeaderSize = 12;
constexpr uint32_t kEntrySize = 8;

struct BlockHeader {
  uint32_t stored_size = 0;   // payload bytes after the header
  uint32_t raw_size = 0;      // records plus entry table
  uint32_t table_offset = 0;  // where the entry table starts in the raw block
};

// A payload is an .xz stream with every byte inverted, so it begins with the
// inverted stream magic (FD 37 7A 58 5A 00). Together with sane sizes this
// frames a block well enough to find one again among damaged bytes.
constexpr uint8_t kPayloadMagic[6] = {0x02, 0xC8, 0x85, 0xA7, 0xA5, 0xFF};

// Sizes a block of this store can have: a non-empty whole table behind the
// records, records no larger than the largest block buffer, and at least one
// byte per event. Not logged: scans ask it of arbitrary bytes.
bool BlockSizesAreSane(const BlockHeader& header);

struct EncodedBlock {
  BlockHeader header;
  uint32_t event_count = 0;
  uint32_t first_second = 0;  // second of the day of the first event
  uint32_t last_second = 0;   // and of the last
};

// Appends the table of `entries` to the records in `raw`. The table is refused
// (logged, `raw` unchanged) unless it is non-empty, the first offset is 0,
// offsets rise strictly and stay below the records' end, every second lies in
// the day, and the whole block stays below 4 GiB.
bool AppendEntryTable(Keel::Collections::Buffer& raw,
                      const Keel::Collections::Array<BlockEntry>& entries);

// True when the entry table at `table_offset` of a raw block obeys the rules
// above; a broken table is logged.
bool CheckEntryTable(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset);

// Bitwise NOT of every byte, in place.
void InvertBytes(uint8_t* data, uint64_t size);

// How a payload's .xz is laid out. The store writes the records and the
// entry table as two streams one after the other, the table behind a delta
// filter (its entries differ little from one to the next); stores written
// before hold the raw block as one stream. Both decode, with any xz
// decoder, to the raw block.
enum class PayloadForm { kRecordsThenTable, kOneStream };

// Turns the records in `raw` into a block: appends the entry table (so that
// raw.Size() becomes raw_size), compresses the whole raw block into `payload`
// and inverts it. On failure (logged) `raw` is as it was.
bool EncodeBlock(Keel::Collections::Buffer& raw,
                 const Keel::Collections::Array<BlockEntry>& entries,
                 Keel::Collections::Buffer& payload, EncodedBlock& out,
                 const Keel::Lzma::Options& options = {},
                 PayloadForm form = PayloadForm::kRecordsThenTable);

// Writes the header and payload at `offset` and flushes. Every step is checked
// and logged on its own. A false return means the bytes from `offset` on are
// unreliable: the block must not be indexed, and the next block goes at the
// same offset after the file was cut back to it.
bool WriteBlock(Keel::OS::File& file, uint64_t offset, const BlockHeader& header,
                const Keel::Collections::Buffer& payload);

// Reads the header of the block at `offset` of a file of `file_size` bytes.
// Fails (logged) when the header or the payload would reach past the end, or
// when the sizes cannot belong to a block this store writes; `io_error` (may
// be null) is set when the read itself failed instead, which says nothing
// about the bytes.
bool ReadBlockHeader(Keel::OS::File& file, uint64_t offset, uint64_t file_size, BlockHeader& out,
                     bool* io_error = nullptr);

// Reads the header's stored_size payload bytes of the block at `offset`.
bool ReadBlockPayload(Keel::OS::File& file, uint64_t offset, const BlockHeader& header,
                      Keel::Collections::Buffer& payload);

// Inverts `payload` in place (it is left holding the .xz stream, so a second
// call cannot succeed), decompresses it into `raw` to exactly raw_size bytes
// and checks the entry table. On failure (logged) `raw` is empty.
bool DecodeBlock(Keel::Collections::Buffer& payload, const BlockHeader& header,
                 Keel::Collections::Buffer& raw);

// Events of a decoded raw block. Bounded: an event whose entry points outside
// the records is refused rather than read.
class RawBlockView {
 public:
  static constexpr uint32_t kNoSecond = 0xFFFFFFFFu;

  RawBlockView(const uint8_t* raw, uint32_t raw_size, uint32_t table_offset);

  uint32_t EventCount() const { return count_; }
  // Record `i` runs from its entry's offset to the next entry's (the last one
  // to the table).
  bool Event(uint32_t i, const uint8_t*& data, uint32_t& size) const;
  // Second of the day of event `i`, or kNoSecond past the end.
  uint32_t Second(uint32_t i) const;

 private:
  uint32_t EntryOffset(uint32_t i) const;

  const uint8_t* raw_;
  uint32_t table_offset_;
  uint32_t count_;
};

}  // namespace Tarn::Storage
