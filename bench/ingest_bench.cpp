// The event store's writer, driven through StorageManager directly: the cost
// of one AddEvent between hand-overs, sustained ingest with 10 MiB blocks on
// the multi- and single-threaded LZMA paths, peak memory, and AddEvent
// latency when events come faster than the writer can store them.
//
// A plain program, not a Google Benchmark binary: it needs per-call
// percentiles and each phase's own peak memory. Without --phase it re-runs
// itself once per phase (so ru_maxrss and VmHWM belong to that phase alone,
// and TARN_LZMA_THREADS, which Keel::Lzma reads once, can differ) and prints
// every child's key=value lines and then a table.
//
//   ingest_bench [--mib N] [--burst-seconds S] [--dir D]     all phases
//   ingest_bench --phase latency|sustained|burst [...]        one phase
//   TARN_BENCH_DUMP=path ingest_bench [--mib N]  writes the raw events the
//       sustained phase feeds, so scripts/bench-ingest.sh can time xz on them

#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Tarn/Events/Base.h"
#include "Tarn/Events/DynamicEventBuilder.h"
#include "Tarn/Storage/ITimeProvider.h"
#include "manager/writer/Settings.h"
#include "manager/writer/StorageManager.h"
#include "manager/telemetry/StorageTelemetry.h"

namespace {

using Clock = std::chrono::steady_clock;
using Tarn::Events::Objects::Base;
using Tarn::Storage::StorageManager;
using Tarn::Storage::Telemetry::StorageTelemetry;

constexpr uint32_t kBigBlock = 10'485'760;
constexpr uint32_t kSmallBlock = 102'400;
constexpr uint64_t kStorageLimit = 2ull << 30;
constexpr uint32_t kEntryBytes = 8;  // what each event adds to a block's framed size
constexpr double kMiB = 1048576.0;

struct Args {
  std::string phase;
  uint32_t mib = 64;
  uint32_t burst_seconds = 10;
  std::string dir;
};

double Seconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double>(to - from).count();
}

uint32_t Nanos(Clock::time_point from, Clock::time_point to) {
  auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(to - from).count();
  return static_cast<uint32_t>(std::min<int64_t>(ns, UINT32_MAX));
}

void Emit(const char* key, double value) { std::printf("%s=%.6g\n", key, value); }

// ---------------------------------------------------------------------------
// Clock and events

// Day 9000 (2024-08-23) from 01:00; the program moves it with real time so
// entries carry rising seconds, and the day never changes within a run.
class BenchClock final : public Tarn::Storage::ITimeProvider {
 public:
  uint64_t GetEpochTime() override { return now_.load(std::memory_order_relaxed); }
  uint64_t GetSystemTime() override { return GetEpochTime() * 1000; }
  void Tick() {
    now_.store(kStart + static_cast<uint64_t>(Seconds(start_, Clock::now())),
               std::memory_order_relaxed);
  }

 private:
  static constexpr uint64_t kStart = 946'684'800ull + 9000ull * 86'400 + 3'600;
  const Clock::time_point start_ = Clock::now();
  std::atomic<uint64_t> now_{kStart};
};

// Event records like the agent's, 120-600 bytes: process starts with command
// lines and hashes, file writes with paths, network connects with peers,
// over a rising millisecond clock. Deterministic, so the dump and the
// sustained phase see the same bytes.
class RecordGenerator {
 public:
  Base Next() {
    clock_ms_ += Random() % 40;
    uint32_t kind = Random() % 10;
    bool ok = kind < 4 ? Process() : kind < 8 ? FileWrite() : Connect();
    return ok ? builder_.Event() : Base();
  }

 private:
  static constexpr size_t kMaxRecord = 600;

  uint32_t Random() {
    state_ = state_ * 6364136223846793005ull + 1442695040888963407ull;
    return static_cast<uint32_t>(state_ >> 33);
  }
  const char* Pick(const char* const* items, uint32_t count) { return items[Random() % count]; }
  std::string Hash(uint32_t digits) {
    std::string hash(digits, '0');
    for (char& c : hash) c = "0123456789abcdef"[Random() % 16];
    return hash;
  }
  std::string Format(const char* format, auto... values) {
    char text[256];
    int n = std::snprintf(text, sizeof(text), format, values...);
    return std::string(text, n > 0 ? std::min<size_t>(n, sizeof(text) - 1) : 0);
  }

