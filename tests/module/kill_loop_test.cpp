// kill -9 loop through the loaded module.
//
// Each cycle forks a child that loads libtarn_storage.so through Init, opens
// one store directory (small blocks, a generous size budget), reads back
// everything the store holds through IEventStorage and sends it to the
// parent, then feeds tagged events at a clock that crosses days, calling
// Flush after every batch. The parent SIGKILLs it at a random moment and the
// next cycle's child opens the same store. Every read-back is checked against
// what the children sent:
//   - every event acknowledged by a Flush is readable exactly once, and so is
//     every event a read-back after a restart has already shown, and every
//     event of a block that was whole in a day file (or in a whole
//     storage.final.db) when the child died;
//   - no event is readable twice; times never go back along the walk;
//   - nothing is readable that was never sent, and each record is the one sent.
// Events sent but not acknowledged may be lost, never duplicated. Some
// children stop the module cleanly with events in their open block (it goes
// to storage.final.db), some are killed while they start up, some just
// after a Flush that writes a new day's first block. A last child only reads,
// for the final figures.
//
// CTest runs 30 cycles. A long run, by hand:
//   TARN_KILL_CYCLES=200 build/bin/module_tests --gtest_filter='KillLoop*'
// TARN_KILL_SEED=<n> repeats a run's random choices (events, clock, batches,
// delays); where a kill lands in the child's work still depends on timing.
// A violation keeps the store, as the killed child and as the checking child
// left it, under $TMPDIR/tarn-kill-loop-<seed>-cycle<n>/.

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <iostream>
#include <map>
#include <new>
#include <random>
#include <string>
#include <vector>

#include "Keel/Collections/Buffer.h"
#include "Keel/OS/File.h"
#include "Keel/OS/Time.h"
#include "Tarn/Comm/IEventStorage.h"
#include "Tarn/Events/Base.h"
#include "Tarn/Events/GenericEventHolder.h"
#include "Tarn/Events/Record.h"
#include "Tarn/Module/EntryPoints.h"
#include "Tarn/Module/MapConfigReader.h"
#include "manager/format/DayFile.h"
#include "manager/format/EventsBlock.h"
#include "manager/format/StorageHelper.h"
#include "module/ConfigKeys.h"
#include "support/store_fixture.h"
#include "support/temp_dir.h"

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;
using Tarn::Comm::Interface::IEventStorage;
namespace Record = Tarn::Events::Record;

uint64_t Mix(uint64_t x) {  // splitmix64: the same stream on every platform
  x += 0x9E3779B97F4A7C15ull;
  x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ull;
  x = (x ^ (x >> 27)) * 0x94D049BB133111EBull;
  return x ^ (x >> 31);
}

struct Random {
  uint64_t state;
  uint64_t Below(uint64_t n) { return (state = Mix(state)) % n; }
};

uint64_t EnvOr(const char* name, uint64_t fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtoull(text, nullptr, 10) : fallback;
}

// Record of `tag` stamped with `ms`; its size follows from the run's seed.
std::vector<uint8_t> TaggedEvent(uint64_t run_seed, uint32_t tag, uint64_t ms) {
  std::vector<uint8_t> record = tarn::test::MakeEvent(tag, 40 + Mix(run_seed ^ tag) % 560);
  if (record.size() >= 24) Record::StoreUInt64(record.data() + Record::kTimeStampOffset, ms);
  return record;
}

// What a child tells the parent, through a pipe.
enum NoteKind : uint32_t {
  kRead = 1,      // one event of the read-back
  kBadRecord,     // an event that could not be read, or differs from the one sent
  kReady,         // read-back done; value: events read
  kRefused,       // HandleEvent refused an event
  kFlushMissing,  // after Flush, the last readable event is not the last one sent
  kWalkShort,     // Increment ended the walk before GetLastIterVal's position
  kOpenFailed,    // Init, Initialize or QueryInterface failed
  kStopFailed,
  kDayFlush,      // the Flush about to start writes a new day's first block
};

