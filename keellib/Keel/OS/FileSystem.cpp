#include "Keel/OS/FileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>

#include "Keel/Log.h"
#include "Keel/OS/FaultInjection.h"
#include "Keel/OS/Path.h"

namespace Keel::OS::FileSystem {
namespace {

enum Message : uint32_t {
  kCreateDirectoryFailed = 1,
  kNotADirectory = 2,
  kDeleteFailed = 3,
  kMoveFailed = 4,
  kDirectorySyncFailed = 5,
  kStatFailed = 6,
  kListFailed = 7,
};

thread_local int t_last_error = 0;

bool Fail(uint32_t message, int error) {
  t_last_error = error;
  KEEL_LOG(Log::Error, Log::FileSystem, message, error, 0, 0);
  return false;
}

// One mkdir; success when the directory is there afterwards.
bool MakeOne(const std::string& path) {
  if (::mkdir(path.c_str(), 0700) == 0) return true;
  int error = errno;
  if (error != EEXIST) return Fail(kCreateDirectoryFailed, error);
  if (!IsDirectory(path)) return Fail(kNotADirectory, ENOTDIR);
  return true;
}

// After a rename or a delete the name has changed either way: a failed sync
// only leaves its durability in doubt, which is logged.
void SyncDirectoryOf(const std::string& path) {
  std::string directory = Path::Directory(path);
  if (!SyncDirectory(directory.empty() ? "." : directory)) {
    KEEL_LOG(Log::Warning, Log::FileSystem, kDirectorySyncFailed, t_last_error, 0, 0);
  }
}

bool IsRegularFile(const std::string& directory, const dirent& entry) {
  if (entry.d_type == DT_REG) return true;
  if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return false;
  struct stat info;
  return ::stat(Path::Join(directory, entry.d_name).c_str(), &info) == 0 && S_ISREG(info.st_mode);
}

}  // namespace

bool Exists(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0;
}

bool IsDirectory(const std::string& path) {
  struct stat info;
  return ::stat(path.c_str(), &info) == 0 && S_ISDIR(info.st_mode);
}

bool CreateDirectory(const std::string& path) {
  if (int error = Faults::Detail::Check(Faults::CreateDirectory, path)) {
    return Fail(kCreateDirectoryFailed, error);
  }
  if (path.empty()) return Fail(kCreateDirectoryFailed, ENOENT);
  if (IsDirectory(path)) return true;
  // Each prefix ending before a separator is a parent; "/" itself is skipped.
  for (size_t slash = path.find('/', 1); slash != std::string::npos;
       slash = path.find('/', slash + 1)) {
    if (path[slash - 1] == '/') continue;
    if (!MakeOne(path.substr(0, slash))) return false;
  }
  return path.back() == '/' || MakeOne(path);
}

bool DeleteFile(const std::string& path) {
  if (int error = Faults::Detail::Check(Faults::Delete, path)) return Fail(kDeleteFailed, error);
  if (::unlink(path.c_str()) != 0) {
    if (errno != ENOENT) return Fail(kDeleteFailed, errno);
    return true;
  }
  Faults::Detail::AfterDelete(path);
  SyncDirectoryOf(path);
  return true;
}

bool SyncDirectory(const std::string& directory) {
  if (int error = Faults::Detail::Check(Faults::SyncDirectory, directory)) {
    t_last_error = error;
    return false;
  }
  int fd = ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) {
    t_last_error = errno;
    return false;
  }
  int result = ::fsync(fd);
  t_last_error = result == 0 ? 0 : errno;
  ::close(fd);
  if (result != 0) return false;
  Faults::Detail::AfterDirectorySync(directory);
  return true;
}

bool MoveFile(const std::string& from, const std::string& to) {
  if (int error = Faults::Detail::Check(Faults::Move, from, to)) return Fail(kMoveFailed, error);
  if (::rename(from.c_str(), to.c_str()) != 0) return Fail(kMoveFailed, errno);
  Faults::Detail::AfterMove(from, to);
  SyncDirectoryOf(to);
  return true;
}

bool GetFileSize(const std::string& path, uint64_t& size) {
  if (int error = Faults::Detail::Check(Faults::Stat, path)) return Fail(kStatFailed, error);
  struct stat info;
  if (::stat(path.c_str(), &info) != 0) return Fail(kStatFailed, errno);
  size = static_cast<uint64_t>(info.st_size);
  return true;
}

bool ListDirectory(const std::string& directory, std::vector<std::string>& names) {
  names.clear();
  if (int error = Faults::Detail::Check(Faults::List, directory)) return Fail(kListFailed, error);
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) return Fail(kListFailed, errno);
  errno = 0;
  while (const dirent* entry = ::readdir(dir)) {
    if (IsRegularFile(directory, *entry)) names.emplace_back(entry->d_name);
    errno = 0;
  }
  int error = errno;
  ::closedir(dir);
  if (error != 0) {
    names.clear();
    return Fail(kListFailed, error);
  }
  std::sort(names.begin(), names.end());
  return true;
}

int LastError() { return t_last_error; }

}  // namespace Keel::OS::FileSystem
