#include "tarn/host/ReplayClock.h"

#include <algorithm>
#include <atomic>

#include "Keel/OS/Time.h"
#include "tarn/cli/TextForms.h"

namespace Tarn::Tool::ReplayClock {
namespace {

std::atomic<int64_t> g_floor_ms{0};
thread_local bool t_replaying = false;
thread_local int64_t t_replay_ms = 0;

}  // namespace

uint64_t NowMs() {
  if (t_replaying) return static_cast<uint64_t>(t_replay_ms);
  return static_cast<uint64_t>(std::max(RealNowMs(), g_floor_ms.load()));
}

void Install(int64_t floor_ms) {
  g_floor_ms.store(floor_ms);
  Keel::OS::Time::SetClockSource(&NowMs);
}

void Uninstall() { Keel::OS::Time::SetClockSource(nullptr); }

void RaiseFloor(int64_t floor_ms) {
  int64_t current = g_floor_ms.load();
  while (floor_ms > current && !g_floor_ms.compare_exchange_weak(current, floor_ms)) {
  }
}

void BeginReplay(int64_t ms) {
  t_replay_ms = ms;
  t_replaying = true;
}

void EndReplay() { t_replaying = false; }

}  // namespace Tarn::Tool::ReplayClock
