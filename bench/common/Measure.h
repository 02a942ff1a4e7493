#pragma once

// What the benchmark programs measure about themselves: wall time, CPU time
// (every thread of the process, or the children waited for), memory, and
// how they print it: one "key=value" line per figure, for scripts to read.

#include <cstdint>
#include <string_view>
#include <vector>

namespace Tarn::Bench {

// Seconds on the monotonic clock, from an arbitrary origin.
double Now();

struct Usage {
  double cpu_seconds = 0;  // user + system
  uint64_t max_rss_kib = 0;
};

// The process's own (all its threads), or its waited-for children's.
Usage SelfUsage();
Usage ChildrenUsage();

// From /proc/self/status: VmRSS and VmHWM in KiB; 0 when unreadable.
uint64_t ResidentKib();
uint64_t HighWaterKib();
// Lowers VmHWM to the present VmRSS, so that a phase's peak is its own;
// false when the kernel does not allow it.
bool ResetHighWater();

// Regular files under `directory`, their sizes summed; files whose names
// start with `skip_prefix` (when not empty) are left out.
uint64_t DirectoryBytes(const char* directory, std::string_view skip_prefix = {});

void Emit(const char* key, double value);
void Emit(const char* key, uint64_t value);
void Emit(const char* key, std::string_view value);

// The p-th percentile (0 to 100) of `sorted` (ascending); 0 when empty.
uint64_t Percentile(const std::vector<uint32_t>& sorted, double p);

}  // namespace Tarn::Bench
