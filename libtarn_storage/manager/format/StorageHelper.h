#pragma once

#include <cstdint>
#include <string>

// Names of the files in the storage directory.
namespace Tarn::Storage::Utils {

// Written once at close with the block that was still being filled.
constexpr const char* kFinalFileName = "storage.final.db";
// The only database file version the writer creates and appends to. Versions
// 0 and 1 are still found and read.
constexpr uint8_t kWriteVersion = 2;

// True when a directory entry is a database file: not a directory, and named
// like "storage.00000.000.db" with any decimal digit where that has a 0 and
// the same character elsewhere, at exactly that length. `day` is set to 0
// first; `day` and `version` receive the two numbers. A name of the wrong
// length, or with a number out of range (a version above 255), is logged.
bool IsStorageFile(const char* name, bool is_directory, uint16_t& day, uint8_t& version);

// "storage.DDDDD.VVV.db": the day zero-padded to five digits, the version to
// three. Empty only when memory ran out.
std::string DayFileName(uint16_t day, uint8_t version);

// The index file's name; the index itself (index/Index.h) uses the same.
constexpr const char* kIndexFileName = "storage.index.db";

// A store file that could not be read is kept under its name with this
// added, which is no store file's name, so that nothing of the store reads
// it again until the recover tool does: "storage.00123.002.db.unreadable".
// When that name is taken, a number goes before the suffix
// ("storage.00123.002.db.2.unreadable").
constexpr const char* kAsideSuffix = ".unreadable";
std::string AsideName(const std::string& name, uint32_t attempt);
// The name a set-aside file had (a day file, the shutdown file or the index
// file), or empty when `name` is not a set-aside store file.
std::string NameBeforeAside(const std::string& name);

}  // namespace Tarn::Storage::Utils
