#include "work/WorkManager.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "core/RaiseSites.h"
#include "support/ZeroedConfig.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::SmartPointer;
constexpr int32_t kOwner = 0, kOtherOwner = 1, kHoldId = 1000;

// A one-shot signal; wait() gives up after 30 s so that a fault fails the test
// instead of hanging it. Also logs the ids of the requests that ran.
class Event {
 public:
  void set() { add(0); }
  bool wait() { return waitFor(1).size() >= 1; }
  void add(int id) {
    std::lock_guard<std::mutex> guard(mutex_);
    ids_.push_back(id);
    changed_.notify_all();
  }
  std::vector<int> waitFor(size_t count) {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait_for(guard, std::chrono::seconds(30), [&] { return ids_.size() >= count; });
    return ids_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<int> ids_;
};

// A request made of functions: its work, its failure report and its release.
class Request : public WorkRequest {
 public:
  using Failed = std::function<void(const Pt::Exception&)>;
  Request(int32_t owner, int32_t id, std::function<void()> work, Failed failed = {},
          std::function<void()> released = {})
      : WorkRequest(owner, id), work_(std::move(work)), failed_(failed), released_(released) {}
  ~Request() override {
    if (released_) released_();
  }
  void run() override { work_(); }
  void handleException(const Pt::Exception& error) override {
    if (failed_) failed_(error);
  }

 private:
  std::function<void()> work_;
  Failed failed_;
  std::function<void()> released_;
};

void Start(int32_t workers) {
  Config config = ZeroedConfig();
  config.workerThreads = workers;
  WorkManager::start(config);
}

class WorkManagerTest : public ::testing::Test {
 protected:
  void TearDown() override { EXPECT_EQ(WorkManager::users(), 0); }

  // Queues a request that logs 100 x owner + id when it runs.
  void queueLogged(int32_t owner, int32_t id, int32_t priority) {
    WorkManager::queue(new Request(owner, id, [this, owner, id] { log_.add(100 * owner + id); }),
                       priority);
  }

  // Occupies the single worker until release_ is set.
  void holdWorker(int32_t owner, int32_t id = kHoldId) {
    WorkManager::queue(new Request(owner, id,
                                   [this] {
                                     entered_.set();
                                     release_.wait();
                                   }),
                       1);
    ASSERT_TRUE(entered_.wait());
  }

