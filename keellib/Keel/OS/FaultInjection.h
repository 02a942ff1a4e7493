#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>

#include "Keel/Export.h"

// The test seam of the file layer. Every operation of Keel::OS::File and
// Keel::OS::FileSystem asks it first whether to fail, so tests can make the
// Nth write of one file fail, fill the disk, tear a write in half or cut the
// power, without the code under test knowing. With no rule and no crash
// tracking the seam costs one relaxed atomic load per operation.
namespace Keel::OS::Faults {

// Operations a rule can match (a bit mask).
enum Operation : uint32_t {
  Open = 1u << 0,             // File::Open, any mode
  Read = 1u << 1,             // File::Read, ReadAt and their exact forms
  Write = 1u << 2,            // File::Write, WriteAt, Append
  Flush = 1u << 3,            // File::Flush
  Truncate = 1u << 4,         // File::Truncate
  Delete = 1u << 5,           // FileSystem::DeleteFile
  Move = 1u << 6,             // FileSystem::MoveFile (matches either name)
  CreateDirectory = 1u << 7,  // FileSystem::CreateDirectory
  Lock = 1u << 8,             // File::TryLockExclusive
  List = 1u << 9,             // FileSystem::ListDirectory
  Stat = 1u << 10,            // File::GetSize, FileSystem::GetFileSize
  SyncDirectory = 1u << 11,   // FileSystem::SyncDirectory (and the syncs inside Move, Delete)
  All = (1u << 12) - 1,
};

enum Kind : uint32_t {
  Eio,     // fails with EIO
  Enospc,  // fails with ENOSPC
  // A write stores the first half of its bytes, then fails with ENOSPC: a
  // disk that filled up in the middle. Other operations fail with ENOSPC.
  ShortWrite,
};

struct Rule {
  static constexpr uint32_t kForever = 0xFFFFFFFFu;

  // Matches paths containing this text; empty matches every path.
  std::string path_contains;
  uint32_t operations = All;
  // The first matching operation to fail, counted from 1 since the rule was
  // added: 1 fails the next one.
  uint32_t nth = 1;
  Kind kind = Eio;
  // How many consecutive matching operations fail from the nth on. Zero makes
  // a rule that only counts.
  uint32_t times = 1;
  // The fault belongs to the file rather than the name: when a file whose
  // path is exactly `path_contains` is moved, the rule follows it to its new
  // name (a bad sector, a lock another program holds).
  bool follows_file = false;
};

// Returns the rule's id (above 0). Rules are checked in the order they were
// added; the first one due decides how an operation fails, and every matching
// rule counts the operation.
KEEL_API int AddRule(const Rule& rule);
KEEL_API bool RemoveRule(int id);
KEEL_API void ClearRules();
// Operations that matched the rule's path and operation mask so far.
KEEL_API uint64_t MatchCount(int id);
// Operations the rule made fail so far.
KEEL_API uint64_t FailCount(int id);

// Power-cut simulation. While tracking is on, the durable state of a file
// (its content, or its absence) is remembered before the first change since
// its last successful Flush; Flush forgets it. SimulatePowerCut puts every
// remembered file back into that state (deleting files that did not exist),
// losing everything written since the last flush, and forgets them all.
//
// A file's name is durable only once its directory was synced: a file created
// since the last sync of its directory vanishes at the power cut, flushed or
// not. Renames and deletes are treated as durable the moment they succeed
// (both sync the directory themselves; a rename gives its target a durable
// name even when the file was created unsynced): a deleted file is forgotten, and a
// moved file carries what is remembered about it to its new name (so an
// unflushed file moved onto a name still loses its unflushed bytes there),
// while a durable file moved onto a name makes that name durable. Tracking
// follows paths, so a file written through a File that was opened before it
// was moved is tracked under its old name.
KEEL_API void EnableCrashTracking(bool enable);
KEEL_API void SimulatePowerCut();
// Files with changes that a power cut would undo.
KEEL_API size_t PendingFiles();

// Hooks for File and FileSystem only.
namespace Detail {

extern std::atomic<uint32_t> g_active;

inline bool Active() { return g_active.load(std::memory_order_relaxed) != 0; }

// 0 when the operation may proceed, else the errno to fail with. A short write
// sets `*short_write` and returns ENOSPC. `other_path` is Move's second name.
int Check(Operation operation, std::string_view path, std::string_view other_path = {},
          bool* short_write = nullptr);

// Called before bytes from `offset` on may change (a write at `offset`, a
// truncation to `offset`). kCreateOnly: the file may be created, no byte of an
// existing file changes.
constexpr uint64_t kCreateOnly = ~0ull;
void BeforeChange(const std::string& path, uint64_t offset);
void AfterFlush(const std::string& path);
void AfterDelete(const std::string& path);
void AfterMove(const std::string& from, const std::string& to);
void AfterDirectorySync(const std::string& directory);

}  // namespace Detail

}  // namespace Keel::OS::Faults