struct Note {
  uint32_t kind = 0;
  uint32_t tag = 0;
  uint64_t stamp_ms = 0;  // the record's time stamp
  uint64_t stored_s = 0;  // GetTime of its position; for kReady the count
  uint64_t position = 0;
};

// Progress that survives the child's death: a page both processes map.
struct Progress {
  std::atomic<uint64_t> handed;  // highest tag given to HandleEvent
  std::atomic<uint64_t> acked;   // highest tag a Flush (or a clean stop) returned after
};

struct Plan {
  uint32_t cycle = 0;
  uint64_t seed = 0;  // this cycle's random stream
  uint32_t first_tag = 1;
  uint64_t start_ms = 0, end_ms = 0;  // the clock's window
  uint32_t kill_ms = 0;  // after the read-back; after the start or a kDayFlush for those kills
  bool early_kill = false, read_only = false;
  bool day_kill = false;  // killed during the Flush of a new day's first block
  uint32_t stop_after = 0;  // nonzero: stop cleanly after this many batches
};

constexpr uint32_t kBlockBufferSize = 102'400;  // the smallest the settings allow
constexpr uint32_t kMaxBatch = 600;

std::atomic<uint64_t> g_child_ms{0};
uint64_t ChildClock() { return g_child_ms.load(); }

struct NoteWriter {
  int fd;
  void Put(uint32_t kind, uint32_t tag = 0, uint64_t stamp = 0, uint64_t stored = 0,
           uint64_t position = 0) {
    Note note{kind, tag, stamp, stored, position};
    const char* bytes = reinterpret_cast<const char*>(&note);
    for (size_t done = 0; done < sizeof note;) {
      ssize_t n = write(fd, bytes + done, sizeof note - done);
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) _exit(4);  // the parent is gone
      done += static_cast<size_t>(n);
    }
  }
};