  bool Process() {
    static const char* const kBinaries[] = {"/usr/bin/python3",
                                            "/usr/sbin/sshd",
                                            "/usr/bin/curl",
                                            "/opt/agent/bin/updater",
                                            "/usr/lib/systemd/systemd-journald",
                                            "/usr/bin/bash",
                                            "/usr/local/bin/node"};
    std::string binary = Pick(kBinaries, 7);
    std::string user = Pick(kUsers, 5);
    std::string hash = Hash(64);
    std::string command = binary;
    // 48 bytes of header and fixed slots plus four text terminators.
    size_t room = kMaxRecord - 52 - binary.size() - user.size() - hash.size();
    for (uint32_t args = Random() % 14; args > 0; --args) {
      uint32_t id = Random() % 64;
      std::string arg = Random() % 2 == 0
                            ? Format(" --config /etc/agent/conf.d/%02u.yaml", id % 17)
                            : Format(" --job %u --queue jobs-%u", Random() % 100000, id);
      if (command.size() + arg.size() > room) break;
      command += arg;
    }
    uint32_t pid = 1000 + Random() % 30000;
    builder_.Begin(1, 1, clock_ms_);
    builder_.AddUInt32(pid);
    builder_.AddUInt32(pid - 1 - Random() % 50);
    builder_.AddUInt64(clock_ms_ - Random() % 100000);
    builder_.AddText(user);
    builder_.AddText(binary);
    builder_.AddText(command);
    builder_.AddText(hash);
    return builder_.Finish();
  }

  bool FileWrite() {
    static const char* const kDirs[] = {"/var/lib/agent/cache", "/home/alice/projects/web/src",
                                        "/tmp/agent-spool", "/var/log/nginx",
                                        "/srv/data/exports/2024"};
    std::string path = Format("%s/%08x/%u.%s", Pick(kDirs, 5), Random(), Random() % 5000,
                              Random() % 3 == 0 ? "tmp" : "json");
    builder_.Begin(3, 1, clock_ms_);
    builder_.AddUInt32(1000 + Random() % 30000);
    builder_.AddUInt32(Random() % 8);  // open flags
    builder_.AddUInt64(Random() % 4096 * 512);
    builder_.AddText(Pick(kUsers, 5));
    builder_.AddText(path);
    builder_.AddText(Hash(Random() % 2 == 0 ? 40 : 64));
    return builder_.Finish();
  }

  bool Connect() {
    static const char* const kHosts[] = {"api.updates.example.net", "db-replica-2.internal",
                                         "metrics.example.org", "registry.example.com"};
    builder_.Begin(7, 1, clock_ms_);
    builder_.AddUInt32(1000 + Random() % 30000);
    builder_.AddUInt32(32768 + Random() % 28000);
    builder_.AddUInt32(Random() % 4 == 0 ? 5432 : 443);
    builder_.AddUInt64(Random() % 1000000);
    builder_.AddText(Format("10.%u.%u.%u", Random() % 4, Random() % 256, Random() % 256));
    builder_.AddText(Pick(kHosts, 4));
    builder_.AddText(Pick(kUsers, 5));
    builder_.AddText(Hash(36));  // connection id
    return builder_.Finish();
  }

  static constexpr const char* kUsers[] = {"root", "svc-backup", "alice", "www-data", "postgres"};
  uint64_t state_ = 1;
  uint64_t clock_ms_ = 1'724'374'800'000ull;
  Tarn::Events::DynamicEventBuilder builder_;
};

// A 200-byte record, `tag` in its first slot.
std::vector<uint8_t> FixedEvent(uint32_t tag) {
  Tarn::Events::DynamicEventBuilder builder;
  builder.Begin(5, 1, 1'724'374'800'000ull + tag);
  builder.AddUInt32(tag);
  std::string text(200 - 24 - 4 - 2 - 1, 'a');
  for (size_t i = 0; i < text.size(); ++i) text[i] = static_cast<char>('a' + (tag + i) % 26);
  builder.AddText(text);
  if (!builder.Finish() || builder.Size() != 200) return {};
  return std::vector<uint8_t>(builder.Data(), builder.Data() + builder.Size());
}

// ---------------------------------------------------------------------------
// Measuring

