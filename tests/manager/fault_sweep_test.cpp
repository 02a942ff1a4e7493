// Fault and power-cut sweeps of the writer. One fixed workload (several days,
// a size-limit and a day-limit eviction, blocks cut by size and by day, a
// stop with a half-filled block and a restart that takes it back) runs with
// the Nth file operation failing, for N = 1, 2, ... until a run completes
// without reaching N; in the crash sweep the process "dies" at the Nth
// operation instead (every later one fails and unflushed bytes are lost).
// After each run the store is checked as it lies on disk, restarted with no
// fault and checked again against a model of what it acknowledged.
//
// TARN_SWEEP_STRIDE=k sweeps every kth N only (CI runs every N);
// TARN_SWEEP_ONLY=N runs the one N a violation named.

#include <gtest/gtest.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <set>
#include <sstream>
#include <string>
#include <vector>

#include "Keel/OS/FaultInjection.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "manager/format/DayFile.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/format/EventsBlock.h"
#include "manager/index/Index.h"
#include "manager/format/StorageHelper.h"
#include "manager/writer/StorageManager.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

namespace Faults = Keel::OS::Faults;
using tarn::test::EpochOf;
using tarn::test::FakeClock;
using tarn::test::MakeEvent;
using tarn::test::TagOf;

constexpr uint16_t kOldDay = 9000;  // seeded: one block far into a sparse file
constexpr uint64_t kBudget = 52'428'800;
constexpr uint32_t kBlockSize = 102'400;
// The old day is this much below the budget, so the first blocks pass it.
constexpr uint64_t kOldDayHeadroom = 6'000;

Settings SweepSettings() {
  Settings s = Settings::default_();
  s.block_buffer_size = kBlockSize;
  s.max_storage_size = kBudget;
  s.max_days = 3;
  return s;
}

// What the store was told and what it answered, per event tag.
struct Model {
  enum State { kPending, kAcknowledged, kInDoubt };
  struct Event {
    uint16_t day;
    uint32_t second;
    State state;
  };
  std::map<uint32_t, Event> accepted;
  std::vector<uint32_t> pending;

  void Accept(uint32_t tag, uint16_t day, uint32_t second) {
    accepted[tag] = {day, second, kPending};
    pending.push_back(tag);
  }
  // A Flush or Stop answered: true makes every pending event durable.
  void Settle(bool ok) {
    for (uint32_t tag : pending) accepted[tag].state = ok ? kAcknowledged : kInDoubt;
    pending.clear();
  }
};

// Everything a failed check needs to say.
struct Verdict {
  std::vector<std::string> violations;
  void Fail(const std::string& invariant) { violations.push_back(invariant); }
};

class Workload {
 public:
  Workload(const std::string& directory, Model& model) : directory_(directory), model_(model) {}

  // Runs to the end whatever fails; a store that does not start ends it.
  void Run() {
    clock_.SetDay(kOldDay + 1, 100);
    if (!Open()) return;
    Add(130, 1000);  // more than one block: the first is cut by size
    Settle(manager_->Flush());
    clock_.SetDay(kOldDay + 2, 50);
    Add(20, 400);
    clock_.SetDay(kOldDay + 3, 70);  // the day change cuts the block
    Add(20, 400);
    Settle(manager_->Flush());
    clock_.SetDay(kOldDay + 4, 10);  // a fourth day: the oldest goes
    Add(20, 400);
    Settle(manager_->Flush());
    clock_.SetDay(kOldDay + 4, 20);
    Add(10, 400);  // left half-filled by the stop
    Settle(manager_->Stop());
    manager_.reset();
    clock_.SetDay(kOldDay + 4, 30);
    if (!Open()) return;  // takes the half-filled block back
    Add(5, 300);
    Settle(manager_->Flush());
    clock_.SetDay(kOldDay + 5, 40);
    Add(5, 300);
    Settle(manager_->Stop());
    manager_.reset();
  }

  // Drops the store without stopping it, as a dying process would.
  void Abandon() { manager_.reset(); }

  FakeClock& clock() { return clock_; }

 private:
  bool Open() {
    manager_ = std::make_unique<StorageManager>();
    if (manager_->Create(SweepSettings(), &clock_, 0, directory_.c_str())) return true;
    manager_.reset();
    return false;
  }
  void Add(uint32_t count, uint32_t size) {
    const TimeIndex now = ToTimeIndex(clock_.GetEpochTime());
    for (uint32_t i = 0; i < count; ++i) {
      std::vector<uint8_t> record = MakeEvent(next_tag_, size);
      Events::Objects::Base event(record.data(), record.size());
      if (manager_->AddEvent(event)) model_.Accept(next_tag_, now.day, now.second);
      ++next_tag_;
    }
  }
  void Settle(bool ok) { model_.Settle(ok); }