[[noreturn]] void RunChild(const Plan& plan, uint64_t run_seed, const std::string& directory,
                           int out_fd, Progress* progress, pid_t parent) {
  prctl(PR_SET_PDEATHSIG, SIGKILL);  // no child outlives the test
  if (getppid() != parent) _exit(5);
  NoteWriter out{out_fd};
  g_child_ms = plan.start_ms;
  Keel::OS::Time::SetClockSource(&ChildClock);
  Tarn::Module::MapConfigReader config;
  namespace Keys = Tarn::Module::ConfigKeys;
  config.SetString(Keys::kStorageDirectory, directory);
  config.SetUInt32(Keys::kBlockBufferSize, kBlockBufferSize);
  config.SetUInt64(Keys::kMaxStorageSize, 8ull << 30);
  config.SetUInt32(Keys::kMaxDays, 511);

  void* library = dlopen(TARN_MODULE_PATH, RTLD_NOW | RTLD_LOCAL);
  auto symbol = [library](const char* name) { return library ? dlsym(library, name) : nullptr; };
  auto init = reinterpret_cast<Tarn::Module::InitFn>(symbol(Tarn::Module::kInitSymbol));
  auto uninit = reinterpret_cast<Tarn::Module::UninitFn>(symbol(Tarn::Module::kUninitSymbol));
  Tarn::Module::Interface* module = init ? init(nullptr) : nullptr;
  IEventStorage* storage = nullptr;
  if (module != nullptr && module->Initialize(nullptr, &config)) {
    storage = static_cast<IEventStorage*>(
        module->QueryInterface(Tarn::Module::Interface::kEventStorageId));
  }
  if (storage == nullptr || uninit == nullptr) {
    out.Put(kOpenFailed);
    _exit(3);
  }

  // The restart: everything the store holds, in its own order. Flush first
  // so that a block taken back from storage.final.db is in its day file.
  storage->Flush();
  Tarn::Events::GenericEventHolder holder;
  uint64_t count = 0, last = Tarn::Comm::Interface::kInvalidIterVal, last_day = ~0ull;
  for (uint64_t p = storage->GetFirstIterVal(); storage->IsValid(p); storage->Increment(p)) {
    ++count;
    last = p;
    Keel::OS::DateTime time;
    if (!storage->GetEvent(p, &holder) || holder.Size() < 28 || !storage->GetTime(p, time)) {
      out.Put(kBadRecord, 0, 0, 0, p);
      continue;
    }
    std::vector<uint8_t> record(holder.Data(), holder.Data() + holder.Size());
    const uint32_t tag = tarn::test::TagOf(record);
    const uint64_t stamp = Record::LoadUInt64(record.data() + Record::kTimeStampOffset);
    const bool same = TaggedEvent(run_seed, tag, stamp) == record;
    out.Put(same ? kRead : kBadRecord, tag, stamp,
            static_cast<uint64_t>(time.ToSecondsSinceEpoch()), p);
    last_day = stamp / 86'400'000;
  }
  if (count != 0 && last != storage->GetLastIterVal()) out.Put(kWalkShort, 0, 0, 0, last);
  out.Put(kReady, 0, 0, count);
  if (plan.read_only) _exit(0);

  Random random{plan.seed};
  const uint64_t mean_step_ms = (plan.end_ms - plan.start_ms) / 3000 + 1;
  uint32_t tag = plan.first_tag;
  for (uint32_t batch = 1;; ++batch) {
    bool new_day = false;
    for (uint64_t n = 1 + random.Below(kMaxBatch); n > 0; --n, ++tag) {
      g_child_ms = std::min(plan.end_ms, g_child_ms.load() + random.Below(2 * mean_step_ms));
      new_day |= g_child_ms.load() / 86'400'000 != last_day;
      last_day = g_child_ms.load() / 86'400'000;
      std::vector<uint8_t> record = TaggedEvent(run_seed, tag, g_child_ms.load());
      Tarn::Events::Objects::Base event(record.data(), record.size());
      progress->handed = tag;
      if (!module->HandleEvent(&event, nullptr)) out.Put(kRefused, tag);
    }
    if (batch == plan.stop_after) {  // the open block goes to storage.final.db
      if (!module->Stop()) out.Put(kStopFailed);
      delete module;
      uninit();
      progress->acked = tag - 1;
      _exit(0);
    }
    if (new_day) out.Put(kDayFlush);
    storage->Flush();
    uint64_t p = storage->GetLastIterVal();
    if (!storage->GetEvent(p, &holder) ||
        tarn::test::TagOf(std::vector<uint8_t>(holder.Data(), holder.Data() + holder.Size())) !=
            tag - 1) {
      out.Put(kFlushMissing, tag - 1, 0, 0, p);
    }
    progress->acked = tag - 1;
  }
}

// What the parent saw of one child.
struct CycleRun {
  std::vector<Note> notes;
  bool ready = false, killed = false, hung = false;
  bool day_flush_seen = false;  // a kDayFlush came
  int status = 0;
  uint64_t read_back = 0, handed = 0, acked = 0;
  long long ran_ms = 0;
};