// Nearest-rank percentile of sorted samples.
uint32_t Percentile(const std::vector<uint32_t>& sorted, double q) {
  if (sorted.empty()) return 0;
  size_t rank = static_cast<size_t>(q * static_cast<double>(sorted.size()) + 0.999999);
  return sorted[std::clamp<size_t>(rank, 1, sorted.size()) - 1];
}

void EmitDistribution(const std::string& prefix, std::vector<uint32_t>& samples) {
  std::sort(samples.begin(), samples.end());
  Emit((prefix + "_n").c_str(), static_cast<double>(samples.size()));
  Emit((prefix + "_p50_ns").c_str(), Percentile(samples, 0.5));
  Emit((prefix + "_p90_ns").c_str(), Percentile(samples, 0.9));
  Emit((prefix + "_p99_ns").c_str(), Percentile(samples, 0.99));
  Emit((prefix + "_p999_ns").c_str(), Percentile(samples, 0.999));
  Emit((prefix + "_max_ns").c_str(), samples.empty() ? 0 : samples.back());
}

// A field of /proc/self/status in KiB, 0 when missing.
uint64_t StatusKiB(const char* field) {
  FILE* file = std::fopen("/proc/self/status", "r");
  if (file == nullptr) return 0;
  char line[256];
  uint64_t value = 0;
  size_t length = std::strlen(field);
  while (std::fgets(line, sizeof(line), file) != nullptr) {
    if (std::strncmp(line, field, length) == 0) value = std::strtoull(line + length, nullptr, 10);
  }
  std::fclose(file);
  return value;
}

void EmitMemory() {
  rusage usage{};
  getrusage(RUSAGE_SELF, &usage);
  Emit("maxrss_mib", static_cast<double>(usage.ru_maxrss) / 1024.0);  // KiB on Linux
  Emit("vmhwm_mib", static_cast<double>(StatusKiB("VmHWM:")) / 1024.0);
}

// Keeps the compiler from dropping copies nobody reads.
inline void Clobber() { asm volatile("" ::: "memory"); }

// ---------------------------------------------------------------------------
// A store in a fresh directory, removed afterwards.

class Store {
 public:
  Store(const std::string& parent, uint32_t block_size) {
    std::string pattern = (parent.empty() ? std::string("/tmp") : parent) + "/ingest-XXXXXX";
    if (mkdtemp(pattern.data()) == nullptr) return;
    directory_ = pattern;
    Tarn::Storage::Settings settings = Tarn::Storage::Settings::default_();
    settings.block_buffer_size = block_size;
    settings.max_storage_size = kStorageLimit;
    manager_ = std::make_unique<StorageManager>();
    ok_ = manager_->Create(settings, &clock_, 0, directory_.c_str());
  }
  ~Store() {
    manager_.reset();
    if (!directory_.empty()) std::filesystem::remove_all(directory_);
  }
  bool ok() const { return ok_; }
  StorageManager& manager() { return *manager_; }
  BenchClock& clock() { return clock_; }
  StorageTelemetry::Snapshot Snapshot() { return manager_->telemetry().snapshot(); }

 private:
  BenchClock clock_;
  std::string directory_;
  std::unique_ptr<StorageManager> manager_;
  bool ok_ = false;
};

void EmitWriter(Store& store) {
  StorageTelemetry::Snapshot s = store.Snapshot();
  using namespace Tarn::Storage::Telemetry;
  Emit("blocks", s.blocks_count);
  Emit("discarded_blocks", s.discarded_blocks_count);
  Emit("compress_ms_per_block", s.averages[kCompressionMs].Value());
  Emit("process_ms_per_block", s.averages[kProcessingMs].Value());
  Emit("raw_bytes_per_block", s.averages[kBlockRawBytes].Value());
  Emit("stored_bytes_per_block", s.averages[kBlockCompressedBytes].Value());
}

// ---------------------------------------------------------------------------
// Phase 1: one AddEvent of 200 bytes against a memcpy of 200 bytes.

constexpr uint32_t kTimedCalls = 300'000;
constexpr uint32_t kBatchCalls = 40'000;  // 8.3 MB framed: one 10 MiB block holds them
constexpr int kBatchRounds = 3;

void TimerFloor() {
  std::vector<uint32_t> samples(kTimedCalls);
  for (uint32_t& sample : samples) {
    Clock::time_point start = Clock::now();
    sample = Nanos(start, Clock::now());
  }
  EmitDistribution("timer", samples);
}

