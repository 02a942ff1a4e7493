#include "Keel/OS/File.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <utility>

#include "Keel/Log.h"
#include "Keel/OS/FaultInjection.h"

namespace Keel::OS {
namespace {

enum Message : uint32_t {
  kNotOpen = 1,
  kOpenFailed = 2,
  kCloseFailed = 3,
  kReadFailed = 4,
  kReadTooShort = 5,
  kWriteFailed = 6,
  kSeekFailed = 7,
  kStatFailed = 8,
  kTruncateFailed = 9,
  kFlushFailed = 10,
  kLockHeld = 11,
  kLockFailed = 12,
};

int OpenFlags(File::Mode mode) {
  switch (mode) {
    case File::Mode::Read:
      return O_RDONLY;
    case File::Mode::ReadWrite:
      return O_RDWR;
    case File::Mode::OpenOrCreate:
      return O_RDWR | O_CREAT;
    case File::Mode::CreateTruncate:
      return O_RDWR | O_CREAT | O_TRUNC;
  }
  return O_RDONLY;
}

}  // namespace

File::~File() { Close(); }

File::File(File&& other) noexcept
    : fd_(std::exchange(other.fd_, -1)),
      path_(std::move(other.path_)),
      last_error_(std::exchange(other.last_error_, 0)) {}

File& File::operator=(File&& other) noexcept {
  if (this == &other) return *this;
  Close();
  fd_ = std::exchange(other.fd_, -1);
  path_ = std::move(other.path_);
  last_error_ = std::exchange(other.last_error_, 0);
  return *this;
}

bool File::Fail(uint32_t message, int error, uint64_t value) {
  last_error_ = error;
  KEEL_LOG(Log::Error, Log::File, message, error, value, 0);
  return false;
}

bool File::CheckOpen(uint32_t message) {
  if (fd_ >= 0) return true;
  last_error_ = EBADF;
  KEEL_LOG(Log::Error, Log::File, kNotOpen, message, 0, 0);
  return false;
}

bool File::Open(const std::string& path, Mode mode) {
  Close();
  path_ = path;
  if (int error = Faults::Detail::Check(Faults::Open, path)) {
    return Fail(kOpenFailed, error, static_cast<uint32_t>(mode));
  }
  if (mode == Mode::OpenOrCreate) Faults::Detail::BeforeChange(path, Faults::Detail::kCreateOnly);
  if (mode == Mode::CreateTruncate) Faults::Detail::BeforeChange(path, 0);
  int fd;
  do {
    fd = ::open(path.c_str(), OpenFlags(mode) | O_CLOEXEC, 0600);
  } while (fd < 0 && errno == EINTR);
  if (fd < 0) return Fail(kOpenFailed, errno, static_cast<uint32_t>(mode));
  fd_ = fd;
  return true;
}

bool File::Close() {
  if (fd_ < 0) return true;
  // The descriptor is gone even when close reports an error, so never retry.
  int result = ::close(std::exchange(fd_, -1));
  if (result != 0 && errno != EINTR) return Fail(kCloseFailed, errno, 0);
  return true;
}

bool File::CurrentOffset(uint64_t& offset) {
  off_t position = ::lseek(fd_, 0, SEEK_CUR);
  if (position < 0) return Fail(kSeekFailed, errno, 0);
  offset = static_cast<uint64_t>(position);
  return true;
}

bool File::ReadLoop(bool positioned, uint64_t offset, void* data, size_t size, size_t* got) {
  if (got != nullptr) *got = 0;
  if (!CheckOpen(kReadFailed)) return false;
  if (int error = Faults::Detail::Check(Faults::Read, path_)) {
    return Fail(kReadFailed, error, offset);
  }
  auto* out = static_cast<uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    ssize_t n = positioned ? ::pread(fd_, out + done, size - done, static_cast<off_t>(offset + done))
                           : ::read(fd_, out + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Fail(kReadFailed, errno, offset + done);
    if (n == 0) break;
    done += static_cast<size_t>(n);
  }
  if (got != nullptr) *got = done;
  return true;
}

bool File::Read(void* data, size_t size, size_t* got) {
  return ReadLoop(false, 0, data, size, got);
}

bool File::ReadAt(uint64_t offset, void* data, size_t size, size_t* got) {
  return ReadLoop(true, offset, data, size, got);
}

bool File::ReadExact(void* data, size_t size) {
  size_t got = 0;
  if (!Read(data, size, &got)) return false;
  if (got == size) return true;
  last_error_ = kShortRead;
  KEEL_LOG(Log::Warning, Log::File, kReadTooShort, size, got, 0);
  return false;
}

bool File::ReadAtExact(uint64_t offset, void* data, size_t size) {
  size_t got = 0;
  if (!ReadAt(offset, data, size, &got)) return false;
  if (got == size) return true;
  last_error_ = kShortRead;
  KEEL_LOG(Log::Warning, Log::File, kReadTooShort, size, got, offset);
  return false;
}

bool File::WriteLoop(bool positioned, uint64_t offset, const void* data, size_t size) {
  if (!CheckOpen(kWriteFailed)) return false;
  if (size == 0) return true;
  bool short_write = false;
  int injected = Faults::Detail::Check(Faults::Write, path_, {}, &short_write);
  if (injected != 0 && !short_write) return Fail(kWriteFailed, injected, size);
  if (short_write) size /= 2;
  if (Faults::Detail::Active()) {
    if (!positioned && !CurrentOffset(offset)) return false;
    Faults::Detail::BeforeChange(path_, offset);
  }
  const auto* in = static_cast<const uint8_t*>(data);
  size_t done = 0;
  while (done < size) {
    ssize_t n = positioned ? ::pwrite(fd_, in + done, size - done, static_cast<off_t>(offset + done))
                           : ::write(fd_, in + done, size - done);
    if (n < 0 && errno == EINTR) continue;
    if (n < 0) return Fail(kWriteFailed, errno, size - done);
    // A write that stores nothing without an error would loop forever.
    if (n == 0) return Fail(kWriteFailed, ENOSPC, size - done);
    done += static_cast<size_t>(n);
  }
  if (short_write) return Fail(kWriteFailed, injected, size);
  return true;
}

bool File::Write(const void* data, size_t size) { return WriteLoop(false, 0, data, size); }

bool File::WriteAt(uint64_t offset, const void* data, size_t size) {
  return WriteLoop(true, offset, data, size);
}

bool File::Append(const void* data, size_t size) {
  return Seek(0, Origin::End) && Write(data, size);
}

bool File::Seek(int64_t offset, Origin origin) {
  if (!CheckOpen(kSeekFailed)) return false;
  int whence = origin == Origin::Begin ? SEEK_SET : origin == Origin::Current ? SEEK_CUR : SEEK_END;
  if (::lseek(fd_, static_cast<off_t>(offset), whence) < 0) {
    return Fail(kSeekFailed, errno, static_cast<uint64_t>(offset));
  }
  return true;
}

bool File::Tell(uint64_t& position) {
  if (!CheckOpen(kSeekFailed)) return false;
  return CurrentOffset(position);
}

bool File::GetSize(uint64_t& size) {
  if (!CheckOpen(kStatFailed)) return false;
  if (int error = Faults::Detail::Check(Faults::Stat, path_)) return Fail(kStatFailed, error, 0);
  struct stat info;
  if (::fstat(fd_, &info) != 0) return Fail(kStatFailed, errno, 0);
  size = static_cast<uint64_t>(info.st_size);
  return true;
}

bool File::Truncate(uint64_t size) {
  if (!CheckOpen(kTruncateFailed)) return false;
  if (int error = Faults::Detail::Check(Faults::Truncate, path_)) {
    return Fail(kTruncateFailed, error, size);
  }
  Faults::Detail::BeforeChange(path_, size);
  int result;
  do {
    result = ::ftruncate(fd_, static_cast<off_t>(size));
  } while (result != 0 && errno == EINTR);
  if (result != 0) return Fail(kTruncateFailed, errno, size);
  return true;
}

bool File::Flush() {
  if (!CheckOpen(kFlushFailed)) return false;
  if (int error = Faults::Detail::Check(Faults::Flush, path_)) return Fail(kFlushFailed, error, 0);
  int result;
  do {
    result = ::fdatasync(fd_);
  } while (result != 0 && errno == EINTR);
  if (result != 0) return Fail(kFlushFailed, errno, 0);
  Faults::Detail::AfterFlush(path_);
  return true;
}

bool File::TryLockExclusive() {
  if (!CheckOpen(kLockFailed)) return false;
  if (int error = Faults::Detail::Check(Faults::Lock, path_)) return Fail(kLockFailed, error, 0);
  int result;
  do {
    result = ::flock(fd_, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return true;
  last_error_ = errno;
  if (last_error_ == EWOULDBLOCK) {
    // Another writer owns the store: expected, so only a warning.
    KEEL_LOG(Log::Warning, Log::File, kLockHeld, last_error_, 0, 0);
    return false;
  }
  return Fail(kLockFailed, last_error_, 0);
}

}  // namespace Keel::OS
