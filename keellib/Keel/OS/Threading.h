#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Keel/Export.h"

namespace Keel::OS::Threading {

// A plain mutual-exclusion lock. Not recursive.
class KEEL_API Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void Lock();
  void Unlock();
  bool TryLock();

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// Holds a mutex for its scope. A null mutex is allowed and means no locking,
// which is how collections created without a lock behave.
class KEEL_API MutexGuard {
 public:
  explicit MutexGuard(Mutex* mutex) : mutex_(mutex) {
    if (mutex_) mutex_->Lock();
  }
  ~MutexGuard() {
    if (mutex_) mutex_->Unlock();
  }
  MutexGuard(const MutexGuard&) = delete;
  MutexGuard& operator=(const MutexGuard&) = delete;

 private:
  Mutex* mutex_;
};

// An auto-reset event: Set wakes one waiter (or the next one to wait) and the
// event returns to unset as that waiter leaves Wait.
class KEEL_API Event {
 public:
  explicit Event(bool initially_set = false);
  ~Event();
  Event(const Event&) = delete;
  Event& operator=(const Event&) = delete;

  void Set();
  void Reset();
  // Waits up to `timeout_ms` (kInfinite: forever). True when the event was set.
  bool Wait(uint32_t timeout_ms);

  static constexpr uint32_t kInfinite = 0xFFFFFFFFu;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

// A joinable thread running one function.
class KEEL_API Thread {
 public:
  Thread();
  ~Thread();  // joins a running thread
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Fails (false, logged) when a thread is already running or cannot start.
  bool Start(std::function<void()> body);
  void Join();
  bool IsRunning() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace Keel::OS::Threading
