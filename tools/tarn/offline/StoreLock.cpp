#include "tarn/offline/StoreLock.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include "Keel/OS/Path.h"
#include "manager/writer/StorageManager.h"
#include "tarn/cli/CommonOptions.h"

namespace Tarn::Tool {

StoreLock::Result StoreLock::Acquire(const std::string& directory, std::string& error) {
  Release();
  const std::string path =
      Keel::OS::Path::Join(directory, Storage::StorageManager::kLockFileName);
  if (!file_.Open(path, Keel::OS::File::Mode::OpenOrCreate)) {
    error = "cannot open " + path + ": " + std::strerror(file_.LastError());
    return Result::kError;
  }
  if (file_.TryLockExclusive()) return Result::kLocked;
  const int code = file_.LastError();
  file_.Close();
  if (code == EWOULDBLOCK) {
    error = "the store in " + directory + " is in use by another process (it holds " +
            Storage::StorageManager::kLockFileName +
            "); stop that process or wait for it to finish";
    return Result::kInUse;
  }
  error = "cannot lock " + path + ": " + std::strerror(code);
  return Result::kError;
}

// Closing the file lets the lock go.
void StoreLock::Release() { file_.Close(); }

bool StoreLock::AcquireClosed(const std::string& directory, const std::string& doing) {
  if (!std::filesystem::is_directory(directory)) {
    PrintError("there is no store in " + directory);
    return false;
  }
  std::string error;
  if (Acquire(directory, error) == Result::kLocked) return true;
  PrintError(error + "; " + doing);
  return false;
}

}  // namespace Tarn::Tool
