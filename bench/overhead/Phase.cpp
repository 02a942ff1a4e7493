#include "overhead/Phase.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <thread>
#include <vector>

#include "Tarn/Events/Base.h"
#include "common/Measure.h"
#include "tarn/host/ModuleHost.h"
#include "tarn/offline/StoreStats.h"

namespace Tarn::Bench {
namespace {

// The feeder wakes at most this often and hands over every event due.
constexpr double kTick = 0.001;

double ThreadCpuSeconds() {
  timespec t{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &t);
  return static_cast<double>(t.tv_sec) + static_cast<double>(t.tv_nsec) / 1e9;
}

void SleepUntil(double when) {
  const double left = when - Now();
  if (left > 0) std::this_thread::sleep_for(std::chrono::duration<double>(left));
}

struct RssSamples {
  uint64_t sum = 0, count = 0, max = 0;
  double next = 0;
  void Take(double now) {
    if (now < next) return;
    next = now + 1.0;
    const uint64_t rss = ResidentKib();
    sum += rss;
    ++count;
    max = std::max(max, rss);
  }
};

uint32_t NanosSince(std::chrono::steady_clock::time_point before) {
  const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
                      std::chrono::steady_clock::now() - before)
                      .count();
  return static_cast<uint32_t>(std::min<int64_t>(ns, UINT32_MAX));
}

struct Timings {
  std::vector<uint32_t> calls;
  std::vector<uint32_t> control;
  std::vector<uint8_t> copy = std::vector<uint8_t>(1 << 16);
};

// Feeds `rate` events a second until `end`, timing each call.
bool Feed(Module::Interface& module, EventPool& pool, uint32_t rate, double start, double end,
          Timings& timings, RssSamples& rss, PhaseFigures& figures) {
  uint64_t fed = 0;
  for (double now = Now(); now < end; now = Now()) {
    const auto due = rate == 0 ? 0 : static_cast<uint64_t>((now - start) * rate);
    for (; fed < due; ++fed) {
      uint32_t size = 0;
      const uint8_t* record = pool.Next(size);
      auto before = std::chrono::steady_clock::now();
      std::memcpy(timings.copy.data(), record, size);
      timings.control.push_back(NanosSince(before));
      Events::Objects::Base event(record, size);
      before = std::chrono::steady_clock::now();
      const bool stored = module.HandleEvent(&event, nullptr);
      timings.calls.push_back(NanosSince(before));
      if (!stored) return false;
    }
    rss.Take(now);
    const double next_due = rate == 0 ? now + 1.0 : start + static_cast<double>(fed + 1) / rate;
    SleepUntil(std::min(end, std::max(next_due, now + kTick)));
  }
  figures.events = fed;
  return true;
}

void Summarize(Timings& timings, PhaseFigures& figures) {
  std::sort(timings.control.begin(), timings.control.end());
  figures.control_p50_ns = Percentile(timings.control, 50);
  figures.control_p99_ns = Percentile(timings.control, 99);
  std::vector<uint32_t>& latencies = timings.calls;
  std::sort(latencies.begin(), latencies.end());
  figures.p50_ns = Percentile(latencies, 50);
  figures.p99_ns = Percentile(latencies, 99);
  figures.p999_ns = Percentile(latencies, 99.9);
  figures.max_ns = latencies.empty() ? 0 : latencies.back();
  for (uint32_t ns : latencies) {
    figures.handle_seconds += ns / 1e9;
    figures.over_1ms += ns > 1'000'000 ? 1 : 0;
  }
}

}  // namespace

bool RunPhase(EventPool& pool, uint32_t rate, double seconds, const std::string& directory,
              PhaseFigures& figures, std::string& error) {
  Timings timings;
  // Room for every call, touched now, so that the phase's memory is the
  // store's.
  const auto calls = static_cast<size_t>(rate * seconds * 1.05) + 16;
  timings.calls.resize(calls);
  timings.calls.clear();
  timings.control.resize(calls);
  timings.control.clear();
  ResetHighWater();
  figures.rss_base_kib = ResidentKib();
  Tool::ModuleHost host;
  Tool::HostOptions options;
  options.store = directory;  // the store's default limits, as an agent starts it
  if (!host.Open(options, error)) return false;
  figures.rss_open_kib = ResidentKib();
  RssSamples rss;
  const double feeder_cpu = ThreadCpuSeconds();
  const double cpu = SelfUsage().cpu_seconds;
  const double start = Now();
  if (!Feed(*host.module(), pool, rate, start, start + seconds, timings, rss, figures)) {
    error = "the store refused an event";
    return false;
  }
  figures.seconds = Now() - start;
  figures.cpu_seconds = SelfUsage().cpu_seconds - cpu;
  figures.feeder_cpu_seconds = ThreadCpuSeconds() - feeder_cpu;
  figures.hwm_kib = HighWaterKib();
  figures.rss_mean_kib = rss.count == 0 ? 0 : rss.sum / rss.count;
  figures.rss_max_kib = rss.max;
  const double before_flush = SelfUsage().cpu_seconds;
  host.Storage()->Flush();
  figures.flush_cpu_seconds = SelfUsage().cpu_seconds - before_flush;
  Summarize(timings, figures);
  if (!host.Close(error)) return false;
  Tool::StoreStats stats;
  if (!Tool::GatherStats(directory, false, stats, error)) return false;
  figures.blocks = stats.blocks;
  figures.stored_bytes = stats.listing.total_size;
  return true;
}

}  // namespace Tarn::Bench
