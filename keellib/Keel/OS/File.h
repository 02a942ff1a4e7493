#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "Keel/Export.h"

namespace Keel::OS {

// One open file. Every failure returns false, keeps its errno for LastError
// and writes one log record; nothing throws. Files that Open creates get mode
// 0600. Movable, not copyable; the destructor closes. ReadAt may run on
// several threads at once; everything else wants one thread at a time.
//
// Every operation passes through Keel::OS::Faults first, which is how tests
// make writes, flushes and opens fail.
class KEEL_API File {
 public:
  enum class Mode : uint32_t {
    Read,            // an existing file, read only
    ReadWrite,       // an existing file
    OpenOrCreate,    // read-write; created empty when missing
    CreateTruncate,  // read-write; created when missing, emptied when present
  };

  enum class Origin : uint32_t { Begin, Current, End };

  // LastError after a read that found fewer bytes than asked for.
  static constexpr int kShortRead = -1;

  File() = default;
  ~File();
  File(const File&) = delete;
  File& operator=(const File&) = delete;
  File(File&& other) noexcept;
  File& operator=(File&& other) noexcept;

  // Closes any file already open first.
  bool Open(const std::string& path, Mode mode);
  // False (logged) only when the system reports an error while closing.
  bool Close();
  bool IsOpen() const { return fd_ >= 0; }
  const std::string& Path() const { return path_; }

  // Reads up to `size` bytes at the position, stopping early only at the end
  // of the file; `*got` receives the count (may be null).
  bool Read(void* data, size_t size, size_t* got);
  bool ReadAt(uint64_t offset, void* data, size_t size, size_t* got);
  // As above, but fewer than `size` bytes is a failure (kShortRead).
  bool ReadExact(void* data, size_t size);
  bool ReadAtExact(uint64_t offset, void* data, size_t size);

  // Writes all bytes (partial writes and interrupts are retried). Write moves
  // the position; WriteAt does not. Append writes at the end and leaves the
  // position there.
  bool Write(const void* data, size_t size);
  bool WriteAt(uint64_t offset, const void* data, size_t size);
  bool Append(const void* data, size_t size);

  bool Seek(int64_t offset, Origin origin = Origin::Begin);
  bool Tell(uint64_t& position);
  bool GetSize(uint64_t& size);
  // Sets the size; the position is left where it was.
  bool Truncate(uint64_t size);
  // Makes written bytes durable (fdatasync).
  bool Flush();

  // Takes an exclusive advisory lock, held until the file is closed. False
  // when another open file (in this process or another) holds it.
  bool TryLockExclusive();

  // The errno of the last failure (kShortRead for a short exact read).
  int LastError() const { return last_error_; }

 private:
  bool CheckOpen(uint32_t message);
  bool Fail(uint32_t message, int error, uint64_t value);
  bool ReadLoop(bool positioned, uint64_t offset, void* data, size_t size, size_t* got);
  bool WriteLoop(bool positioned, uint64_t offset, const void* data, size_t size);
  bool CurrentOffset(uint64_t& offset);

  int fd_ = -1;
  std::string path_;
  int last_error_ = 0;
};

}  // namespace Keel::OS
