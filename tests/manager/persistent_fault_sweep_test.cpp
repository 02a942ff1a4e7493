// Faults that stay. A workload of several runs (each on a new day: blocks
// written, a stop with a block left open, a start that takes it back, days
// evicted by the day limit) meets one fault at a time that lasts from one
// start over one or more runs and then clears: an unlink, a read, a size, an
// open or a rename of one file (the index, the shutdown file, the day file
// being written, an old day's file) that keeps failing, or a directory that
// cannot be listed. A fault that belongs to a file follows it when
// it is moved, as a bad sector or another program's lock would.
//
// While the fault lasts, every start, flush and stop must succeed: the store
// keeps storing. After it clears and a start, every event the store
// acknowledged reads back, or lies in a file the store set aside (for the
// recover tool), or belongs to a day the day limit evicted; the store counts
// exactly the bytes its files hold on disk.
//
// TARN_PERSISTENT_LONG=1 starts each fault at every run where its file
// exists and lets it last every length (by hand).

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "Keel/OS/FaultInjection.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "manager/format/DayFileReader.h"
#include "manager/format/FinalFile.h"
#include "manager/format/StorageHelper.h"
#include "manager/index/Index.h"
#include "manager/reader/EventStorageProvider.h"
#include "manager/writer/StorageManager.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace Tarn::Storage {
namespace {

namespace Faults = Keel::OS::Faults;
using tarn::test::EpochOf;

constexpr uint16_t kFirstDay = 9000;
// Two runs a day, so that a run may start on a day whose file exists.
constexpr uint32_t kRuns = 8;

uint16_t DayOf(uint32_t run) { return static_cast<uint16_t>(kFirstDay + run / 2); }

Settings SweepSettings() {
  Settings s = Settings::default_();
  s.block_buffer_size = 102'400;
  s.max_days = 3;
  return s;
}

// Which file a fault belongs to. The day being written is the file of the
// day the run starts on, which a run before created.
enum class Target { kIndex, kFinal, kDayBeingWritten, kOldestDay, kDirectory };

struct Fault {
  Target target;
  uint32_t operations;
  uint32_t first_run;  // the run whose start meets it first
  uint32_t runs;       // how many runs it lasts
  std::string Describe() const {
    static const char* const kTargets[] = {"index", "shutdown file", "day being written",
                                           "oldest day", "directory"};
    static const char* const kOperations[] = {"open",   "read",     "write", "flush",
                                              "truncate", "unlink", "rename", "mkdir",
                                              "lock",   "list",     "size",  "directory sync"};
    std::string op;
    for (uint32_t bit = 0; bit < 12; ++bit) {
      if (operations & (1u << bit)) op = kOperations[bit];
    }
    return op + " of the " + kTargets[static_cast<int>(target)] + " from run " +
           std::to_string(first_run) + " for " + std::to_string(runs) + " runs";
  }
};

struct Acknowledged {
  uint16_t day;
  bool acknowledged;
};

class Workload {
 public:
  Workload(const std::string& directory, std::vector<std::string>& problems)
      : directory_(directory), problems_(problems) {}

  // Runs the workload with `fault` on.
  void Run(const Fault& fault) {
    for (uint32_t run = 0; run < kRuns; ++run) {
      const uint16_t day = DayOf(run);
      if (run == fault.first_run) rule_ = Faults::AddRule(RuleFor(fault, day));
      const bool during = rule_ != 0;
      second_ = 100 + (run % 2) * 10'000;
      clock_.SetDay(day, second_);
      StorageManager manager;
      if (!manager.Create(SweepSettings(), &clock_, 0, directory_.c_str())) {
        problems_.push_back("run " + std::to_string(run) + ": the store does not start");
        return;
      }
      Add(manager, 60, day);
      Settle(manager.Flush(), run, "a flush", during);
      Add(manager, 60, day);
      Settle(manager.Flush(), run, "a flush", during);
      Add(manager, 10, day);
      Settle(manager.Stop(), run, "the stop", during);
      if (run + 1 == fault.first_run + fault.runs && rule_ != 0) {
        failed_operations_ += Faults::FailCount(rule_);
        Faults::RemoveRule(rule_);
        rule_ = 0;
      }
    }
  }

  const std::map<uint32_t, Acknowledged>& events() const { return events_; }
  uint64_t failed_operations() const { return failed_operations_; }

