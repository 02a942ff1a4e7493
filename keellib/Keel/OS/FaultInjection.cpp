#include "Keel/OS/FaultInjection.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <map>
#include <set>
#include <mutex>
#include <vector>

namespace Keel::OS::Faults {
namespace Detail {
std::atomic<uint32_t> g_active{0};
}  // namespace Detail

namespace {

struct ActiveRule {
  int id;
  Rule rule;
  uint64_t matched = 0;
  uint64_t failed = 0;
};

// What a power cut brings a file back to.
struct Durable {
  bool existed = false;
  uint64_t size = 0;
  // Bytes below `size` are only copied once something is about to change
  // them, so appending to a large file costs nothing.
  bool has_content = false;
  std::string content;
};

struct State {
  std::mutex mutex;
  std::vector<ActiveRule> rules;
  int next_id = 1;
  bool tracking = false;
  std::map<std::string, Durable> durable;
  // Files created since their directory was last synced.
  std::set<std::string> unsynced_names;
};

State& GetState() {
  static State* state = new State();  // never destroyed: file operations may run at exit
  return *state;
}

void UpdateActive(const State& state) {
  Detail::g_active.store(!state.rules.empty() || state.tracking, std::memory_order_relaxed);
}

std::string ParentOf(const std::string& path) {
  size_t slash = path.find_last_of('/');
  if (slash == std::string::npos) return ".";
  return slash == 0 ? "/" : path.substr(0, slash);
}

// "a/b/" and "a/b" name one directory.
std::string WithoutTrailingSlash(std::string directory) {
  while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
  return directory.empty() ? "." : directory;
}

bool Contains(std::string_view path, const std::string& text) {
  return !path.empty() && path.find(text) != std::string_view::npos;
}

bool Matches(const Rule& rule, Operation operation, std::string_view path,
             std::string_view other_path) {
  if ((rule.operations & operation) == 0) return false;
  if (rule.path_contains.empty()) return true;
  return Contains(path, rule.path_contains) || Contains(other_path, rule.path_contains);
}

bool IsDue(const ActiveRule& active) {
  const Rule& rule = active.rule;
  if (active.matched < rule.nth) return false;
  return rule.times == Rule::kForever || active.matched - rule.nth < rule.times;
}

// Raw reads and writes: restoring and remembering must not meet the rules.
bool ReadPrefix(const std::string& path, uint64_t size, std::string& out) {
  int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  out.resize(size);
  uint64_t done = 0;
  while (done < size) {
    ssize_t n = ::pread(fd, out.data() + done, size - done, static_cast<off_t>(done));
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<uint64_t>(n);
  }
  ::close(fd);
  out.resize(done);
  return true;
}

void WriteAll(const std::string& path, const std::string& content) {
  int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) return;
  size_t done = 0;
  while (done < content.size()) {
    ssize_t n = ::write(fd, content.data() + done, content.size() - done);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    done += static_cast<size_t>(n);
  }
  ::close(fd);
}

void Restore(const std::string& path, const Durable& durable) {
  if (!durable.existed) {
    ::unlink(path.c_str());
  } else if (durable.has_content) {
    WriteAll(path, durable.content);
  } else {
    ::truncate(path.c_str(), static_cast<off_t>(durable.size));
  }
}

}  // namespace

int AddRule(const Rule& rule) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  int id = state.next_id++;
  state.rules.push_back(ActiveRule{id, rule});
  UpdateActive(state);
  return id;
}

bool RemoveRule(int id) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (auto it = state.rules.begin(); it != state.rules.end(); ++it) {
    if (it->id != id) continue;
    state.rules.erase(it);
    UpdateActive(state);
    return true;
  }
  return false;
}

void ClearRules() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.rules.clear();
  UpdateActive(state);
}

uint64_t MatchCount(int id) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (const ActiveRule& active : state.rules) {
    if (active.id == id) return active.matched;
  }
  return 0;
}

uint64_t FailCount(int id) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (const ActiveRule& active : state.rules) {
    if (active.id == id) return active.failed;
  }
  return 0;
}

void EnableCrashTracking(bool enable) {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.tracking = enable;
  state.durable.clear();
  state.unsynced_names.clear();
  UpdateActive(state);
}

void SimulatePowerCut() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  for (const auto& [path, durable] : state.durable) Restore(path, durable);
  for (const std::string& path : state.unsynced_names) ::unlink(path.c_str());
  state.durable.clear();
  state.unsynced_names.clear();
}

size_t PendingFiles() {
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  std::set<std::string> pending = state.unsynced_names;
  for (const auto& entry : state.durable) pending.insert(entry.first);
  return pending.size();
}

namespace Detail {

int Check(Operation operation, std::string_view path, std::string_view other_path,
          bool* short_write) {
  if (!Active()) return 0;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  const ActiveRule* firing = nullptr;
  for (ActiveRule& active : state.rules) {
    if (!Matches(active.rule, operation, path, other_path)) continue;
    ++active.matched;
    if (firing == nullptr && IsDue(active)) {
      ++active.failed;
      firing = &active;
    }
  }
  if (firing == nullptr) return 0;
  switch (firing->rule.kind) {
    case Eio:
      return EIO;
    case Enospc:
      return ENOSPC;
    case ShortWrite:
      if (short_write != nullptr) *short_write = true;
      return ENOSPC;
  }
  return EIO;
}

void BeforeChange(const std::string& path, uint64_t offset) {
  if (!Active()) return;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  if (!state.tracking) return;
  auto [it, inserted] = state.durable.try_emplace(path);
  Durable& durable = it->second;
  if (inserted) {
    struct stat info;
    durable.existed = ::stat(path.c_str(), &info) == 0;
    durable.size = durable.existed ? static_cast<uint64_t>(info.st_size) : 0;
    if (!durable.existed) state.unsynced_names.insert(path);
    // Opening an existing file without truncating it changes nothing.
    if (durable.existed && offset == kCreateOnly) {
      state.durable.erase(it);
      return;
    }
  }
  // Until now only bytes past the durable size changed, so the file still
  // holds the durable bytes below it.
  if (durable.existed && !durable.has_content && offset < durable.size) {
    durable.has_content = ReadPrefix(path, durable.size, durable.content);
  }
}

void AfterFlush(const std::string& path) {
  if (!Active()) return;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.durable.erase(path);
}

void AfterDelete(const std::string& path) {
  if (!Active()) return;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  state.durable.erase(path);
  state.unsynced_names.erase(path);
}

void AfterMove(const std::string& from, const std::string& to) {
  if (!Active()) return;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  auto node = state.durable.extract(from);
  state.durable.erase(to);
  if (!node.empty()) {
    node.key() = to;
    state.durable.insert(std::move(node));
  }
  for (ActiveRule& active : state.rules) {
    if (active.rule.follows_file && active.rule.path_contains == from) {
      active.rule.path_contains = to;
    }
  }
  if (!state.tracking) return;
  // A rename counts as durable at once, the name it gives included.
  state.unsynced_names.erase(from);
  state.unsynced_names.erase(to);
}

void AfterDirectorySync(const std::string& directory) {
  if (!Active()) return;
  State& state = GetState();
  std::lock_guard<std::mutex> lock(state.mutex);
  const std::string synced = WithoutTrailingSlash(directory);
  for (auto it = state.unsynced_names.begin(); it != state.unsynced_names.end();) {
    it = ParentOf(*it) == synced ? state.unsynced_names.erase(it) : std::next(it);
  }
}

}  // namespace Detail

}  // namespace Keel::OS::Faults