void MemcpyCost(const std::vector<std::vector<uint8_t>>& events) {
  std::vector<uint8_t> target(kBigBlock);  // preallocated and touched, like the open block
  std::memset(target.data(), 0, target.size());
  std::vector<uint32_t> samples(kTimedCalls);
  size_t offset = 0;
  for (uint32_t i = 0; i < kTimedCalls; ++i) {
    const std::vector<uint8_t>& event = events[i % events.size()];
    if (offset + 200 > target.size()) offset = 0;
    Clock::time_point start = Clock::now();
    std::memcpy(target.data() + offset, event.data(), 200);
    Clobber();
    samples[i] = Nanos(start, Clock::now());
    offset += 200;
  }
  EmitDistribution("memcpy", samples);
  double best = 1e9;
  for (int round = 0; round < kBatchRounds; ++round) {
    Clock::time_point start = Clock::now();
    for (uint32_t i = 0; i < kBatchCalls; ++i) {
      std::memcpy(target.data() + 200ull * i, events[i % events.size()].data(), 200);
      Clobber();
    }
    best = std::min(best, Seconds(start, Clock::now()) * 1e9 / kBatchCalls);
  }
  Emit("memcpy_batch_ns", best);
}

// Times every call; a call that handed a block over is told apart by the
// manager's own rule (the framed block would pass its capacity), so it is
// known before the call rather than guessed from its duration.
void AddEventCost(Store& store, const std::vector<std::vector<uint8_t>>& events) {
  std::vector<uint32_t> plain, handovers;
  plain.reserve(kTimedCalls);
  uint64_t framed = 0;
  uint32_t refused = 0, slow_plain = 0;
  for (uint32_t i = 0; i < kTimedCalls; ++i) {
    const std::vector<uint8_t>& event = events[i % events.size()];
    bool handover = framed + event.size() + kEntryBytes > kBigBlock;
    if (handover) framed = 0;
    framed += event.size() + kEntryBytes;
    Base object(event.data(), event.size());
    Clock::time_point start = Clock::now();
    refused += store.manager().AddEvent(object) ? 0 : 1;
    uint32_t ns = Nanos(start, Clock::now());
    if (handover) {
      handovers.push_back(ns);
    } else {
      plain.push_back(ns);
      slow_plain += ns > 1'000'000 ? 1 : 0;
    }
  }
  store.manager().Flush();
  // Written blocks must be the predicted hand-overs plus the one Flush gave.
  Emit("blocks_after_timed", store.Snapshot().blocks_count);
  Emit("add_refused", refused);
  Emit("add_plain_over_1ms", slow_plain);
  Emit("add_predicted_handovers", static_cast<double>(handovers.size()));
  EmitDistribution("add", plain);
  EmitDistribution("handover", handovers);
}

// Mean cost with no clock read per call: the writer is idle and the block
// empty after Flush, and the batch fits in it, so no call hands over.
void AddEventBatch(Store& store, const std::vector<std::vector<uint8_t>>& events) {
  std::vector<Base> objects;
  for (const auto& event : events) objects.emplace_back(event.data(), event.size());
  double best = 1e9;
  for (int round = 0; round < kBatchRounds; ++round) {
    store.manager().Flush();
    Clock::time_point start = Clock::now();
    for (uint32_t i = 0; i < kBatchCalls; ++i) {
      store.manager().AddEvent(objects[i % objects.size()]);
    }
    best = std::min(best, Seconds(start, Clock::now()) * 1e9 / kBatchCalls);
  }
  store.manager().Flush();
  Emit("add_batch_ns", best);
}

int RunLatency(const Args& args) {
  std::vector<std::vector<uint8_t>> events;
  for (uint32_t tag = 0; tag < 16; ++tag) events.push_back(FixedEvent(tag));
  if (events[0].empty()) return 1;
  TimerFloor();
  MemcpyCost(events);
  Store store(args.dir, kBigBlock);
  if (!store.ok()) return 1;
  AddEventCost(store, events);
  AddEventBatch(store, events);
  EmitWriter(store);
  return 0;
}

// ---------------------------------------------------------------------------
// Phase 2: sustained ingest of realistic events with 10 MiB blocks.