  std::string directory_;
  Model& model_;
  FakeClock clock_;
  std::unique_ptr<StorageManager> manager_;
  uint32_t next_tag_ = 1000;
};

// Day kOldDay: one block far into its file, so that the store starts just
// under its budget without writing 50 MiB. Its events are acknowledged.
void SeedOldDay(const std::string& directory, Model& model) {
  Keel::Collections::Buffer raw;
  Keel::Collections::Array<BlockEntry> entries;
  Keel::Collections::Buffer payload;
  ASSERT_TRUE(raw.Create(4096) && entries.Create(16) && payload.Create(8192));
  for (uint32_t tag = 0; tag < 5; ++tag) {
    std::vector<uint8_t> record = MakeEvent(tag, 200);
    entries.Add(BlockEntry{static_cast<uint32_t>(raw.Size()), 1000 + tag});
    ASSERT_TRUE(raw.Push(record.data(), record.size()));
    model.accepted[tag] = {kOldDay, 1000 + tag, Model::kAcknowledged};
  }
  EncodedBlock encoded;
  ASSERT_TRUE(EncodeBlock(raw, entries, payload, encoded));
  const uint64_t offset = kBudget - kOldDayHeadroom;
  Keel::OS::File file;
  ASSERT_TRUE(CreateDayFile(directory + "/" + Utils::DayFileName(kOldDay, 2), file));
  ASSERT_TRUE(WriteBlock(file, offset, encoded.header, payload));

  Index index;
  index.set_directory(directory);
  Settings settings = SweepSettings();
  ASSERT_TRUE(index.load(settings));
  DayInfo day;
  ASSERT_TRUE(day.Create());
  ASSERT_TRUE(day.AddBlock(BlockInfo{static_cast<uint32_t>(offset), 5, 1000, 1004, 2}));
  ASSERT_TRUE(index.tree().Insert(kOldDay, std::move(day)));
  ASSERT_TRUE(index.save(EpochOf(kOldDay, 1004)));
}

// The index as it lies on disk names only whole blocks.
void CheckIndexOnDisk(const std::string& directory, Verdict& verdict) {
  std::vector<tarn::test::StoredEvent> events;
  if (!tarn::test::ReadIndexedEvents(directory, events)) {
    verdict.Fail("the index names bytes that are not on disk");
  }
}

void CheckBudget(const std::string& directory, Verdict& verdict) {
  const uint64_t total = tarn::test::DayFileBytes(directory);
  if (total > kBudget + kBlockSize) {
    verdict.Fail("day files hold " + std::to_string(total) + " bytes, over the budget");
  }
}

