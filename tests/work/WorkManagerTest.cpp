#include "work/WorkManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/RaiseSites.h"
#include "support/PostedExceptions.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::SmartPointer;

constexpr auto kPatience = std::chrono::seconds(30);
constexpr int32_t kOwner = 0;
constexpr int32_t kOtherOwner = 1;
constexpr int32_t kHoldId = 1000;

// A one-shot signal; wait() gives up after kPatience so that a fault fails the
// test instead of hanging it.
class Event {
 public:
  void set() {
    std::lock_guard<std::mutex> guard(mutex_);
    set_ = true;
    changed_.notify_all();
  }
  bool wait() {
    std::unique_lock<std::mutex> guard(mutex_);
    return changed_.wait_for(guard, kPatience, [this] { return set_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool set_ = false;
};

// The ids that requests logged as they ran, in order.
class RunLog {
 public:
  void add(int id) {
    std::lock_guard<std::mutex> guard(mutex_);
    ids_.push_back(id);
    changed_.notify_all();
  }
  std::vector<int> waitFor(size_t count) {
    std::unique_lock<std::mutex> guard(mutex_);
    changed_.wait_for(guard, kPatience, [&] { return ids_.size() >= count; });
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
      : WorkRequest(owner, id),
        work_(std::move(work)),
        failed_(std::move(failed)),
        released_(std::move(released)) {}
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

Config Workers(int32_t count) {
  Config config{};
  config.workerThreads = count;
  return config;
}

class WorkManagerTest : public ::testing::Test {
 protected:
  // Every test must leave the pool idle with nothing of its own queued.
  void TearDown() override { EXPECT_EQ(WorkManager::users(), 0); }

  // Queues a request that logs 100 x owner + id when it runs.
  void queueLogged(int32_t owner, int32_t id, int32_t priority) {
    WorkManager::queue(new Request(owner, id, [this, owner, id] { log_.add(100 * owner + id); }),
                       priority);
  }

  // Occupies the (single) worker until release_ is set, so that the test can
  // queue and rearrange requests before any of them is taken.
  void holdWorker(int32_t owner) {
    Event* entered = &entered_;
    Event* release = &release_;
    WorkManager::queue(new Request(owner, kHoldId,
                                   [=] {
                                     entered->set();
                                     release->wait();
                                   }),
                       WorkManager::kNormalPriority);
    ASSERT_TRUE(entered_.wait());
  }

  Event entered_;
  Event release_;
  RunLog log_;
};

TEST_F(WorkManagerTest, RunsHigherPrioritiesFirstAndEachInQueueOrder) {
  WorkManager::start(Workers(1));
  holdWorker(kOwner);
  queueLogged(kOwner, 1, 0);
  queueLogged(kOwner, 2, 1);
  queueLogged(kOwner, 3, 2);
  queueLogged(kOwner, 4, 0);
  queueLogged(kOwner, 5, 2);
  queueLogged(kOwner, 6, 1);
  release_.set();
  EXPECT_EQ(log_.waitFor(6), (std::vector<int>{3, 5, 2, 6, 1, 4}));
  WorkManager::stop(kOwner);
}

TEST_F(WorkManagerTest, ReprioritizeAndRemoveAffectOnlyQueuedRequests) {
  WorkManager::start(Workers(1));
  holdWorker(kOwner);
  for (int32_t id : {1, 2, 3}) queueLogged(kOwner, id, 1);
  for (int32_t id : {4, 5}) queueLogged(kOwner, id, 2);

  WorkManager::reprioritize(kOwner, 2, 1);  // same priority: keeps its place before 3
  WorkManager::reprioritize(kOwner, 1, 2);  // to the back of priority 2, behind 4 and 5
  WorkManager::reprioritize(kOwner, 5, 0);
  EXPECT_THROW(WorkManager::reprioritize(kOwner, 3, 3), std::out_of_range);
  EXPECT_THROW(WorkManager::reprioritize(kOwner, 3, -1), std::out_of_range);
  EXPECT_THROW(queueLogged(kOwner, 7, 3), std::out_of_range);
  EXPECT_EQ(WorkManager::remove(kOwner, 7), nullptr);

  // The held request is running, 42 was never queued: neither can be moved
  // or taken.
  EXPECT_EQ(WorkManager::remove(kOwner, kHoldId), nullptr);
  WorkManager::reprioritize(kOwner, kHoldId, 0);
  EXPECT_EQ(WorkManager::remove(kOwner, 42), nullptr);
  WorkManager::reprioritize(kOwner, 42, 0);

  queueLogged(kOwner, 6, 1);
  const SmartPointer<WorkRequest> removed = WorkManager::remove(kOwner, 6);
  ASSERT_NE(removed, nullptr);
  EXPECT_EQ(removed->requestId(), 6);
  EXPECT_EQ(WorkManager::remove(kOwner, 6), nullptr);
  WorkManager::reprioritize(kOwner, 6, 2);

  release_.set();
  EXPECT_EQ(log_.waitFor(5), (std::vector<int>{4, 1, 2, 3, 5}));
  WorkManager::stop(kOwner);
}

TEST_F(WorkManagerTest, OwnersWithEqualRequestIdsAreKeptApart) {
  WorkManager::start(Workers(1));
  WorkManager::start(Workers(1));
  holdWorker(kOtherOwner);
  for (int32_t id : {1, 2, 3}) {
    queueLogged(kOwner, id, 1);
    queueLogged(kOtherOwner, id, 1);
  }
  EXPECT_EQ(WorkManager::queuedCount(), 6u);
  const SmartPointer<WorkRequest> removed = WorkManager::remove(kOwner, 1);
  ASSERT_NE(removed, nullptr);
  EXPECT_EQ(removed->ownerId(), kOwner);
  WorkManager::reprioritize(kOwner, 3, 2);
  WorkManager::stop(kOwner);  // drops its 2 and 3
  EXPECT_EQ(WorkManager::remove(kOwner, 2), nullptr);
  EXPECT_EQ(WorkManager::queuedCount(), 3u);

  release_.set();
  EXPECT_EQ(log_.waitFor(3), (std::vector<int>{101, 102, 103}));
  WorkManager::stop(kOtherOwner);
}

TEST_F(WorkManagerTest, StopWaitsForItsOwnersRunningRequest) {
  // Two users, so that the stop is not the last: a last stop would wait for
  // the request anyway, by joining its worker.
  WorkManager::start(Workers(1));
  WorkManager::start(Workers(1));
  std::atomic<bool> stopReturned{false};
  std::atomic<bool> stopStillWaiting{false};
  WorkManager::queue(new Request(kOwner, 1,
                                 [&] {
                                   entered_.set();
                                   release_.wait();
                                   stopStillWaiting = !stopReturned;
                                 }),
                     1);
  ASSERT_TRUE(entered_.wait());
  // Released when stop drops it, which it does before it waits.
  Event dropped;
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

TEST_F(WorkManagerTest, StopOnTheOwnersOwnWorkerDoesNotWaitForItself) {
  WorkManager::start(Workers(1));
  WorkManager::start(Workers(1));
  Event stopped;
  WorkManager::queue(new Request(kOwner, 1,
                                 [&] {
                                   WorkManager::stop(kOwner);
                                   stopped.set();
                                 }),
                     1);
  ASSERT_TRUE(stopped.wait());
  EXPECT_EQ(WorkManager::users(), 1);

  // The last user stops from the release of its request, as an owner kept
  // alive only by that request would: the worker cannot join itself.
  Event testLetGo;
  Event released;
  {
    const SmartPointer<WorkRequest> request(new Request(
        kOtherOwner, 1, [&] { testLetGo.wait(); }, {},
        [&] {
          WorkManager::stop(kOtherOwner);
          released.set();
        }));
    WorkManager::queue(request, 1);
  }
  testLetGo.set();
  ASSERT_TRUE(released.wait());
  EXPECT_EQ(WorkManager::users(), 0);
  EXPECT_EQ(WorkManager::threadCount(), 0);

  // A fresh set serves the next user; its last stop also joins the worker
  // left behind.
  WorkManager::start(Workers(1));
  EXPECT_EQ(WorkManager::threadCount(), 1);
  queueLogged(kOwner, 1, 1);
  EXPECT_EQ(log_.waitFor(1).size(), 1u);
  WorkManager::stop(kOwner);
}

TEST_F(WorkManagerTest, FirstUserStartsTheThreadsAndLastStopJoinsThem) {
  WorkManager::start(Workers(20));
  EXPECT_EQ(WorkManager::threadCount(), 8);
  WorkManager::start(Workers(3));
  EXPECT_EQ(WorkManager::threadCount(), 8);
  EXPECT_EQ(WorkManager::users(), 2);
  WorkManager::stop(kOwner);
  EXPECT_EQ(WorkManager::threadCount(), 8);
  queueLogged(kOtherOwner, 1, 1);
  EXPECT_EQ(log_.waitFor(1).size(), 1u);
  WorkManager::stop(kOtherOwner);
  EXPECT_EQ(WorkManager::threadCount(), 0);

  WorkManager::start(Workers(3));
  EXPECT_EQ(WorkManager::threadCount(), 3);
  queueLogged(kOwner, 2, 1);
  EXPECT_EQ(log_.waitFor(2).size(), 2u);
  WorkManager::stop(kOwner);
  EXPECT_EQ(WorkManager::threadCount(), 0);
}

TEST_F(WorkManagerTest, FailuresReachTheRequestOrArePostedAndTheWorkerGoesOn) {
  TarnTest::PostedExceptions posted;
  WorkManager::start(Workers(1));
  std::unique_ptr<Pt::Exception> reported;
  Event handled;
  WorkManager::queue(new Request(
                         kOwner, 1, [] { throw ExFactoryClassNotFound(kFactoryLookup.where); },
                         [&](const Pt::Exception& error) {
                           reported.reset(error.clone());
                           handled.set();
                         }),
                     1);
  WorkManager::queue(new Request(kOwner, 2, [] { throw std::runtime_error("disk on fire"); }), 1);
  queueLogged(kOwner, 3, 1);

  ASSERT_TRUE(handled.wait());
  EXPECT_NE(dynamic_cast<ExFactoryClassNotFound*>(reported.get()), nullptr);
  ASSERT_TRUE(posted.waitFor(1));
  EXPECT_NE(std::string(posted.at(0)->what()).find("disk on fire"), std::string::npos);
  EXPECT_EQ(log_.waitFor(1), std::vector<int>{3});
  WorkManager::stop(kOwner);
}

// Users come and go at once, each for several rounds in which it starts,
// queues, moves and withdraws requests, waits for them and stops; the pool
// goes idle and starts again along the way. Every request not withdrawn runs
// exactly once.
TEST_F(WorkManagerTest, ConcurrentUsersLoseAndRepeatNoRequest) {
  constexpr int kUsers = 4;
  constexpr int kRounds = 5;
  constexpr int kRequests = 20;
  std::vector<std::unique_ptr<RunLog>> logs;
  std::vector<std::vector<int>> expected(kUsers);
  std::vector<std::thread> users;
  for (int32_t owner = 0; owner < kUsers; ++owner) {
    RunLog* log = logs.emplace_back(std::make_unique<RunLog>()).get();
    users.emplace_back([owner, log, &mine = expected[owner]] {
      for (int32_t id = 0; id < kRounds * kRequests; ++id) {
        if (id % kRequests == 0) WorkManager::start(Workers(2));
        WorkManager::queue(new Request(owner, id, [log, id] { log->add(id); }), id % 3);
        if (id % 4 == 0) WorkManager::reprioritize(owner, id, 2);
        if (id % 5 != 0 || WorkManager::remove(owner, id) == nullptr) mine.push_back(id);
        if (id % kRequests == kRequests - 1) {
          log->waitFor(mine.size());
          WorkManager::stop(owner);
        }
      }
    });
  }
  for (std::thread& user : users) user.join();
  for (int32_t owner = 0; owner < kUsers; ++owner) {
    std::vector<int> ran = logs[owner]->waitFor(expected[owner].size());
    std::sort(ran.begin(), ran.end());
    EXPECT_EQ(ran, expected[owner]) << "owner " << owner;
  }
}

}  // namespace
}  // namespace Tarn
