#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tarn/synthetic/Random.h"
#include "tarn/synthetic/SyntheticCatalog.h"
#include "tarn/synthetic/SyntheticNetwork.h"

namespace Tarn::Tool {

struct User {
  std::string name;
  std::string domain;
  std::string sid;
  uint32_t uid = 0;
  uint32_t gid = 0;
  uint32_t dbuid = 0;
  bool linux_user = false;
};

// One running process. Identities are consistent: a pid is never held by
// two live processes of one pid space, and a child names its parent's pid,
// puid and start time.
struct Process {
  uint32_t pid = 0;
  uint32_t pid_space = 0;  // 0 on Windows; the pid namespace's inode on Linux
  uint64_t puid = 0;       // unique for the whole run
  int64_t start_ms = 0;
  uint32_t parent_pid = 0;
  uint64_t parent_puid = 0;
  int64_t parent_start_ms = 0;
  std::string parent_path;
  int program = 0;  // in Catalog::Programs()
  std::string path;
  std::string name;
  std::string command_line;
  std::vector<uint64_t> arg_offsets;  // where each argument starts
  std::string cwd;
  std::string container_id;
  int user = 0;
  uint32_t integrity = 0;
  uint32_t elevation = 0;
  bool boot = false;  // running since before the first event; never ends

  const Catalog::Program& Info() const { return Catalog::Programs()[program]; }
  bool IsLinux() const { return (Info().flags & Catalog::kLinux) != 0; }
  // A downloaded program: the suspicious part of the story.
  bool IsDropper() const { return (Info().flags & Catalog::kDropped) != 0; }
};

enum class Activity { kSpawn, kFile, kNetwork, kRegistry, kAny };

// The simulated endpoint: its users, the live process tree, its network and
// the files it drops. Everything is drawn from one seeded generator, so a
// seed gives the same world and the same story.
class World {
 public:
  World(uint64_t seed, int64_t start_ms);

  Random& random() { return random_; }

  // ---- Processes -----------------------------------------------------------
  // Starts a process (possibly one dropped earlier) and returns it.
  const Process& Spawn(int64_t time_ms);
  // Ends a process that is not part of the boot set; false when none can end.
  bool Terminate(Process& ended);
  // A live process, favouring those busy with `activity`; `linux` -1 any, 0
  // Windows only, 1 Linux only.
  const Process& Actor(Activity activity, int linux = -1);
  // A live process other than `not_this`, on the same side.
  const Process& Other(const Process& not_this);
  // The first live process of a name, or of a puid; null when none runs.
  const Process* Find(std::string_view name) const;
  const Process* FindByPuid(uint64_t puid) const;
  size_t LiveCount() const { return live_.size(); }
  bool NeedsSpawn() const { return live_.size() < kMinLive; }
  bool NeedsTerminate() const { return live_.size() > kMaxLive; }
  bool CanTerminate() const;

  // ---- Users -----------------------------------------------------------------
  const User& UserOf(const Process& process) const { return users_[process.user]; }
  const User& AnyUser(bool linux);
  const User& InteractiveUser() const { return users_[interactive_]; }
  const std::vector<User>& Users() const { return users_; }

  // ---- Network ---------------------------------------------------------------
  Network& network() { return network_; }
  const Network& network() const { return network_; }

  // ---- Files -----------------------------------------------------------------
  // A file `actor` plausibly touches.
  std::string FilePath(const Process& actor);
  // A path under a temporary or download folder where `actor` may leave an
  // executable; it is remembered, and a later Spawn may run it.
  std::string DropPath(const Process& actor);
  std::string Home(const User& user, bool linux) const;

  // ---- The endpoint ------------------------------------------------------------
  const std::string& Domain() const { return domain_; }         // "CORP"
  const std::string& DnsDomain() const { return dns_domain_; }  // "corp.example.com"
  const std::string& DomainSid() const { return domain_sid_; }  // "S-1-5-21-…"
  const std::string& ContainerId(size_t i) const { return containers_[i % containers_.size()]; }

  // Fills `{…}` placeholders of a program's argument template.
  std::string Expand(std::string_view text, const User& user, bool linux);
  // Hex digits of a stable hash of `key`: 32, 40 or 64 of them.
  static std::string Hex(std::string_view key, size_t digits);
  std::string Guid();

 private:
  static constexpr size_t kMinLive = 60;
  static constexpr size_t kMaxLive = 260;

  void MakeUsers();
  void Boot(int64_t start_ms);
  Process& Start(int program, const Process* parent, int64_t time_ms, int user);
  int ChildProgram(const Process& parent);
  int UserFor(int program, const Process* parent);
  uint32_t NewPid(const Process* parent, int program, uint32_t& pid_space);
  void SetCommandLine(Process& p, const User& user);
  std::string EncodedPowerShell();

  Random random_;
  Network network_;
  std::vector<User> users_;
  size_t interactive_ = 0;
  size_t admin_ = 0;
  size_t linux_person_ = 0;
  std::vector<Process> live_;
  std::vector<std::vector<int>> children_;  // per program
  uint64_t puid_counter_ = 0;
  uint32_t linux_next_pid_ = 300;
  std::vector<std::string> drops_;
  std::vector<std::string> containers_;
  std::string domain_;
  std::string dns_domain_;
  std::string domain_sid_;
};

}  // namespace Tarn::Tool
