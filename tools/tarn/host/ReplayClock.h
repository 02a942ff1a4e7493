#pragma once

#include <cstdint>

namespace Tarn::Tool::ReplayClock {

// The clock the tool installs in Keel, so that the store files each replayed
// event on that event's own day and second: the store reads the time when it
// takes an event in, not from the event.
//
// Only the thread inside a replay sees the event's time. Every other reading
// (the writer thread timing its compression, start-up, shutdown) sees the
// real time, but never less than the floor: a store whose newest day lies
// ahead of the clock at start wipes itself, so the floor is set to the newest
// stored time before the store opens.

// Installs the clock in Keel; readings are max(real time, floor).
void Install(int64_t floor_ms);
void Uninstall();
void RaiseFloor(int64_t floor_ms);

// Makes the calling thread read `ms` until EndReplay.
void BeginReplay(int64_t ms);
void EndReplay();

// What Keel reads now on this thread.
uint64_t NowMs();

}  // namespace Tarn::Tool::ReplayClock
