#pragma once

// One phase of the overhead benchmark: the storage module, loaded as the
// agent loads it, fed `rate` events a second from the pool for `seconds`
// (rate 0: opened and left idle), with every HandleEvent call timed.

#include <cstdint>
#include <string>

#include "overhead/EventPool.h"

namespace Tarn::Bench {

struct PhaseFigures {
  uint64_t events = 0;
  double seconds = 0;             // wall time of the phase
  double cpu_seconds = 0;         // the whole process, every thread, during the phase
  double feeder_cpu_seconds = 0;  // of that, the feeding thread (HandleEvent included)
  double handle_seconds = 0;      // inside HandleEvent, summed
  double flush_cpu_seconds = 0;   // after the phase: compressing what it left in the open block
  uint64_t blocks = 0;            // written, the flush's included
  uint64_t stored_bytes = 0;      // the store's files at the end
  uint64_t rss_base_kib = 0;      // before the module was loaded (the pool made)
  uint64_t rss_open_kib = 0;      // with the store open, before the first event
  uint64_t rss_mean_kib = 0;      // sampled once a second during the phase
  uint64_t rss_max_kib = 0;
  uint64_t hwm_kib = 0;  // VmHWM at the end of the phase
  uint64_t p50_ns = 0, p99_ns = 0, p999_ns = 0, max_ns = 0;
  uint64_t over_1ms = 0;  // calls that took longer than a millisecond
  // The control, timed the same way just before each call: copying the
  // event's record into a buffer, which shows what the timing itself and a
  // thread just woken from its sleep cost.
  uint64_t control_p50_ns = 0, control_p99_ns = 0;
};

// Runs one phase in a fresh store under `directory`.
bool RunPhase(EventPool& pool, uint32_t rate, double seconds, const std::string& directory,
              PhaseFigures& figures, std::string& error);

}  // namespace Tarn::Bench