  Event entered_, release_, log_;
};

TEST_F(WorkManagerTest, RunsHigherPrioritiesFirstAndEachInQueueOrder) {
  Start(1);
  holdWorker(kOwner);
  for (auto [id, priority] : {std::pair{1, 0}, {2, 1}, {3, 2}, {4, 0}, {5, 2}, {6, 1}}) {
    queueLogged(kOwner, id, priority);
  }
  release_.set();
  EXPECT_EQ(log_.waitFor(6), (std::vector<int>{3, 5, 2, 6, 1, 4}));
  WorkManager::stop(kOwner);
}

TEST_F(WorkManagerTest, ReprioritizeAndRemoveAffectOnlyQueuedRequests) {
  Start(1);
  holdWorker(kOwner);
  for (int32_t id : {1, 2, 3, 4, 5}) queueLogged(kOwner, id, id < 4 ? 1 : 2);
  WorkManager::reprioritize(kOwner, 2, 1);  // same priority: keeps its place before 3
  WorkManager::reprioritize(kOwner, 1, 2);  // to the back of priority 2, behind 4 and 5
  WorkManager::reprioritize(kOwner, 5, 0);
  EXPECT_THROW(WorkManager::reprioritize(kOwner, 3, 3), std::out_of_range);
  EXPECT_THROW(WorkManager::reprioritize(kOwner, 3, -1), std::out_of_range);
  EXPECT_THROW(queueLogged(kOwner, 7, 3), std::out_of_range);
  // Running (held), never queued (42) or removed (6): not found, not moved.
  queueLogged(kOwner, 6, 1);
  ASSERT_NE(WorkManager::remove(kOwner, 6), nullptr);
  for (int32_t id : {7, kHoldId, 42, 6}) {
    EXPECT_EQ(WorkManager::remove(kOwner, id), nullptr) << id;
    WorkManager::reprioritize(kOwner, id, 2);
  }
  release_.set();
  EXPECT_EQ(log_.waitFor(5), (std::vector<int>{4, 1, 2, 3, 5}));
  WorkManager::stop(kOwner);
}

TEST_F(WorkManagerTest, OwnersWithEqualRequestIdsAreKeptApart) {
  Start(1);
  Start(1);
  holdWorker(kOtherOwner);
  for (int32_t id : {1, 2, 3}) {
    queueLogged(kOwner, id, 1);
    queueLogged(kOtherOwner, id, 1);
  }
  const SmartPointer<WorkRequest> removed = WorkManager::remove(kOwner, 1);
  ASSERT_NE(removed, nullptr);
  EXPECT_EQ(removed->ownerId(), kOwner);
  WorkManager::reprioritize(kOwner, 3, 2);
  WorkManager::stop(kOwner);  // drops its 2 and 3
  EXPECT_EQ(WorkManager::queuedCount(), 3u);
  release_.set();
  EXPECT_EQ(log_.waitFor(3), (std::vector<int>{101, 102, 103}));
  WorkManager::stop(kOtherOwner);
}

TEST_F(WorkManagerTest, StopWaitsForItsOwnersRunningRequest) {
  // Two users, so that the stop is not the last: a last stop would wait for
  // the request anyway, by joining its worker.
  Start(1);
  Start(1);
  std::atomic<bool> stopReturned{false}, stopStillWaiting{false};
  WorkManager::queue(new Request(kOwner, 1,
                                 [&] {
                                   entered_.set();
                                   release_.wait();
                                   stopStillWaiting = !stopReturned;
                                 }),
                     1);
  ASSERT_TRUE(entered_.wait());
  Event dropped;  // released when stop drops it, which it does before it waits
  WorkManager::queue(new Request(
                         kOwner, 2, [] {}, {}, [&] { dropped.set(); }),
                     1);
  std::thread stopper([&] {
    WorkManager::stop(kOwner);
    stopReturned = true;
  });
  EXPECT_TRUE(dropped.wait());
  release_.set();
  stopper.join();
  EXPECT_TRUE(stopStillWaiting);
  WorkManager::stop(kOtherOwner);
}

// A stop from a request of its owner cannot wait for itself; nor can a last
// stop from a request's release join its own worker. A fresh start then
// serves the next user with the thread count it asks for, capped at 8.
TEST_F(WorkManagerTest, StopOnTheOwnersOwnWorkerDoesNotWaitForItselfAndRestartWorks) {
  Start(20);
  Start(3);
  EXPECT_EQ(WorkManager::threadCount(), 8);
  Event stopped;
  WorkManager::queue(new Request(kOwner, 1,
                                 [&] {
                                   WorkManager::stop(kOwner);
                                   stopped.set();
                                 }),
                     1);
  ASSERT_TRUE(stopped.wait());
  EXPECT_EQ(WorkManager::users(), 1);
  EXPECT_EQ(WorkManager::threadCount(), 8);

  Event testLetGo, released;
  WorkManager::queue(SmartPointer<WorkRequest>(new Request(
                         kOtherOwner, 1, [&] { testLetGo.wait(); }, {},
                         [&] {
                           WorkManager::stop(kOtherOwner);
                           released.set();
                         })),
                     1);
  testLetGo.set();
  ASSERT_TRUE(released.wait());
  EXPECT_EQ(WorkManager::users(), 0);
  EXPECT_EQ(WorkManager::threadCount(), 0);

  Start(3);
  EXPECT_EQ(WorkManager::threadCount(), 3);
  queueLogged(kOwner, 1, 1);
  EXPECT_EQ(log_.waitFor(1).size(), 1u);
  WorkManager::stop(kOwner);
  EXPECT_EQ(WorkManager::threadCount(), 0);
}

TEST_F(WorkManagerTest, FailuresReachTheRequestAndTheWorkerGoesOn) {
  Start(1);
  std::unique_ptr<Pt::Exception> reported;
  Event handled;
  WorkManager::queue(new Request(
                         kOwner, 1, [] { throw ExFactoryClassNotFound(kFactoryLookup.where); },
                         [&](const Pt::Exception& error) {
                           reported.reset(error.clone());
                           handled.set();
                         }),
                     1);
  queueLogged(kOwner, 3, 1);
  ASSERT_TRUE(handled.wait());
  EXPECT_NE(dynamic_cast<ExFactoryClassNotFound*>(reported.get()), nullptr);
  EXPECT_EQ(log_.waitFor(1), std::vector<int>{3});
  WorkManager::stop(kOwner);
}

}  // namespace
}  // namespace Tarn