int RunSustained(const Args& args) {
  const uint64_t target = uint64_t{args.mib} << 20;
  {
    // The generator alone, so its share of the ingest time is known.
    RecordGenerator generator;
    uint64_t bytes = 0;
    Clock::time_point start = Clock::now();
    while (bytes < target) bytes += generator.Next().Size();
    Emit("generator_mib_s", static_cast<double>(bytes) / kMiB / Seconds(start, Clock::now()));
  }
  Emit("rss_before_store_mib", static_cast<double>(StatusKiB("VmRSS:")) / 1024.0);
  Store store(args.dir, kBigBlock);
  if (!store.ok()) return 1;
  RecordGenerator generator;
  uint64_t bytes = 0, events = 0, refused = 0;
  Clock::time_point start = Clock::now();
  while (bytes < target) {
    Base event = generator.Next();
    refused += store.manager().AddEvent(event) ? 0 : 1;
    bytes += event.Size();
    if (++events % 1024 == 0) store.clock().Tick();
  }
  store.manager().Flush();
  double seconds = Seconds(start, Clock::now());
  const char* threads = std::getenv("TARN_LZMA_THREADS");
  Emit("lzma_threads", threads != nullptr ? std::atof(threads) : 0);
  Emit("raw_mib", static_cast<double>(bytes) / kMiB);
  Emit("events", static_cast<double>(events));
  Emit("refused", static_cast<double>(refused));
  Emit("seconds", seconds);
  Emit("mib_s", static_cast<double>(bytes) / kMiB / seconds);
  Emit("events_s", static_cast<double>(events) / seconds);
  Emit("disk_ratio",
       static_cast<double>(store.manager().TotalOnDiskSize()) / static_cast<double>(bytes));
  EmitWriter(store);
  EmitMemory();
  return 0;
}

// ---------------------------------------------------------------------------
// Phase 3: a burst above the writer's speed, with 100 KiB blocks.

int RunBurst(const Args& args) {
  // 8 MiB of records, cycled: building them would slow the burst down.
  std::vector<uint8_t> pool;
  std::vector<std::pair<size_t, uint32_t>> records;
  RecordGenerator generator;
  while (pool.size() < (8u << 20)) {
    Base event = generator.Next();
    records.emplace_back(pool.size(), static_cast<uint32_t>(event.Size()));
    pool.insert(pool.end(), event.Data(), event.Data() + event.Size());
  }
  Store store(args.dir, kSmallBlock);
  if (!store.ok()) return 1;
  std::vector<uint32_t> samples;
  samples.reserve(1u << 22);
  uint64_t bytes = 0, refused = 0;
  const Clock::time_point start = Clock::now();
  const Clock::time_point end = start + std::chrono::seconds(args.burst_seconds);
  for (size_t i = 0;; ++i) {
    if (i % 256 == 0) {
      if (Clock::now() >= end) break;
      store.clock().Tick();
    }
    const auto& [offset, size] = records[i % records.size()];
    Base event(pool.data() + offset, size);
    Clock::time_point call = Clock::now();
    refused += store.manager().AddEvent(event) ? 0 : 1;
    samples.push_back(Nanos(call, Clock::now()));
    bytes += size;
  }
  double seconds = Seconds(start, Clock::now());
  Clock::time_point flush = Clock::now();
  store.manager().Flush();
  Emit("flush_ms", Seconds(flush, Clock::now()) * 1e3);
  Emit("seconds", seconds);
  Emit("events", static_cast<double>(samples.size()));
  Emit("refused", static_cast<double>(refused));
  Emit("mib_s", static_cast<double>(bytes) / kMiB / seconds);
  Emit("events_s", static_cast<double>(samples.size()) / seconds);
  Emit("calls_over_1ms", static_cast<double>(std::count_if(samples.begin(), samples.end(),
                                                           [](uint32_t ns) { return ns > 1e6; })));
  EmitDistribution("add", samples);
  EmitWriter(store);
  EmitMemory();
  return 0;
}

// ---------------------------------------------------------------------------
// The dump for xz, and the driver.