CycleRun RunCycle(const Plan& plan, uint64_t run_seed, const std::string& directory,
                  Progress* progress) {
  CycleRun run;
  run.status = -1;  // no child: counts as a child that failed
  progress->handed = progress->acked = plan.first_tag - 1;
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) return run;
  std::fflush(nullptr);
  const pid_t parent = getpid();
  const Clock::time_point started = Clock::now();
  const pid_t pid = fork();
  if (pid == 0) {
    close(fds[0]);
    RunChild(plan, run_seed, directory, fds[1], progress, parent);
  }
  close(fds[1]);
  // Until its kill is due, a child gets two minutes before it counts as hung.
  bool guard = !plan.early_kill;
  Clock::time_point deadline =
      started + std::chrono::milliseconds(plan.early_kill ? plan.kill_ms : 120'000);
  std::vector<char> pending;
  while (pid > 0) {  // until the child's end closes the pipe
    if (!run.killed && Clock::now() >= deadline) {
      kill(pid, SIGKILL);
      run.killed = true;
      run.hung = guard;
    }
    int timeout = -1;
    if (!run.killed) {
      auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
      timeout = static_cast<int>(std::max<long long>(0, left.count()));
    }
    pollfd poller{fds[0], POLLIN, 0};
    if (poll(&poller, 1, timeout) <= 0) continue;
    char buffer[1 << 16];
    ssize_t n = read(fds[0], buffer, sizeof buffer);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) break;
    pending.insert(pending.end(), buffer, buffer + n);
    size_t whole = pending.size() / sizeof(Note) * sizeof(Note);
    for (size_t at = 0; at < whole; at += sizeof(Note)) {
      Note note;
      std::memcpy(&note, pending.data() + at, sizeof note);
      run.notes.push_back(note);
      if (note.kind == kDayFlush && plan.day_kill && !run.day_flush_seen) {
        run.day_flush_seen = true;
        deadline = Clock::now() + std::chrono::milliseconds(plan.kill_ms);
      }
      if (note.kind != kReady) continue;
      run.ready = true;
      run.read_back = note.stored_s;
      if (guard && !plan.read_only && plan.stop_after == 0) {
        // Waiting for a new day's Flush, a child whose clock has no day
        // left is killed at a random moment all the same.
        guard = false;
        deadline = Clock::now() + std::chrono::milliseconds(plan.day_kill ? 1000 : plan.kill_ms);
      }
    }
    pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(whole));
  }
  close(fds[0]);
  if (pid > 0) waitpid(pid, &run.status, 0);
  run.ran_ms =
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - started).count();
  run.handed = progress->handed.load();
  run.acked = progress->acked.load();
  return run;
}

// The events that a restart must put back although no Flush acknowledged
// them: those of every whole block in the day files, read from the file's
// header on, and of a whole storage.final.db. Only files whose size changed
// since the last scan are read again.
class DiskScan {
 public:
  std::vector<uint32_t> WholeBlockTags(const std::string& directory) {
    std::vector<uint32_t> tags;
    std::error_code error;
    for (const fs::directory_entry& entry : fs::directory_iterator(directory, error)) {
      const std::string name = entry.path().filename().string();
      uint16_t day = 0;
      uint8_t version = 0;
      const uint64_t size = entry.file_size(error);
      if (!Tarn::Storage::Utils::IsStorageFile(name.c_str(), false, day, version) ||
          sizes_[name] == size) {
        continue;
      }
      sizes_[name] = size;
      Keel::OS::File file;
      if (!file.Open(entry.path().string(), Keel::OS::File::Mode::Read)) continue;
      Tarn::Storage::BlockHeader header;
      Keel::Collections::Buffer payload, raw;
      for (uint64_t at = Tarn::Storage::kDayFileHeaderSize;
           Tarn::Storage::ReadBlockHeader(file, at, size, header) &&
           Tarn::Storage::ReadBlockPayload(file, at, header, payload);
           at += Tarn::Storage::kBlockHeaderSize + header.stored_size) {
        if (!Tarn::Storage::DecodeBlock(payload, header, raw)) continue;
        Tarn::Storage::RawBlockView view(raw.Data(), static_cast<uint32_t>(raw.Size()),
                                         header.table_offset);
        for (uint32_t i = 0; i < view.EventCount(); ++i) {
          const uint8_t* data = nullptr;
          uint32_t length = 0;
          if (view.Event(i, data, length)) tags.push_back(tarn::test::TagOf({data, data + length}));
        }
      }
    }
    std::vector<tarn::test::StoredEvent> final_events;
    tarn::test::ReadFinalEvents(directory, final_events);
    for (const auto& event : final_events) tags.push_back(tarn::test::TagOf(event.record));
    return tags;
  }

