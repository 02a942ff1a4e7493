#include "Keel/OS/Path.h"

#include <cstdlib>
#include <mutex>

#include "Keel/Log.h"

namespace Keel::OS::Path {
namespace {

// Path records are filed under the file system component, above its own ids.
enum Message : uint32_t {
  kNoPersistentPath = 20,
};

constexpr std::string_view kPlaceholder = "${P}";

struct HostPath {
  std::mutex mutex;
  std::string path;
};

HostPath& GetHostPath() {
  static HostPath* host = new HostPath();  // never destroyed: read during exit
  return *host;
}

// An environment variable, or null when unset or empty.
const char* Variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? value : nullptr;
}

}  // namespace

std::string Join(std::string_view a, std::string_view b) {
  if (a.empty()) return std::string(b);
  if (b.empty()) return std::string(a);
  std::string out(a);
  bool a_slash = out.back() == '/';
  bool b_slash = b.front() == '/';
  if (a_slash && b_slash) {
    b.remove_prefix(1);
  } else if (!a_slash && !b_slash) {
    out.push_back('/');
  }
  out.append(b);
  return out;
}

std::string FileName(std::string_view path) {
  size_t slash = path.rfind('/');
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string Directory(std::string_view path) {
  size_t slash = path.rfind('/');
  if (slash == std::string_view::npos) return {};
  if (slash == 0) return "/";
  return std::string(path.substr(0, slash));
}

std::string GetPersistentPath() {
  {
    HostPath& host = GetHostPath();
    std::lock_guard<std::mutex> lock(host.mutex);
    if (!host.path.empty()) return host.path;
  }
  if (const char* path = Variable("TARN_PERSISTENT_PATH")) return path;
  if (const char* data = Variable("XDG_DATA_HOME")) return Join(data, "tarn");
  if (const char* home = Variable("HOME")) return Join(home, ".local/share/tarn");
  KEEL_LOG(Log::Error, Log::FileSystem, kNoPersistentPath, 0, 0, 0);
  return {};
}

void SetPersistentPath(std::string_view path) {
  HostPath& host = GetHostPath();
  std::lock_guard<std::mutex> lock(host.mutex);
  host.path.assign(path);
}

bool Expand(std::string_view path_template, std::string& out) {
  out.clear();
  size_t at = path_template.find(kPlaceholder);
  if (at == std::string_view::npos) {
    out.assign(path_template);
    return true;
  }
  std::string persistent = GetPersistentPath();
  if (persistent.empty()) return false;  // GetPersistentPath logged it
  size_t from = 0;
  for (; at != std::string_view::npos; at = path_template.find(kPlaceholder, from)) {
    out.append(path_template.substr(from, at - from));
    out.append(persistent);
    from = at + kPlaceholder.size();
  }
  out.append(path_template.substr(from));
  return true;
}

}  // namespace Keel::OS::Path
