#include "tarn/synthetic/Synthetic.h"

#include <google/protobuf/message.h>

#include <algorithm>
#include <cmath>
#include <string>

#include "generated/SyntheticPlan.h"
#include "tarn/synthetic/SyntheticColumns.h"

namespace Tarn::Tool {
namespace {

using Storage::OSQuery::TableInfo;

constexpr int64_t kHourMs = 3'600'000;

// Activity by hour of the day (UTC, taken as the endpoint's local time):
// quiet at night, busy in office hours.
constexpr double kHourOfDay[24] = {0.15, 0.12, 0.1,  0.1,  0.1,  0.15, 0.3, 0.6,
                                   1.0,  1.0,  1.0,  1.0,  0.8,  1.0,  1.0, 1.0,
                                   1.0,  0.7,  0.45, 0.35, 0.35, 0.3,  0.2, 0.2};
constexpr double kWeekend = 0.35;

// A factor between 1 - spread and 1 + spread, fixed by the seed and `key`.
double Jitter(uint64_t seed, int64_t key, double spread) {
  uint64_t h = HashOf(std::to_string(key), seed);
  return 1 - spread + 2 * spread * static_cast<double>(h >> 11) * 0x1.0p-53;
}

// No two days or hours are alike: each gets its own share of noise.
double HourWeight(uint64_t seed, int64_t hour) {
  int64_t day = hour / 24;
  int weekday = static_cast<int>((day + 4) % 7);  // 1970-01-01 was a Thursday; 0 is Sunday
  double weight = kHourOfDay[hour % 24] * Jitter(seed, day, 0.2) * Jitter(seed ^ 1, hour, 0.15);
  return weekday == 0 || weekday == 6 ? weight * kWeekend : weight;
}

std::string Parent(const std::string& path) {
  size_t slash = path.find_last_of("\\/");
  return slash == std::string::npos || slash == 0 ? path : path.substr(0, slash);
}

// The path with `prefix` before its last part: "C:\\a\\b" -> "C:\\a\\old_b".
std::string Renamed(const std::string& path, std::string_view prefix) {
  size_t slash = path.find_last_of("\\/");
  size_t cut = slash == std::string::npos ? 0 : slash + 1;
  return path.substr(0, cut) + std::string(prefix) + path.substr(cut);
}

bool Downloads(const Process& p) {
  return p.name == "chrome.exe" || p.name == "OUTLOOK.EXE" || p.name == "powershell.exe" ||
         p.name == "curl" || p.name == "wget";
}

}  // namespace

SyntheticEvents::SyntheticEvents(const SyntheticOptions& options)
    : options_(options),
      world_(std::make_unique<World>(options.seed, options.start_ms)),
      filler_(std::make_unique<ColumnFiller>(*world_)) {
  std::vector<double> weights;
  for (const Plan::Table& plan : Plan::Tables()) {
    if (plan.story == Plan::Story::kSpawn) spawn_table_ = weights.size();
    if (plan.story == Plan::Story::kTerminate) terminate_table_ = weights.size();
    weights.push_back(plan.weight);
  }
  table_choice_ = WeightedChoice(weights);
  first_hour_ = options_.start_ms / kHourMs;
  int64_t last_hour =
      options_.end_ms > options_.start_ms ? (options_.end_ms - 1) / kHourMs : first_hour_ - 1;
  cumulative_hour_weight_.push_back(0);
  for (int64_t hour = first_hour_; hour <= last_hour; ++hour) {
    int64_t begin = std::max(hour * kHourMs, options_.start_ms);
    int64_t end = std::min((hour + 1) * kHourMs, options_.end_ms);
    double share = static_cast<double>(end - begin) / kHourMs;
    cumulative_hour_weight_.push_back(cumulative_hour_weight_.back() +
                                      HourWeight(options_.seed, hour) * share);
  }
  hour_ = first_hour_ - 1;
}

SyntheticEvents::~SyntheticEvents() = default;

void SyntheticEvents::PlanHour() {
  // Each hour gets its share of the events by its weight; rounding the
  // running total keeps the sum exact.
  times_.clear();
  next_time_ = 0;
  ++hour_;
  size_t i = static_cast<size_t>(hour_ - first_hour_);
  if (i + 1 >= cumulative_hour_weight_.size()) return;
  const double total = cumulative_hour_weight_.back();
  const double n = static_cast<double>(options_.events);
  uint64_t upto = static_cast<uint64_t>(std::llround(n * cumulative_hour_weight_[i + 1] / total));
  uint64_t count = upto - planned_;
  planned_ = upto;
  int64_t begin = std::max(hour_ * kHourMs, options_.start_ms);
  int64_t end = std::min((hour_ + 1) * kHourMs, options_.end_ms);
  Random& random = world_->random();
  for (uint64_t k = 0; k < count; ++k) {
    times_.push_back(begin +
                     static_cast<int64_t>(random.Below(static_cast<uint64_t>(end - begin))));
  }
  std::sort(times_.begin(), times_.end());
}

bool SyntheticEvents::NextTime(int64_t& time_ms) {
  while (next_time_ >= times_.size()) {
    if (static_cast<size_t>(hour_ - first_hour_ + 1) + 1 >= cumulative_hour_weight_.size()) {
      return false;
    }
    PlanHour();
  }
  time_ms = times_[next_time_++];
  return true;
}

const TableInfo& SyntheticEvents::ChooseTable() {
  auto tables = Storage::OSQuery::AllTables();
  size_t index = table_choice_.Pick(world_->random());
  // Keep the process count where an endpoint has it.
  const Plan::Story story = Plan::Tables()[index].story;
  if ((world_->NeedsSpawn() || !world_->CanTerminate()) && story == Plan::Story::kTerminate) {
    index = spawn_table_;
  } else if (world_->NeedsTerminate() && story == Plan::Story::kSpawn) {
    index = terminate_table_;
  }
  return tables[index];
}

const google::protobuf::Message* SyntheticEvents::Next() {
  int64_t time_ms = 0;
  if (made_ >= options_.events || !NextTime(time_ms)) return nullptr;
  ++made_;
  return Make(ChooseTable(), time_ms, false);
}

const google::protobuf::Message* SyntheticEvents::Sample(const TableInfo& table, int64_t time_ms) {
  return Make(table, time_ms, true);
}

const google::protobuf::Message* SyntheticEvents::Make(const TableInfo& table, int64_t time_ms,
                                                       bool every_column) {
  google::protobuf::Message* row = rows_.Blank(table.name);
  if (row == nullptr) return nullptr;
  EventContext context;
  context.time_ms = time_ms;
  context.every_column = every_column;
  context.list_items = every_column ? 2 : 1 + static_cast<uint32_t>(world_->random().Below(2));
  // The plans are written from the same schema as the tables, in its order.
  const Plan::Table& plan =
      Plan::Tables()[static_cast<size_t>(&table - Storage::OSQuery::AllTables().data())];
  Prepare(plan, context);
  filler_->Fill(plan, *row, context);
  return row;
}

void SyntheticEvents::Prepare(const Plan::Table& plan, EventContext& c) {
  World& w = *world_;
  Random& r = w.random();
  auto act = [&](const Process& p) {
    actor_ = p;
    c.actor = &actor_;
  };
  auto other = [&](const Process& p) {
    other_ = p;
    c.other = &other_;
  };
  auto named = [&](std::string_view name, Activity fallback, int linux) -> const Process& {
    const Process* p = w.Find(name);
    return p != nullptr ? *p : w.Actor(fallback, linux);
  };
  auto has = [&](Plan::Option o) { return (plan.options & o) != 0; };

  switch (plan.story) {
    case Plan::Story::kSpawn: act(w.Spawn(c.time_ms)); return;
    case Plan::Story::kTerminate:
      if (!w.Terminate(actor_)) act(w.Actor(Activity::kAny));  // ChooseTable rules this out
      c.actor = &actor_;
      // Most processes end on their own; some are ended by another.
      if (r.Chance(0.8)) {
        other(actor_);
      } else {
        other(w.Actor(Activity::kSpawn, actor_.IsLinux() ? 1 : 0));
      }
      return;
    case Plan::Story::kRemoteFile:
      act(named("System", Activity::kFile, 0));
      c.peer = w.network().PeerFor("SMB", actor_);
      c.inbound = true;
      c.local_port = w.network().EphemeralPort(false);
      c.connection_id = w.network().NewConnectionId();
      c.file = "C:\\Shares\\Projects\\" + std::string(r.Pick(Catalog::DocumentNames())) + ".docx";
      c.file2 = Renamed(c.file, "Archive\\");
      c.user = &w.AnyUser(false);
      return;
    case Plan::Story::kFile:
      act(w.Actor(Activity::kFile));
      c.file = w.FilePath(actor_);
      if (has(Plan::kMayDrop) && Downloads(actor_) && r.Chance(0.03)) c.file = w.DropPath(actor_);
      if (has(Plan::kDirectory)) c.file = Parent(c.file);
      if (!plan.fixed_file.empty()) c.file = std::string(plan.fixed_file);
      c.file2 = has(Plan::kCopy) ? c.file + ".bak" : Renamed(c.file, "old_");
      other(w.Other(actor_));
      return;
    case Plan::Story::kNetwork:
    case Plan::Story::kDisconnect: PrepareNetwork(plan, c); return;
    case Plan::Story::kRegistry:
      act(w.Actor(Activity::kRegistry, 0));
      c.key = std::string(r.Pick(Catalog::RegistryKeys()));
      if (actor_.IsDropper()) c.key = "HKCU\\Software\\Microsoft\\Windows\\CurrentVersion\\Run";
      return;
    case Plan::Story::kModuleLoad:
      act(w.Actor(Activity::kAny));
      c.file = actor_.IsLinux()
                   ? std::string(r.Pick(Catalog::LinuxLibraries()))
                   : "C:\\Windows\\System32\\" + std::string(r.Pick(Catalog::SystemDlls()));
      return;
    case Plan::Story::kDriverLoad:
      act(named("System", Activity::kAny, 0));
      c.file = "C:\\Windows\\System32\\drivers\\" + std::string(r.Pick(Catalog::Words())) + ".sys";
      return;
    case Plan::Story::kService:
      act(named("services.exe", Activity::kAny, 0));
      c.name = std::string(r.Pick(Catalog::ServiceNames()));
      c.file2 = "C:\\Windows\\System32\\svchost.exe -k " + c.name;
      return;
    case Plan::Story::kTask:
      act(named("svchost.exe", Activity::kAny, 0));
      c.name = std::string(r.Pick(Catalog::TaskNames()));
      c.file2 = "C:\\Program Files\\Example\\" + std::string(r.Pick(Catalog::Words())) + ".exe";
      return;
    case Plan::Story::kAccount:
      act(named("lsass.exe", Activity::kAny, 0));
      c.user = r.Chance(0.6) ? &w.InteractiveUser() : &w.AnyUser(false);
      c.other_user = &w.AnyUser(false);
      c.peer = r.Chance(0.8) ? w.network().PeerFor("LDAP", actor_) : w.network().RarePeer();
      return;
    case Plan::Story::kDocker:
      act(named("dockerd", Activity::kAny, 1));
      other(named("bash", Activity::kSpawn, 1));
      c.name = w.ContainerId(r.Below(3));
      return;
    case Plan::Story::kShell:
    case Plan::Story::kLog:
      act(plan.story == Plan::Story::kLog ? named("sshd", Activity::kAny, 1)
                                          : w.Actor(Activity::kSpawn, 1));
      c.peer = w.network().PeerFor("SSH", actor_);
      return;
    case Plan::Story::kAmsi:
      act(named("powershell.exe", Activity::kAny, 0));
      c.peer = w.network().RarePeer();
      return;
    case Plan::Story::kSamba:
      act(named("sshd", Activity::kAny, 1));
      c.name = "projects";
      c.file = "/srv/samba/projects";
      return;
    case Plan::Story::kHardware:
      act(named("System", Activity::kAny, 0));
      c.name = "SanDisk Ultra USB 3.0";
      return;
    case Plan::Story::kApiCall:
      act(w.Actor(Activity::kAny, 0));
      c.name = std::string(r.Pick(Catalog::ApiNames()));
      other(w.Other(actor_));
      return;
    case Plan::Story::kOther:
      act(w.Actor(Activity::kAny));
      other(w.Other(actor_));
      c.other_user = &w.AnyUser(false);
      c.peer = w.network().PeerFor("SMB", actor_);
      if (has(Plan::kNamesRule)) c.name = "Allow " + actor_.name;
      return;
  }
}

void SyntheticEvents::PrepareNetwork(const Plan::Table& plan, EventContext& c) {
  World& w = *world_;
  Random& r = w.random();
  auto act = [&](const Process& p) {
    actor_ = p;
    c.actor = &actor_;
  };
  auto has = [&](Plan::Option o) { return (plan.options & o) != 0; };
  if (plan.story == Plan::Story::kDisconnect) {
    Connection open;
    if (w.network().CloseConnection(open)) {
      const Process* owner = w.FindByPuid(open.puid);  // live: connections end with their process
      act(owner != nullptr ? *owner : w.Actor(Activity::kNetwork));
      c.peer = open.peer;
      c.local_port = open.local_port;
      c.connection_id = open.id;
      return;
    }
  }
  // Protocol tables talk to the server of their protocol, from the program
  // that speaks it.
  const std::string_view protocol = plan.protocol;
  if (protocol == "Kerberos" || protocol == "LDAP") {
    const Process* lsass = w.Find("lsass.exe");
    act(lsass != nullptr && r.Chance(0.7) ? *lsass : w.Actor(Activity::kNetwork, 0));
  } else if (protocol == "SSH") {
    act(w.Actor(Activity::kNetwork, 1));
  } else if (protocol == "IMAPS") {
    const Process* outlook = w.Find("OUTLOOK.EXE");
    act(outlook != nullptr ? *outlook : w.Actor(Activity::kNetwork, 0));
  } else {
    act(w.Actor(Activity::kNetwork));
  }
  if (has(Plan::kRarePeer)) {
    c.peer = w.network().RarePeer();
  } else {
    c.peer =
        protocol.empty() ? w.network().PickPeer(actor_) : w.network().PeerFor(protocol, actor_);
  }
  c.local_port = w.network().EphemeralPort(actor_.IsLinux());
  c.connection_id = w.network().NewConnectionId();
  c.inbound = has(Plan::kMayBeInbound) && r.Chance(0.5);
  if (has(Plan::kOpensConnection)) {
    w.network().OpenConnection({c.connection_id, actor_.puid, c.peer, c.local_port});
  }
  c.file = w.FilePath(actor_);
}

}  // namespace Tarn::Tool