int Dump(const char* path, const Args& args) {
  FILE* file = std::fopen(path, "wb");
  if (file == nullptr) {
    std::perror(path);
    return 1;
  }
  RecordGenerator generator;
  uint64_t bytes = 0, events = 0;
  size_t smallest = SIZE_MAX, largest = 0;
  bool ok = true;
  while (ok && bytes < (uint64_t{args.mib} << 20)) {
    Base event = generator.Next();
    ok = event.Size() != 0 && std::fwrite(event.Data(), 1, event.Size(), file) == event.Size();
    bytes += event.Size();
    ++events;
    smallest = std::min(smallest, event.Size());
    largest = std::max(largest, event.Size());
  }
  ok = std::fclose(file) == 0 && ok;
  std::fprintf(stderr, "dumped %llu events, %llu bytes, sizes %zu-%zu, mean %.1f\n",
               static_cast<unsigned long long>(events), static_cast<unsigned long long>(bytes),
               smallest, largest, static_cast<double>(bytes) / static_cast<double>(events));
  return ok ? 0 : 1;
}

using Results = std::map<std::string, double>;

// Runs this program again for one phase and collects its key=value lines,
// echoed with the phase's name in front.
bool RunChild(const Args& args, const char* name, const char* phase, const char* environment,
              Results& results) {
  char self[4096];
  ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return false;
  self[length] = '\0';
  std::string command = std::string("env ") + environment + " '" + self + "' --phase " + phase +
                        " --mib " + std::to_string(args.mib) + " --burst-seconds " +
                        std::to_string(args.burst_seconds);
  if (!args.dir.empty()) command += " --dir '" + args.dir + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) return false;
  char line[512];
  while (std::fgets(line, sizeof(line), pipe) != nullptr) {
    std::printf("%s.%s", name, line);
    std::fflush(stdout);
    if (char* equals = std::strchr(line, '=')) {
      *equals = '\0';
      results[std::string(name) + "." + line] = std::atof(equals + 1);
    }
  }
  return pclose(pipe) == 0;
}

void Row(const char* what, const std::string& value, const std::string& note) {
  std::printf("| %s | %s | %s |\n", what, value.c_str(), note.c_str());
}

std::string Fixed(double value, int digits) {
  char text[64];
  std::snprintf(text, sizeof(text), "%.*f", digits, value);
  return text;
}

std::string Triple(Results& r, const std::string& prefix, double scale, int digits) {
  return Fixed(r[prefix + "_p50_ns"] / scale, digits) + " / " +
         Fixed(r[prefix + "_p90_ns"] / scale, digits) + " / " +
         Fixed(r[prefix + "_p99_ns"] / scale, digits);
}

void PrintIngest(Results& r, const char* name, const char* label) {
  std::string p = std::string(name) + ".";
  Row(label, Fixed(r[p + "mib_s"], 2) + " MiB/s, " + Fixed(r[p + "events_s"], 0) + " events/s",
      Fixed(r[p + "raw_mib"], 0) + " MiB, " + Fixed(r[p + "events"], 0) + " events in " +
          Fixed(r[p + "seconds"], 1) + " s; " + Fixed(r[p + "blocks"], 0) + " blocks, compress " +
          Fixed(r[p + "compress_ms_per_block"], 0) + " of " +
          Fixed(r[p + "process_ms_per_block"], 0) + " ms per block; on disk " +
          Fixed(r[p + "disk_ratio"], 3) + " of raw");
  Row((std::string("peak memory, ") + label).c_str(),
      Fixed(r[p + "vmhwm_mib"], 1) + " MiB VmHWM, " + Fixed(r[p + "maxrss_mib"], 1) +
          " MiB ru_maxrss",
      Fixed(r[p + "rss_before_store_mib"], 1) + " MiB resident before the store was created");
}

