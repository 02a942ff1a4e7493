#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "Keel/Export.h"

// Operations on names in the file system. Each returns false on failure,
// writes one log record and keeps the errno for LastError; nothing throws.
// Like Keel::OS::File, every operation passes through Keel::OS::Faults.
namespace Keel::OS::FileSystem {

// True when something exists under the name. Absence is not a failure.
KEEL_API bool Exists(const std::string& path);
KEEL_API bool IsDirectory(const std::string& path);

// Creates the directory and any missing parents with mode 0700. An existing
// directory is success; an existing file of that name is not.
KEEL_API bool CreateDirectory(const std::string& path);

// True when the file is gone afterwards, including when it never existed.
// Syncs the directory afterwards, so the removal itself survives a power cut
// (a failed sync is only logged: the name is gone either way).
KEEL_API bool DeleteFile(const std::string& path);

// Makes the names in `directory` durable: a file created there is only sure
// to survive a power cut, flushed or not, once this succeeded.
KEEL_API bool SyncDirectory(const std::string& directory);

// Renames, replacing any file at `to`, then syncs the directory of `to` so the
// rename itself survives a power cut. Both names must be on one file system.
KEEL_API bool MoveFile(const std::string& from, const std::string& to);

KEEL_API bool GetFileSize(const std::string& path, uint64_t& size);

// Names (not paths) of the regular files in `directory`, sorted bytewise.
// Subdirectories are left out.
KEEL_API bool ListDirectory(const std::string& directory, std::vector<std::string>& names);

// The errno of this thread's last failed call above.
KEEL_API int LastError();

}  // namespace Keel::OS::FileSystem
