#include "Keel/OS/Threading.h"

#include <gtest/gtest.h>

#include <atomic>

namespace Keel::OS::Threading {
namespace {

TEST(EventTest, AutoResetLetsOneWaiterThroughPerSet) {
  Event event;
  EXPECT_FALSE(event.Wait(0));
  event.Set();
  EXPECT_TRUE(event.Wait(0));
  EXPECT_FALSE(event.Wait(0));  // consumed by the first wait
  Event initially(true);
  EXPECT_TRUE(initially.Wait(0));
  initially.Set();
  initially.Reset();
  EXPECT_FALSE(initially.Wait(0));
}

TEST(ThreadTest, RunsJoinsAndRefusesASecondStart) {
  Mutex mutex;
  Event started;
  Event release;
  std::atomic<int> runs{0};
  Thread thread;
  ASSERT_TRUE(thread.Start([&] {
    started.Set();
    release.Wait(Event::kInfinite);
    MutexGuard lock(&mutex);
    ++runs;
  }));
  ASSERT_TRUE(started.Wait(10'000));
  EXPECT_TRUE(thread.IsRunning());
  EXPECT_FALSE(thread.Start([] {}));
  release.Set();
  thread.Join();
  EXPECT_FALSE(thread.IsRunning());
  EXPECT_EQ(runs.load(), 1);
  // A joined thread object can run again.
  ASSERT_TRUE(thread.Start([&] { ++runs; }));
  thread.Join();
  EXPECT_EQ(runs.load(), 2);
}

TEST(MutexTest, TryLockSeesTheHolder) {
  Mutex mutex;
  ASSERT_TRUE(mutex.TryLock());
  Thread other;
  std::atomic<bool> got{true};
  ASSERT_TRUE(other.Start([&] { got = mutex.TryLock(); }));
  other.Join();
  EXPECT_FALSE(got.load());
  mutex.Unlock();
  MutexGuard none(nullptr);  // a null mutex means no locking
}

}  // namespace
}  // namespace Keel::OS::Threading
