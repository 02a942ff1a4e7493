#pragma once

#include <cstdint>
#include <string>

namespace Keel::Collections {
class Buffer;
}

namespace Tarn::Storage {

// "storage.final.db" keeps the block that was still being filled when the
// store closed, uncompressed. Its 46-byte header differs from a day file's on
// purpose: the magic "ETRN" (written last, zero until the file is complete),
// the version 2 at offset 4, 24 reserved zero bytes, then table_offset at 32,
// the event count at 36, raw_size at 40 and the 16-bit day at 44. The raw
// block follows with every byte inverted. All integers are little-endian.
constexpr uint32_t kFinalHeaderSize = 46;
constexpr uint32_t kFinalFileVersion = 2;

// Writes the raw block (records and entry table, see AppendEntryTable) of
// `day`. The magic is set only once everything else is durable, so a file
// left by a failed or interrupted write never reads as Ok. Failures are
// logged.
bool WriteFinalFile(const std::string& path, const Keel::Collections::Buffer& raw_with_table,
                    uint32_t table_offset, uint32_t event_count, uint16_t day);

// Clears the magic of a file whose block was stored but which could not be
// deleted, so that it reads as an interrupted write. False when it could not.
bool DisarmFinalFile(const std::string& path);

enum class FinalFileState {
  Absent,      // no file
  ReadFailed,  // the system failed a read: the file may be whole, so it stays
  Incomplete,  // the magic is not set: the write never finished
  // Complete, but not a block this store can use. The file has no checksum:
  // what can be checked is that entries rise inside the records, seconds lie
  // in the day and each record's own length is its entry's span.
  Invalid,
  Ok,
};

// Reads the file back. Only Ok fills the outputs: `raw` then holds the raw
// block with its entry table, no longer inverted. Every state but Absent and
// Ok is logged.
FinalFileState ReadFinalFile(const std::string& path, Keel::Collections::Buffer& raw,
                             uint32_t& table_offset, uint32_t& event_count, uint16_t& day);

}  // namespace Tarn::Storage
