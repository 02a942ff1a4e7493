#pragma once

#include <cstdint>
#include <string>

namespace Keel::OS {
class File;
}

namespace Tarn::Storage {

// A database file starts with a 20-byte header: the magic "ETRN", a reserved
// word 0, the format version 2 and eight reserved zero bytes. Events blocks
// follow it back to back. All integers are little-endian.
constexpr uint32_t kDayFileHeaderSize = 20;
constexpr uint32_t kStoreMagic = 0x4E525445;  // "ETRN"
constexpr uint32_t kDayFileFormatVersion = 2;

enum class DayFileCheck { Ok, TooShort, BadMagic, BadReserved, BadVersion, BadTrailer, ReadFailed };

// Checks the header at the start of the `size` bytes at `bytes`. The writer
// only ever writes format version 2; a reader passes the version the file's
// name carries, which its header must repeat. Every verdict but Ok is logged
// with its own identifier.
DayFileCheck CheckDayFileHeader(const uint8_t* bytes, uint64_t size,
                                uint32_t expected_version = kDayFileFormatVersion);

// Creates (or empties) the file, writes the header and flushes it. On success
// `file` is open read-write and positioned right after the header; on failure
// it is closed, everything is logged, and the file is left empty where
// possible, so that opening it for appending gives it a fresh header.
bool CreateDayFile(const std::string& path, Keel::OS::File& file);

// Writes a fresh header over the first 20 bytes of an existing file and
// flushes it; the blocks behind it are not touched. For the recover tool,
// on a file whose header alone is damaged. False (logged) on failure.
bool RewriteDayFileHeader(const std::string& path);

enum class AppendOpen {
  kOk,
  // The system failed an operation: the file may be fine, so it is kept.
  kIoError,
  // The header was read and is not a day file's: only then may the file be
  // replaced.
  kBadHeader,
};

// Opens a file read-write for appending blocks; with `create` a missing one
// is created (an existing one is never emptied). An empty file gets a fresh
// header; any other must carry a valid one. `size` receives the file's size
// (at least the header). On failure `file` is closed and `size` is 0.
AppendOpen OpenDayFileForAppend(const std::string& path, Keel::OS::File& file, uint64_t& size,
                                bool create = false);

// Syncs the directory of `path`, so that a file created there keeps its name
// through a power cut: no block in a new file is named by the index before.
// False (logged) when the sync fails.
bool SyncDirectoryOf(const std::string& path);

// Reads and checks the header of an open file. True when the header is valid.
// False when it is not (`check` says why) or when the read itself failed
// (logged; `check` is then ReadFailed).
bool ReadDayFileHeader(Keel::OS::File& file, DayFileCheck& check,
                       uint32_t expected_version = kDayFileFormatVersion);

}  // namespace Tarn::Storage