void PrintTable(Results& r) {
  std::printf("\n| Measure | Value | Note |\n|---|---|---|\n");
  Row("clock read pair p50 / p90 / p99 (ns)", Triple(r, "latency.timer", 1, 0),
      "floor of every per-call time below");
  Row("memcpy 200 B p50 / p90 / p99 (ns)", Triple(r, "latency.memcpy", 1, 0),
      "batch mean " + Fixed(r["latency.memcpy_batch_ns"], 1) + " ns");
  Row("AddEvent 200 B p50 / p90 / p99 (ns)", Triple(r, "latency.add", 1, 0),
      "batch mean " + Fixed(r["latency.add_batch_ns"], 1) + " ns; " + Fixed(r["latency.add_n"], 0) +
          " calls, " + Fixed(r["latency.add_plain_over_1ms"], 0) + " over 1 ms");
  Row("AddEvent / memcpy",
      Fixed(r["latency.add_p50_ns"] / r["latency.memcpy_p50_ns"], 1) + "x at p50, " +
          Fixed(r["latency.add_batch_ns"] / r["latency.memcpy_batch_ns"], 1) + "x in batch",
      "");
  Row("hand-over calls p50 / max (ms)",
      Fixed(r["latency.handover_p50_ns"] / 1e6, 1) + " / " +
          Fixed(r["latency.handover_max_ns"] / 1e6, 1),
      Fixed(r["latency.handover_n"], 0) + " predicted hand-overs; " +
          Fixed(r["latency.blocks_after_timed"], 0) + " blocks written with the flush");
  PrintIngest(r, "mt", "ingest, LZMA threads = cores");
  PrintIngest(r, "st", "ingest, TARN_LZMA_THREADS=1");
  Row("multi / single thread", Fixed(r["mt.mib_s"] / r["st.mib_s"], 2) + "x",
      "generator alone " + Fixed(r["mt.generator_mib_s"], 0) + " MiB/s");
  Row("burst, 100 KiB blocks",
      Fixed(r["burst.mib_s"], 2) + " MiB/s, " + Fixed(r["burst.events_s"], 0) + " events/s",
      Fixed(r["burst.events"], 0) + " events in " + Fixed(r["burst.seconds"], 1) + " s; " +
          Fixed(r["burst.blocks"], 0) + " blocks, " + Fixed(r["burst.discarded_blocks"], 0) +
          " discarded, " + Fixed(r["burst.refused"], 0) + " refused");
  Row("burst AddEvent p50 / p99 / p99.9 / max",
      Fixed(r["burst.add_p50_ns"], 0) + " ns / " + Fixed(r["burst.add_p99_ns"] / 1e3, 1) +
          " us / " + Fixed(r["burst.add_p999_ns"] / 1e6, 1) + " ms / " +
          Fixed(r["burst.add_max_ns"] / 1e6, 1) + " ms",
      Fixed(r["burst.calls_over_1ms"], 0) + " calls over 1 ms; writer " +
          Fixed(r["burst.process_ms_per_block"], 1) + " ms per block (compress " +
          Fixed(r["burst.compress_ms_per_block"], 1) + ")");
  Row("peak memory, burst", Fixed(r["burst.vmhwm_mib"], 1) + " MiB VmHWM", "");
}

int RunAll(const Args& args) {
  Results results;
  bool ok = RunChild(args, "latency", "latency", "-u TARN_LZMA_THREADS", results) &&
            RunChild(args, "mt", "sustained", "-u TARN_LZMA_THREADS", results) &&
            RunChild(args, "st", "sustained", "TARN_LZMA_THREADS=1", results) &&
            RunChild(args, "burst", "burst", "-u TARN_LZMA_THREADS", results);
  if (!ok) {
    std::fprintf(stderr, "a phase failed\n");
    return 1;
  }
  PrintTable(results);
  return 0;
}

bool ParseArgs(int argc, char** argv, Args& args) {
  for (int i = 1; i + 1 < argc; i += 2) {
    std::string flag = argv[i];
    if (flag == "--phase") {
      args.phase = argv[i + 1];
    } else if (flag == "--mib") {
      args.mib = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
    } else if (flag == "--burst-seconds") {
      args.burst_seconds = static_cast<uint32_t>(std::strtoul(argv[i + 1], nullptr, 10));
    } else if (flag == "--dir") {
      args.dir = argv[i + 1];
    } else {
      return false;
    }
  }
  return argc % 2 == 1 && args.mib > 0 && args.burst_seconds > 0;
}

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (!ParseArgs(argc, argv, args)) {
    std::fprintf(stderr,
                 "usage: %s [--phase latency|sustained|burst] [--mib N] [--burst-seconds S] "
                 "[--dir D]\n",
                 argv[0]);
    return 2;
  }
  if (const char* path = std::getenv("TARN_BENCH_DUMP")) return Dump(path, args);
  if (args.phase.empty()) return RunAll(args);
  std::setvbuf(stdout, nullptr, _IOLBF, 0);
  if (args.phase == "latency") return RunLatency(args);
  if (args.phase == "sustained") return RunSustained(args);
  if (args.phase == "burst") return RunBurst(args);
  return 2;
}