// Restarts the store and reads every event back through the reader.
void CheckRestart(const std::string& directory, const Model& model, Verdict& verdict) {
  FakeClock clock(EpochOf(kOldDay + 6, 10));
  StorageManager manager;
  if (!manager.Create(SweepSettings(), &clock, 0, directory.c_str())) {
    return verdict.Fail("the store does not start");
  }
  EventStorageProvider reader(manager, manager.telemetry());
  if (!reader.Create()) return verdict.Fail("the reader does not start");

  std::set<uint32_t> seen;
  int64_t previous = 0;
  uint16_t oldest = 0xFFFF;
  Events::GenericEventHolder holder;
  uint64_t position = reader.GetFirstIterVal();
  for (bool more = position != RawIterator::Invalid; more; more = reader.Increment(position)) {
    if (!reader.GetEvent(position, &holder)) return verdict.Fail("a position does not read");
    std::vector<uint8_t> record(holder.Data(), holder.Data() + holder.Size());
    const uint32_t tag = TagOf(record);
    auto it = model.accepted.find(tag);
    if (it == model.accepted.end()) return verdict.Fail("an event nobody accepted is readable");
    if (!seen.insert(tag).second) verdict.Fail("event " + std::to_string(tag) + " reads twice");
    // In the order of the seconds the store recorded: a shutdown block
    // stored late is filed at its day's newest second.
    Keel::OS::DateTime recorded;
    if (!reader.GetTime(position, recorded) || recorded.ToSecondsSinceEpoch() < previous ||
        recorded.ToSecondsSinceEpoch() < int64_t(EpochOf(it->second.day, it->second.second))) {
      verdict.Fail("event " + std::to_string(tag) + " reads out of order");
    }
    previous = recorded.ToSecondsSinceEpoch();
    oldest = std::min(oldest, it->second.day);
  }
  // Eviction removes whole days, oldest first, never the newest day written.
  uint16_t newest_acknowledged = 0;
  for (const auto& [tag, event] : model.accepted) {
    if (event.state == Model::kAcknowledged) newest_acknowledged = std::max(newest_acknowledged, event.day);
  }
  for (const auto& [tag, event] : model.accepted) {
    if (event.state != Model::kAcknowledged || seen.count(tag) != 0) continue;
    if (event.day >= std::min(oldest, newest_acknowledged)) {
      verdict.Fail("acknowledged event " + std::to_string(tag) + " of day " +
                   std::to_string(event.day) + " is lost");
      break;
    }
  }
  // And it takes events again.
  std::vector<uint8_t> record = MakeEvent(999'999, 100);
  Events::Objects::Base event(record.data(), record.size());
  if (!manager.AddEvent(event) || !manager.Flush()) verdict.Fail("the store takes no event");
}

std::string Describe(const char* sweep, uint32_t n, const Verdict& verdict) {
  std::ostringstream text;
  text << sweep << " at operation " << n << ":";
  for (const std::string& v : verdict.violations) text << " [" << v << "]";
  return text.str();
}

struct SweepFigures {
  uint32_t runs = 0;
  uint64_t faults = 0;
  uint32_t violations = 0;
};

enum class Mode { kEio, kEnospc, kShortWrite, kPowerCut };

const char* ModeName(Mode mode) {
  static const char* const kNames[] = {"Eio", "Enospc", "ShortWrite", "PowerCut"};
  return kNames[static_cast<int>(mode)];
}

// One run with operation `n` failing (or the power cut there). False once a
// run completed without reaching `n`: the sweep is over.
bool RunOnce(Mode mode, uint32_t n, SweepFigures& figures, std::vector<std::string>& report) {
  tarn::test::TempDir dir;
  Model model;
  SeedOldDay(dir.path(), model);
  Faults::Rule rule;
  rule.path_contains = dir.path();
  rule.nth = n;
  rule.kind = mode == Mode::kEnospc ? Faults::Enospc
              : mode == Mode::kShortWrite ? Faults::ShortWrite : Faults::Eio;
  // A dead process touches nothing more.
  rule.times = mode == Mode::kPowerCut ? Faults::Rule::kForever : 1;
  if (mode == Mode::kPowerCut) Faults::EnableCrashTracking(true);
  const int id = Faults::AddRule(rule);
  {
    Workload workload(dir.path(), model);
    workload.Run();
    workload.Abandon();
  }
  const uint64_t failed = Faults::FailCount(id);
  Faults::ClearRules();
  if (mode == Mode::kPowerCut) {
    Faults::SimulatePowerCut();
    Faults::EnableCrashTracking(false);
  }
  if (failed == 0) return false;
  ++figures.runs;
  figures.faults += failed;

  Verdict verdict;
  CheckIndexOnDisk(dir.path(), verdict);
  CheckRestart(dir.path(), model, verdict);
  CheckBudget(dir.path(), verdict);
  if (!verdict.violations.empty()) {
    ++figures.violations;
    report.push_back(Describe(ModeName(mode), n, verdict));
  }
  return true;
}

uint32_t FromEnvironment(const char* name, uint32_t fallback) {
  const char* text = std::getenv(name);
  const int value = text != nullptr ? std::atoi(text) : 0;
  return value > 0 ? static_cast<uint32_t>(value) : fallback;
}

class FaultSweepTest : public ::testing::TestWithParam<Mode> {};

TEST_P(FaultSweepTest, EveryOperationFailingOrCutLosesNoAcknowledgedEvent) {
  SweepFigures figures;
  std::vector<std::string> report;
  const uint32_t only = FromEnvironment("TARN_SWEEP_ONLY", 0);
  const uint32_t stride = FromEnvironment("TARN_SWEEP_STRIDE", 1);
  for (uint32_t n = only != 0 ? only : 1; RunOnce(GetParam(), n, figures, report); n += stride) {
    if (only != 0) break;
  }
  for (const std::string& line : report) ADD_FAILURE() << line;
  std::printf("sweep figures: operations swept %u, faults injected %llu, violations %u\n",
              figures.runs, static_cast<unsigned long long>(figures.faults), figures.violations);
  if (only == 0) {
    EXPECT_GT(figures.runs, 100u) << "the workload reaches far more operations";
  }
}

INSTANTIATE_TEST_SUITE_P(Kinds, FaultSweepTest,
                         ::testing::Values(Mode::kEio, Mode::kEnospc, Mode::kShortWrite,
                                           Mode::kPowerCut),
                         [](const ::testing::TestParamInfo<Mode>& mode) {
                           return std::string(ModeName(mode.param));
                         });

}  // namespace
}  // namespace Tarn::Storage
