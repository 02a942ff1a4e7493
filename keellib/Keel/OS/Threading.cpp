#include "Keel/OS/Threading.h"

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "Keel/Log.h"

namespace Keel::OS::Threading {
namespace {

enum Message : uint32_t {
  kThreadAlreadyRunning = 1,
  kThreadStartFailed = 2,
};

}  // namespace

struct Mutex::State {
  std::mutex mutex;
};

Mutex::Mutex() : state_(std::make_unique<State>()) {}
Mutex::~Mutex() = default;
void Mutex::Lock() { state_->mutex.lock(); }
void Mutex::Unlock() { state_->mutex.unlock(); }
bool Mutex::TryLock() { return state_->mutex.try_lock(); }

struct Event::State {
  std::mutex mutex;
  std::condition_variable changed;
  bool set = false;
};

Event::Event(bool initially_set) : state_(std::make_unique<State>()) {
  state_->set = initially_set;
}
Event::~Event() = default;

void Event::Set() {
  {
    std::lock_guard<std::mutex> lock(state_->mutex);
    state_->set = true;
  }
  state_->changed.notify_one();
}

void Event::Reset() {
  std::lock_guard<std::mutex> lock(state_->mutex);
  state_->set = false;
}

bool Event::Wait(uint32_t timeout_ms) {
  std::unique_lock<std::mutex> lock(state_->mutex);
  auto is_set = [this] { return state_->set; };
  if (timeout_ms == kInfinite) {
    state_->changed.wait(lock, is_set);
  } else if (!state_->changed.wait_for(lock, std::chrono::milliseconds(timeout_ms), is_set)) {
    return false;
  }
  state_->set = false;  // auto-reset: this waiter consumes the signal
  return true;
}

struct Thread::State {
  std::thread thread;
};

Thread::Thread() : state_(std::make_unique<State>()) {}
Thread::~Thread() { Join(); }

bool Thread::Start(std::function<void()> body) {
  if (state_->thread.joinable()) {
    KEEL_LOG(Log::Error, Log::Threading, kThreadAlreadyRunning, 0, 0, 0);
    return false;
  }
  try {
    state_->thread = std::thread(std::move(body));
  } catch (const std::system_error& error) {
    KEEL_LOG(Log::Error, Log::Threading, kThreadStartFailed, error.code().value(), 0, 0);
    return false;
  }
  return true;
}

void Thread::Join() {
  if (state_->thread.joinable()) state_->thread.join();
}

bool Thread::IsRunning() const { return state_->thread.joinable(); }

}  // namespace Keel::OS::Threading
