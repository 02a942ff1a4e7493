#include "tarn/StoreLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

namespace Tarn::Tool {

StoreLock::Result StoreLock::Acquire(const std::string& directory, std::string& error) {
  Release();
  const std::string path = directory + "/storage.lock";
  fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    error = "cannot open " + path + ": " + std::strerror(errno);
    return Result::kError;
  }
  int result;
  do {
    result = ::flock(fd_, LOCK_EX | LOCK_NB);
  } while (result != 0 && errno == EINTR);
  if (result == 0) return Result::kLocked;
  int code = errno;
  ::close(fd_);
  fd_ = -1;
  if (code == EWOULDBLOCK) {
    error = "the store in " + directory +
            " is in use by another process (it holds storage.lock); "
            "stop that process or wait for it to finish";
    return Result::kInUse;
  }
  error = "cannot lock " + path + ": " + std::strerror(code);
  return Result::kError;
}

void StoreLock::Release() {
  if (fd_ < 0) return;
  ::flock(fd_, LOCK_UN);
  ::close(fd_);
  fd_ = -1;
}

}  // namespace Tarn::Tool