 private:
  std::map<std::string, uint64_t> sizes_;
};

// The parent's model: what became of every tag.
enum TagState : uint8_t { kUnsent = 0, kSent, kDurable, kLost };

class Model {
 public:
  // Checks one read-back; returns the violations found, one line each.
  std::vector<std::string> Check(const CycleRun& run, const std::vector<uint32_t>& on_disk) {
    std::map<std::string, std::vector<std::string>> found;
    auto flag = [&found](const std::string& invariant, const std::string& example) {
      found[invariant].push_back(example);
    };
    std::vector<uint8_t> seen(state_.size(), 0), whole(state_.size(), 0);
    for (uint32_t tag : on_disk) {
      if (tag < whole.size()) whole[tag] = 1;
    }
    uint64_t previous_s = 0, reads = 0;
    for (const Note& note : run.notes) {
      const std::string where = PositionText(note.position), what = Describe(note.tag) + where;
      switch (note.kind) {
        case kRead:
        case kBadRecord: {
          ++reads;
          if (note.kind == kBadRecord) {
            flag("a stored record is unreadable or not the one sent", what);
          }
          if (note.tag == 0) break;
          if (note.tag >= state_.size() || state_[note.tag] == kUnsent) {
            flag("an event that was never sent is readable", what);
            break;
          }
          if (++seen[note.tag] == 2) {
            flag("an event is readable twice", what);
            duplicated_.push_back(note.tag);
          }
          if (note.stored_s != note.stamp_ms / 1000) {
            flag("an event is filed at another second than it was sent at", what);
          }
          if (note.stored_s < previous_s) flag("time goes back along the walk", what);
          previous_s = note.stored_s;
          break;
        }
        case kReady:
          if (note.stored_s != reads) flag("the read-back lost notes", std::to_string(reads));
          break;
        case kRefused: flag("HandleEvent refused an event", Describe(note.tag)); break;
        case kFlushMissing:
          flag("after Flush the last readable event is not the last one sent", what);
          break;
        case kWalkShort: flag("Increment stopped before the last position", where); break;
        case kOpenFailed: flag("the module did not open the store", ""); break;
        case kStopFailed: flag("Stop failed", ""); break;
      }
    }
    lost_ = lost_acked_ = 0;
    for (uint32_t tag = 1; tag < state_.size(); ++tag) {
      uint8_t& state = state_[tag];
      if (state == kDurable && seen[tag] == 0) {
        flag("an acknowledged event is lost", Describe(tag));
        ++lost_acked_;
      } else if (state == kLost && seen[tag] != 0) {
        flag("an event missing from an earlier read-back came back", Describe(tag));
      } else if (state == kSent && whole[tag] != 0 && seen[tag] == 0) {
        flag("an event of a block that was whole on disk is lost", Describe(tag));
      }
      // Readable after a restart: it must stay so. Not readable: it is lost.
      if (state == kSent) {
        state = seen[tag] != 0 ? kDurable : kLost;
        kept_ += seen[tag] != 0;
      }
      if (state != kUnsent && seen[tag] == 0) ++lost_;
    }
    std::vector<std::string> lines;
    for (const auto& [invariant, examples] : found) {
      std::string line = invariant + " (" + std::to_string(examples.size()) + "):";
      for (size_t i = 0; i < examples.size() && i < 8; ++i) line += " [" + examples[i] + "]";
      lines.push_back(line);
    }
    return lines;
  }

  // Records what a child sent and what it had acknowledged when it died.
  void Absorb(const Plan& plan, const CycleRun& run) {
    if (run.handed >= plan.first_tag) {
      state_.resize(run.handed + 1, kUnsent);
      for (uint64_t tag = plan.first_tag; tag <= run.handed; ++tag) {
        state_[tag] = tag <= run.acked ? kDurable : kSent;
      }
      sent_ += run.handed + 1 - plan.first_tag;
      acked_ += run.acked + 1 - plan.first_tag;
    }
    firsts_.emplace_back(plan.first_tag, plan.cycle);
  }

