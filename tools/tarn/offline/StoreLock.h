#pragma once

#include <string>

#include "Keel/OS/File.h"

namespace Tarn::Tool {

// The store's own lock: an exclusive lock on the manager's lock file in the
// storage directory, which the running store holds for its whole life. The tool
// takes it to learn whether another process has the store open, and holds it
// while its offline commands read or rewrite the files.
class StoreLock {
 public:
  enum class Result { kLocked, kInUse, kError };

  StoreLock() = default;
  ~StoreLock() { Release(); }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

  // Creates the lock file (0600) when it is missing. On kInUse or kError,
  // `error` says so in words.
  Result Acquire(const std::string& directory, std::string& error);
  // Lets the lock go. The store opened by this process takes it through a
  // file descriptor of its own, which this one would block.
  void Release();

  // For a command that works on a closed store: `directory` must be a store
  // that nothing holds. False after saying on standard error why not;
  // `doing` ends the message ("verify reads a closed store").
  bool AcquireClosed(const std::string& directory, const std::string& doing);

 private:
  Keel::OS::File file_;
};

}  // namespace Tarn::Tool
