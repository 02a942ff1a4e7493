// What the storage module costs the agent that hosts it: the module loaded
// as the agent loads it (the tool's module host), fed the synthetic
// endpoint's mix of events at a steady 100, 1,000 and 10,000 events a
// second, and opened and left idle. For each: the CPU share of one core
// (every thread of the process; the feeding thread apart), resident memory,
// and HandleEvent's latency percentiles.
//
//   overhead_bench [--seconds S]            every phase, each in a child process
//   overhead_bench --phase RATE [--seconds S] [--dir D]   one phase (0: idle)
//
// A phase lasts 60 s; TARN_OVERHEAD_SECONDS or --seconds shortens it for a
// trial run. Without --phase the program runs itself once per phase, so that
// each phase's memory is its own, and prints every child's key=value lines
// and then a table.

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <string>

#include "common/Measure.h"
#include "overhead/EventPool.h"
#include "overhead/Phase.h"

namespace {

using namespace Tarn::Bench;  // NOLINT: the program's own namespace

// Twice a 10 MiB block of ~180-byte events: no block sees an event twice.
constexpr uint64_t kPoolEvents = 120'000;
constexpr uint32_t kRates[] = {0, 100, 1'000, 10'000};

struct Args {
  long phase = -1;  // -1: every phase
  double seconds = 60;
  std::string dir;
};

bool ParseArgs(int argc, char** argv, Args& args) {
  if (const char* env = std::getenv("TARN_OVERHEAD_SECONDS")) args.seconds = std::atof(env);
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--phase") == 0) {
      args.phase = std::atol(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--seconds") == 0) {
      args.seconds = std::atof(argv[i + 1]);
    } else if (std::strcmp(argv[i], "--dir") == 0) {
      args.dir = argv[i + 1];
    } else {
      return false;
    }
  }
  return argc % 2 == 1 && args.seconds > 0;
}

void EmitFigures(uint32_t rate, const EventPool& pool, const PhaseFigures& f) {
  Emit("rate", uint64_t{rate});
  Emit("events", f.events);
  Emit("seconds", f.seconds);
  Emit("record_bytes_mean", static_cast<double>(pool.Bytes()) / static_cast<double>(pool.Count()));
  Emit("cpu_share", f.cpu_seconds / f.seconds);
  Emit("feeder_share", f.feeder_cpu_seconds / f.seconds);
  Emit("handle_share", f.handle_seconds / f.seconds);
  Emit("flush_cpu_seconds", f.flush_cpu_seconds);
  Emit("share_with_flush", (f.cpu_seconds + f.flush_cpu_seconds) / f.seconds);
  Emit("blocks", f.blocks);
  Emit("stored_bytes", f.stored_bytes);
  Emit("rss_base_kib", f.rss_base_kib);
  Emit("rss_open_kib", f.rss_open_kib);
  Emit("rss_mean_kib", f.rss_mean_kib);
  Emit("rss_max_kib", f.rss_max_kib);
  Emit("hwm_kib", f.hwm_kib);
  Emit("p50_ns", f.p50_ns);
  Emit("p99_ns", f.p99_ns);
  Emit("p999_ns", f.p999_ns);
  Emit("max_ns", f.max_ns);
  Emit("over_1ms", f.over_1ms);
  Emit("control_p50_ns", f.control_p50_ns);
  Emit("control_p99_ns", f.control_p99_ns);
}

int RunOne(const Args& args) {
  std::string dir = args.dir;
  std::string pattern = (std::filesystem::temp_directory_path() / "tarn-overhead-XXXXXX").string();
  if (dir.empty() && mkdtemp(pattern.data()) != nullptr) dir = pattern + "/store";
  EventPool pool;
  PhaseFigures figures;
  std::string error;
  const bool ok =
      !dir.empty() && pool.Make(kPoolEvents, error) &&
      RunPhase(pool, static_cast<uint32_t>(args.phase), args.seconds, dir, figures, error);
  if (args.dir.empty() && !dir.empty()) {
    std::error_code ignored;
    std::filesystem::remove_all(pattern, ignored);
  }
  if (!ok) {
    std::fprintf(stderr, "overhead_bench: %s\n",
                 error.empty() ? "no store directory" : error.c_str());
    return 1;
  }
  EmitFigures(static_cast<uint32_t>(args.phase), pool, figures);
  return 0;
}

