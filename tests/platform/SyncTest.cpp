#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <memory>
#include <mutex>
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
  return std::async(std::launch::async,
                    [&mutex] {
                      if (!mutex.try_lock()) return false;
                      mutex.unlock();
                      return true;
                    })
      .get();
}

// ---------------------------------------------------------------------------
// Mutex

// Re-locking is the point here, which the compile-time lock analysis (it
// knows no recursive locks) would reject.
void LockRecursively(Pt::Mutex& mutex) PT_NO_THREAD_SAFETY_ANALYSIS {
  {
    Pt::MutexLock outer(mutex);
    Pt::MutexLock inner(mutex);
    EXPECT_TRUE(mutex.try_lock());
    EXPECT_FALSE(OtherThreadCanLock(mutex));
    mutex.unlock();
  }
  EXPECT_TRUE(OtherThreadCanLock(mutex));

  mutex.lock();
  mutex.lock();
  mutex.unlock();
  EXPECT_FALSE(OtherThreadCanLock(mutex)) << "released before the last unlock";
  mutex.unlock();
  EXPECT_TRUE(OtherThreadCanLock(mutex));
}

TEST(PlatformMutex, SameThreadMayLockAgainAndMustUnlockAsOften) {
  Pt::Mutex mutex;
  LockRecursively(mutex);
}

TEST(PlatformMutex, ExcludesOtherThreads) {
  constexpr int kThreads = 4;
  constexpr int kIncrements = 20000;
  Pt::Mutex mutex;
  long counter = 0;  // deliberately not atomic
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kIncrements; ++i) {
        if (t % 2 == 0) {
          Pt::MutexLock lock(mutex);
          ++counter;
        } else {
          std::unique_lock<Pt::Mutex> lock(mutex);  // the standard guards work too
          ++counter;
        }
      }
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(counter, static_cast<long>(kThreads) * kIncrements);
}

// ---------------------------------------------------------------------------
// CondVar

TEST(PlatformCondVar, TimedWaitWithoutSignalReturnsFalseAndHoldsTheMutex) {
  Pt::Mutex mutex;
  Pt::CondVar cond;
  Pt::MutexLock lock(mutex);
  // A spurious wake-up returns true; a time-out must eventually be reported.
  bool timedOut = false;
  for (int attempt = 0; attempt < 100 && !timedOut; ++attempt) timedOut = !cond.wait_(mutex, 5);
  EXPECT_TRUE(timedOut);
  EXPECT_FALSE(OtherThreadCanLock(mutex));

  timedOut = false;
  for (int attempt = 0; attempt < 100 && !timedOut; ++attempt) timedOut = !cond.wait_(mutex, 0);
  EXPECT_TRUE(timedOut);
}

TEST(PlatformCondVar, SignalWakesATimedAndAnUnlimitedWaiter) {
  for (int timeoutMs : {kPatienceMs, -1}) {
    SCOPED_TRACE(timeoutMs);
    Pt::Mutex mutex;
    Pt::CondVar cond;
    bool ready = false;
    bool allSignalled = true;
    std::thread waiter([&] {
      Pt::MutexLock lock(mutex);
      while (!ready) {
        if (!cond.wait_(mutex, timeoutMs)) {
          allSignalled = false;
          break;
        }
      }
    });
    {
      Pt::MutexLock lock(mutex);
      ready = true;
      cond.signal();
    }
    waiter.join();
    EXPECT_TRUE(allSignalled) << "a wait that was signalled reported a time-out";
  }
}

TEST(PlatformCondVar, BroadcastWakesEveryWaiter) {
  constexpr int kWaiters = 6;
  Pt::Mutex mutex;
  Pt::CondVar arrived;
  Pt::CondVar go;
  int waiting = 0;
  int generation = 0;
  int woken = 0;
  std::vector<std::thread> waiters;
  for (int i = 0; i < kWaiters; ++i) {
    waiters.emplace_back([&] {
      Pt::MutexLock lock(mutex);
      const int seen = generation;
      ++waiting;
      arrived.signal();
      // A lost wake-up ends in a time-out instead of a hang.
      while (generation == seen) {
        if (!go.wait_(mutex, kPatienceMs)) return;
      }
      ++woken;
    });
  }
  {
    Pt::MutexLock lock(mutex);
    // Once all have counted themselves in, each is inside wait_: it released
    // the mutex there, or this thread could not hold it.
    bool inTime = true;
    while (waiting < kWaiters && inTime) inTime = arrived.wait_(mutex, kPatienceMs);
    EXPECT_EQ(waiting, kWaiters);
    ++generation;
    go.broadcast();
  }
  for (auto& waiter : waiters) waiter.join();
  EXPECT_EQ(woken, kWaiters);
}

// ---------------------------------------------------------------------------
// Semaphore

TEST(PlatformSemaphore, CountsPostsAndWaits) {
  Pt::Semaphore semaphore(2);
  EXPECT_TRUE(semaphore.wait_(0));
  EXPECT_TRUE(semaphore.wait_(0));
  EXPECT_FALSE(semaphore.wait_(0));
  EXPECT_FALSE(semaphore.wait_(5));

  semaphore.post();
  semaphore.post();
  semaphore.post();
  semaphore.wait();
  EXPECT_TRUE(semaphore.wait_(-1));
  EXPECT_TRUE(semaphore.wait_(0));
  EXPECT_FALSE(semaphore.wait_(0));
}

TEST(PlatformSemaphore, WaitBlocksUntilAnotherThreadPosts) {
  Pt::Semaphore semaphore;
  Pt::Semaphore started;
  std::atomic<bool> passed{false};
  std::thread waiter([&] {
    started.post();
    semaphore.wait();
    passed = true;
  });
  ASSERT_TRUE(started.wait_(kPatienceMs));
  EXPECT_FALSE(passed.load());  // nothing posted yet: it cannot have passed
  semaphore.post();
  waiter.join();
  EXPECT_TRUE(passed.load());
}

TEST(PlatformSemaphore, NoPostIsLostBetweenManyThreads) {
  constexpr int kProducers = 4;
  constexpr int kConsumers = 4;
  constexpr int kPerProducer = 5000;
  constexpr int kPerConsumer = kProducers * kPerProducer / kConsumers;
  Pt::Semaphore semaphore;
  std::atomic<int> taken{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kConsumers; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kPerConsumer; ++n) {
        if (!semaphore.wait_(kPatienceMs)) return;
        taken.fetch_add(1);
      }
    });
  }
  for (int i = 0; i < kProducers; ++i) {
    threads.emplace_back([&] {
      for (int n = 0; n < kPerProducer; ++n) semaphore.post();
    });
  }
  for (auto& thread : threads) thread.join();
  EXPECT_EQ(taken.load(), kProducers * kPerProducer);
  EXPECT_FALSE(semaphore.wait_(0));
}

// The waiter owns the semaphore and destroys it as soon as wait returns, while
// the posting thread may still be inside post(): post must not touch the
// semaphore once a waiter can see the count.
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