  uint64_t sent() const { return sent_; }
  uint64_t acked() const { return acked_; }
  // Sent events missing from the last read-back, and how many of them had
  // been acknowledged.
  uint64_t lost() const { return lost_; }
  uint64_t lost_acked() const { return lost_acked_; }
  // Unacknowledged events that a read-back after the kill showed.
  uint64_t kept() const { return kept_; }
  size_t duplicated() const {
    std::vector<uint32_t> tags = duplicated_;
    std::sort(tags.begin(), tags.end());
    return static_cast<size_t>(std::unique(tags.begin(), tags.end()) - tags.begin());
  }

 private:
  std::string Describe(uint32_t tag) const {
    std::string text = "tag " + std::to_string(tag);
    auto after = std::upper_bound(firsts_.begin(), firsts_.end(), std::make_pair(tag, ~0u));
    if (tag != 0 && after != firsts_.begin()) {
      text += " of cycle " + std::to_string(std::prev(after)->second);
    }
    if (tag < state_.size()) {
      static const char* kNames[] = {"never sent", "sent", "acknowledged", "lost earlier"};
      text += std::string(", ") + kNames[state_[tag]];
    }
    return text;
  }
  static std::string PositionText(uint64_t p) {
    if (p == 0) return "";
    return " at day " + std::to_string(p & 0xFFFF) + " block " +
           std::to_string((p >> 16) & 0xFFFFFF) + " event " + std::to_string(p >> 40);
  }

  std::vector<uint8_t> state_ = std::vector<uint8_t>(1, kUnsent);  // by tag; tag 0 unused
  std::vector<std::pair<uint32_t, uint32_t>> firsts_;              // (first tag, cycle)
  std::vector<uint32_t> duplicated_;
  uint64_t sent_ = 0, acked_ = 0, lost_ = 0, lost_acked_ = 0, kept_ = 0;
};

void CopyStore(const std::string& from, const fs::path& to) {
  std::error_code ignored;
  fs::remove_all(to, ignored);
  fs::create_directories(to, ignored);
  fs::copy(from, to, fs::copy_options::recursive | fs::copy_options::overwrite_existing, ignored);
}