using Values = std::map<std::string, double>;

bool RunChild(const char* self, uint32_t rate, double seconds, Values& values) {
  const std::string command = std::string(self) + " --phase " + std::to_string(rate) +
                              " --seconds " + std::to_string(seconds);
  std::FILE* child = popen(command.c_str(), "r");
  if (child == nullptr) return false;
  char line[256];
  while (std::fgets(line, sizeof line, child) != nullptr) {
    std::fputs(line, stdout);
    if (char* equals = std::strchr(line, '=')) {
      *equals = '\0';
      values[line] = std::atof(equals + 1);
    }
  }
  return pclose(child) == 0;
}

std::string Nanos(double ns) {
  char text[32];
  if (ns < 10'000) {
    std::snprintf(text, sizeof text, "%.0f ns", ns);
  } else {
    std::snprintf(text, sizeof text, "%.1f µs", ns / 1000);
  }
  return text;
}

// The module's share: the process's, less the feeding harness (its thread's
// CPU time outside HandleEvent).
void PrintRow(const Values& v) {
  const double rate = v.at("rate");
  const double harness = v.at("feeder_share") - v.at("handle_share");
  const double module = std::max(0.0, v.at("cpu_share") - harness);
  std::printf(
      "| %s | %.2f%% | %.2f%% | %.2f%% | %.1f / %.1f MiB | %s / %s / %s / %s | %s / %s | %.0f |\n",
      rate == 0 ? "idle" : (std::to_string(static_cast<int>(rate)) + "/s").c_str(),
      100 * v.at("cpu_share"), 100 * module,
      100 * (module + v.at("share_with_flush") - v.at("cpu_share")),
      (v.at("rss_mean_kib") - v.at("rss_base_kib")) / 1024,
      (v.at("hwm_kib") - v.at("rss_base_kib")) / 1024, Nanos(v.at("p50_ns")).c_str(),
      Nanos(v.at("p99_ns")).c_str(), Nanos(v.at("p999_ns")).c_str(), Nanos(v.at("max_ns")).c_str(),
      Nanos(v.at("control_p50_ns")).c_str(), Nanos(v.at("control_p99_ns")).c_str(), v.at("blocks"));
}

int RunAll(const char* self, const Args& args) {
  std::map<uint32_t, Values> results;
  for (uint32_t rate : kRates) {
    std::printf("== phase %u events/s, %.0f s\n", rate, args.seconds);
    std::fflush(stdout);
    if (!RunChild(self, rate, args.seconds, results[rate])) {
      std::fprintf(stderr, "overhead_bench: the phase at %u events/s failed\n", rate);
      return 1;
    }
  }
  std::printf(
      "\n| rate | process CPU, one core | the module's | with its last block compressed | "
      "store's memory mean / peak | HandleEvent p50 / p99 / p99.9 / max | control p50 / p99 "
      "| blocks |\n|---|---|---|---|---|---|---|---|\n");
  for (const auto& [rate, values] : results) PrintRow(values);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  Args args;
  if (!ParseArgs(argc, argv, args)) {
    std::fprintf(stderr, "usage: overhead_bench [--phase RATE] [--seconds S] [--dir D]\n");
    return 1;
  }
  if (args.phase >= 0) return RunOne(args);
  std::error_code ec;
  const std::string self = std::filesystem::read_symlink("/proc/self/exe", ec).string();
  return ec ? 1 : RunAll(self.c_str(), args);
}