 private:
  Faults::Rule RuleFor(const Fault& fault, uint16_t day) const {
    Faults::Rule rule;
    rule.operations = fault.operations;
    rule.times = Faults::Rule::kForever;
    rule.follows_file = true;
    switch (fault.target) {
      case Target::kIndex:
        rule.path_contains = directory_ + "/" + Index::FILENAME;
        break;
      case Target::kFinal:
        rule.path_contains = directory_ + "/" + Utils::kFinalFileName;
        break;
      case Target::kDayBeingWritten:
        rule.path_contains = directory_ + "/" + Utils::DayFileName(day, 2);
        break;
      case Target::kOldestDay:
        rule.path_contains = directory_ + "/" + Utils::DayFileName(kFirstDay, 2);
        break;
      case Target::kDirectory:
        rule.path_contains = directory_;
        rule.follows_file = false;
        break;
    }
    return rule;
  }

  void Add(StorageManager& manager, uint32_t count, uint16_t day) {
    for (uint32_t i = 0; i < count; ++i) {
      clock_.SetDay(day, ++second_);
      std::vector<uint8_t> record = tarn::test::MakeEvent(next_tag_, 1'900);
      Events::Objects::Base event(record.data(), record.size());
      if (manager.AddEvent(event)) {
        events_[next_tag_] = {day, false};
        pending_.push_back(next_tag_);
      }
      ++next_tag_;
    }
  }

  void Settle(bool ok, uint32_t run, const char* what, bool during) {
    if (!ok) {
      problems_.push_back("run " + std::to_string(run) + ": " + what + " fails" +
                          (during ? " while the fault lasts" : ""));
    }
    for (uint32_t tag : pending_) events_[tag].acknowledged = ok;
    pending_.clear();
  }

  std::string directory_;
  std::vector<std::string>& problems_;
  tarn::test::FakeClock clock_;
  std::map<uint32_t, Acknowledged> events_;
  std::vector<uint32_t> pending_;
  uint32_t next_tag_ = 0;
  uint32_t second_ = 0;
  int rule_ = 0;
  uint64_t failed_operations_ = 0;
};

// The events in the files the store set aside, and their bytes.
std::set<uint32_t> AsideEvents(const std::string& directory, uint64_t& bytes) {
  std::set<uint32_t> tags;
  bytes = 0;
  for (const auto& entry : std::filesystem::directory_iterator(directory)) {
    const std::string name = entry.path().filename().string();
    const std::string original = Utils::NameBeforeAside(name);
    if (original.empty() || original == Index::FILENAME) continue;
    bytes += entry.file_size();
    Keel::Collections::Buffer raw;
    uint32_t table_offset = 0, count = 0;
    uint16_t day = 0;
    auto collect = [&tags](const RawBlockView& view) {
      for (uint32_t i = 0; i < view.EventCount(); ++i) {
        const uint8_t* data = nullptr;
        uint32_t size = 0;
        if (view.Event(i, data, size)) tags.insert(tarn::test::TagOf({data, data + size}));
      }
    };
    if (original == Utils::kFinalFileName) {
      if (ReadFinalFile(entry.path().string(), raw, table_offset, count, day) ==
          FinalFileState::Ok) {
        collect(RawBlockView(raw.Data(), static_cast<uint32_t>(raw.Size()), table_offset));
      }
      continue;
    }
    DayFileReader reader;
    DayFileCheck check;
    std::vector<FileSpan> spans;
    if (!reader.Open(entry.path().string(), check) || !reader.Chart({}, spans)) continue;
    reader.DecodeSpans(spans, [&](const WalkedBlock& block) {
      if (block.decoded) collect(block.view);
      return true;
    });
  }
  return tags;
}

// The store after the fault cleared, held against what it acknowledged.
void Check(const std::string& directory, const Workload& workload,
           std::vector<std::string>& problems, uint64_t& lost) {
  tarn::test::FakeClock clock(EpochOf(DayOf(kRuns - 1), 80'000));
  StorageManager manager;
  if (!manager.Create(SweepSettings(), &clock, 0, directory.c_str())) {
    return problems.push_back("the store does not start once the fault cleared");
  }
  EventStorageProvider reader(manager, manager.telemetry());
  if (!reader.Create()) return problems.push_back("the reader does not start");
  std::set<uint32_t> read;
  Events::GenericEventHolder holder;
  for (uint64_t p = reader.GetFirstIterVal(); p != RawIterator::Invalid; reader.Increment(p)) {
    if (!reader.GetEvent(p, &holder)) return problems.push_back("a position does not read");
    const uint32_t tag = tarn::test::TagOf({holder.Data(), holder.Data() + holder.Size()});
    if (!read.insert(tag).second) problems.push_back("event " + std::to_string(tag) + " twice");
    if (workload.events().count(tag) == 0) problems.push_back("an event nobody stored reads");
  }
  uint64_t aside_bytes = 0;
  const std::set<uint32_t> aside = AsideEvents(directory, aside_bytes);
  // The day limit evicts the oldest days; set-aside files wait for the
  // recover tool whatever their day.
  uint16_t oldest = 0xFFFF;
  for (uint32_t tag : read) oldest = std::min(oldest, workload.events().at(tag).day);
  for (const auto& [tag, event] : workload.events()) {
    if (!event.acknowledged || read.count(tag) != 0 || aside.count(tag) != 0) continue;
    if (event.day >= oldest && ++lost == 1) {
      problems.push_back("acknowledged event " + std::to_string(tag) + " of day " +
                         std::to_string(event.day) + " is lost");
    }
  }
  const uint64_t on_disk = tarn::test::DayFileBytes(directory) + aside_bytes;
  if (manager.TotalOnDiskSize() != on_disk) {
    problems.push_back("the store counts " + std::to_string(manager.TotalOnDiskSize()) +
                       " bytes where its files hold " + std::to_string(on_disk));
  }
}

bool LongMode() {
  const char* text = std::getenv("TARN_PERSISTENT_LONG");
  return text != nullptr && std::atoi(text) > 0;
}

TEST(PersistentFaultSweep, StoringGoesOnAndNothingReadableIsLost) {
  using Op = Faults::Operation;
  const std::vector<std::pair<Target, std::vector<uint32_t>>> kinds = {
      {Target::kIndex, {Op::Open, Op::Read, Op::Stat, Op::Move}},
      {Target::kFinal, {Op::Open, Op::Read, Op::Stat, Op::Delete, Op::Move}},
      {Target::kDayBeingWritten, {Op::Open, Op::Read, Op::Stat, Op::Delete}},
      {Target::kOldestDay, {Op::Open, Op::Read, Op::Stat, Op::Delete}},
      // A directory that cannot be synced makes no new file durable: blocks
      // of a new day cannot be acknowledged then, so it is not swept here.
      {Target::kDirectory, {Op::List}},
  };
  std::vector<uint32_t> starts = {1, 3};
  std::vector<uint32_t> lengths = {1, 3};
  if (LongMode()) {
    starts = {0, 1, 2, 3, 4, 5, 6, 7};
    lengths = {1, 2, 3, 4, 5, 6, 7};
  }
  uint32_t cases = 0, restarts = 0, failed = 0;
  uint64_t faulty_runs = 0, failed_operations = 0, lost = 0;
  for (const auto& [target, operations] : kinds) {
    for (uint32_t operation : operations) {
      for (uint32_t first : starts) {
        for (uint32_t length : lengths) {
          if (first + length > kRuns) continue;
          // A fault that belongs to a file needs the file: a day's file
          // exists from the day's first run on.
          if (target == Target::kDayBeingWritten && first % 2 == 0) continue;
          if (target == Target::kOldestDay && first == 0) continue;
          const Fault fault{target, operation, first, length};
          tarn::test::TempDir dir;
          std::vector<std::string> problems;
          Workload workload(dir.path(), problems);
          workload.Run(fault);
          Faults::ClearRules();
          if (problems.empty()) Check(dir.path(), workload, problems, lost);
          ++cases;
          restarts += kRuns + 1;
          faulty_runs += length;
          failed_operations += workload.failed_operations();
          for (const std::string& problem : problems) {
            if (++failed <= 40) ADD_FAILURE() << fault.Describe() << ": " << problem;
          }
        }
      }
    }
  }
  std::printf("persistent-fault sweep: %u faults, %llu runs with a fault, %llu operations "
              "failed, %u restarts, acknowledged events lost: %llu, failures: %u\n",
              cases, static_cast<unsigned long long>(faulty_runs),
              static_cast<unsigned long long>(failed_operations), restarts,
              static_cast<unsigned long long>(lost), failed);
  EXPECT_EQ(failed, 0u);
}

}  // namespace
}  // namespace Tarn::Storage
