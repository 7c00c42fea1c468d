#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "pt/Semaphore.h"

namespace {

// Generous limit for waits that are expected to end long before it.
constexpr int kPatienceMs = 30000;

// Whether another thread can take `mutex` right now.
bool OtherThreadCanLock(Pt::Mutex& mutex) {
  bool locked = false;
  std::thread([&]() PT_NO_THREAD_SAFETY_ANALYSIS {
    if ((locked = mutex.try_lock())) mutex.unlock();
  }).join();
  return locked;
}

// Re-locking is the point here, which the compile-time lock analysis (it
// knows no recursive locks) would reject.
void LockRecursively(Pt::Mutex& mutex) PT_NO_THREAD_SAFETY_ANALYSIS {
  mutex.lock();
  Pt::MutexLock inner(mutex);
  EXPECT_TRUE(mutex.try_lock());
  mutex.unlock();
  mutex.unlock();
  EXPECT_FALSE(OtherThreadCanLock(mutex)) << "released before the last unlock";
}

TEST(PlatformMutex, SameThreadMayLockAgainAndMustUnlockAsOften) {
  Pt::Mutex mutex;
  LockRecursively(mutex);
  EXPECT_TRUE(OtherThreadCanLock(mutex));
}

TEST(PlatformCondVar, TimedWaitWithoutSignalReturnsFalseAndHoldsTheMutex) {
  Pt::Mutex mutex;
  Pt::CondVar cond;
  Pt::MutexLock lock(mutex);
  // A spurious wake-up returns true; a time-out must eventually be reported.
  for (int timeoutMs : {5, 0}) {
    bool timedOut = false;
    for (int attempt = 0; attempt < 100 && !timedOut; ++attempt) {
      timedOut = !cond.wait_(mutex, timeoutMs);
    }
    EXPECT_TRUE(timedOut) << timeoutMs;
  }
  EXPECT_FALSE(OtherThreadCanLock(mutex)) << "the mutex was not taken back";
}

TEST(PlatformCondVar, BroadcastWakesEveryWaiter) {
  constexpr int kWaiters = 6;
  Pt::Mutex mutex;
  Pt::CondVar go;
  int waiting = 0;
  int woken = 0;
  bool released = false;
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    // Half wait without limit; a signalled wait must not report a time-out.
    waiters.emplace_back([&, timeoutMs = i % 2 == 0 ? kPatienceMs : -1] {
      Pt::MutexLock lock(mutex);
      ++waiting;
      bool signalled = true;
      while (!released && signalled) signalled = go.wait_(mutex, timeoutMs);
      if (signalled) ++woken;
    });
  }
  // A waiter that has counted itself in gives up the mutex only inside wait_.
  for (bool all = false; !all; std::this_thread::yield()) {
    Pt::MutexLock lock(mutex);
    all = released = (waiting == kWaiters);
    if (all) go.broadcast();
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, kWaiters);
}

TEST(PlatformSemaphore, CountsEveryPostAcrossThreads) {
  constexpr int kPerThread = 5000;
  Pt::Semaphore semaphore(2);
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kPerThread && semaphore.wait_(kPatienceMs); ++n) taken.fetch_add(1);
    });
    threads.emplace_back([&] {
      for (int n = 0; n < kPerThread; ++n) semaphore.post();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), 4 * kPerThread);
  EXPECT_TRUE(semaphore.wait_(0));  // what is left is the initial count
  EXPECT_TRUE(semaphore.wait_(-1));
  EXPECT_FALSE(semaphore.wait_(5));
}

// The waiter destroys the semaphore as soon as wait returns, while the poster
// may still be inside post(): post must not touch it once a waiter can pass.
TEST(PlatformSemaphore, WaiterMayDestroyItOnceWaitReturns) {
  for (int round = 0; round < 200; ++round) {
    auto semaphore = std::make_unique<Pt::Semaphore>();
    std::thread poster([raw = semaphore.get()] { raw->post(); });
    EXPECT_TRUE(semaphore->wait_(kPatienceMs));
    semaphore.reset();
    poster.join();
  }
}

}  // namespace