TEST(KillLoopTest, AcknowledgedEventsSurviveKillNineExactlyOnce) {
  const uint64_t seed = EnvOr("TARN_KILL_SEED", std::random_device{}());
  const uint32_t cycles = static_cast<uint32_t>(std::max<uint64_t>(1, EnvOr("TARN_KILL_CYCLES", 30)));
  std::cout << "kill loop: seed " << seed << ", " << cycles << " cycles (TARN_KILL_SEED=" << seed
            << " TARN_KILL_CYCLES=" << cycles
            << " repeats it; TARN_KILL_CYCLES=200 for a long run)\n";
  tarn::test::TempDir store, scratch;
  const fs::path before = fs::path(scratch.path()) / "before-restart";
  void* page = mmap(nullptr, sizeof(Progress), PROT_READ | PROT_WRITE,
                    MAP_SHARED | MAP_ANONYMOUS, -1, 0);
  ASSERT_NE(page, MAP_FAILED);
  auto* progress = new (page) Progress{};

  // Each cycle's clock window follows the last: days only go forward, and
  // the whole run stays within the store's day budget.
  Random random{Mix(seed)};
  const uint64_t window_ms = std::min<uint64_t>(36 * 3'600'000ull, 480 * 86'400'000ull / cycles);
  const uint64_t origin_ms = tarn::test::EpochOf(9000, 0) * 1000 + random.Below(86'400'000);
  Model model;
  DiskScan disk;
  std::vector<uint32_t> on_disk;  // whole blocks' tags since the last check
  std::vector<std::string> violations;
  uint32_t next_tag = 1, checked = 0, cycle = 1;
  bool stopped_last = false;
  for (; cycle <= cycles + 1 && violations.empty(); ++cycle) {
    Plan plan;
    plan.cycle = cycle;
    plan.seed = Mix(seed ^ (0x5151ull * cycle));
    plan.first_tag = next_tag;
    plan.start_ms = origin_ms + (cycle - 1) * window_ms;
    plan.end_ms = plan.start_ms + window_ms - 1;
    plan.read_only = cycle == cycles + 1;
    plan.early_kill = !plan.read_only && random.Below(stopped_last ? 2 : 10) == 0;
    plan.stop_after = !plan.read_only && !plan.early_kill && random.Below(8) == 0
                          ? static_cast<uint32_t>(1 + random.Below(4))
                          : 0;
    plan.day_kill = !plan.read_only && !plan.early_kill && !plan.stop_after && random.Below(4) == 0;
    plan.kill_ms = static_cast<uint32_t>(random.Below(plan.early_kill || plan.day_kill ? 25 : 400));
    CopyStore(store.path(), before);
    std::vector<uint32_t> scanned = disk.WholeBlockTags(store.path());
    on_disk.insert(on_disk.end(), scanned.begin(), scanned.end());

    CycleRun run = RunCycle(plan, seed, store.path(), progress);
    if (run.ready) {
      ++checked;
      violations = model.Check(run, on_disk);
      on_disk.clear();
    }
    model.Absorb(plan, run);
    next_tag = static_cast<uint32_t>(std::max<uint64_t>(next_tag, run.handed + 1));
    stopped_last = plan.stop_after != 0 && !run.killed;
    if (run.hung) violations.push_back("the child did not finish within two minutes");
    if (!run.killed && !(WIFEXITED(run.status) && WEXITSTATUS(run.status) == 0)) {
      violations.push_back("the child ended with status " + std::to_string(run.status));
    }
    const char* end = plan.read_only        ? "final read"
                      : plan.early_kill     ? "killed at start"
                      : !run.killed         ? "stopped cleanly"
                      : run.day_flush_seen ? "killed in a new day's Flush"
                                            : "killed";
    std::cout << "cycle " << cycle << ": " << end << " after " << run.ran_ms << " ms; read back "
              << (run.ready ? std::to_string(run.read_back) : "-") << "; sent "
              << run.handed + 1 - plan.first_tag << ", acknowledged "
              << run.acked + 1 - plan.first_tag << "\n";
  }
  --cycle;
  if (!violations.empty()) {
    const fs::path kept = fs::temp_directory_path() /
                          ("tarn-kill-loop-" + std::to_string(seed) + "-cycle" + std::to_string(cycle));
    CopyStore(before.string(), kept / "before-restart");
    CopyStore(store.path(), kept / "after-restart");
    std::cout << "VIOLATION in cycle " << cycle << ", seed " << seed << "; store kept in "
              << kept.string() << " (before-restart: as the killed child left it; after-restart: "
              << "as the checking child left it)\n";
    for (const std::string& line : violations) std::cout << "  " << line << "\n";
  }
  std::cout << "kill loop figures: seed " << seed << ", cycles " << std::min(cycle, cycles)
            << ", read-backs checked " << checked << ", events sent " << model.sent()
            << ", events acknowledged " << model.acked() << ", events lost: " << model.lost()
            << " (acknowledged: " << model.lost_acked() << "), unacknowledged but kept: "
            << model.kept() << ", duplicates: " << model.duplicated()
            << ", violations: " << violations.size() << std::endl;
  munmap(page, sizeof(Progress));
  EXPECT_TRUE(violations.empty()) << "cycle " << cycle << ", seed " << seed << ": "
                                  << (violations.empty() ? "" : violations.front());
}

}  // namespace
