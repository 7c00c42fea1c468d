#include "pt/Thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <functional>
#include <memory>
#include <thread>
#include <utility>
#include <vector>

#include "pt/Semaphore.h"

namespace {

constexpr int kPatienceMs = 30000;

// The nice value of the calling thread.
int OwnNice() {
  errno = 0;
  return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

int ClampNice(int nice) {
  return std::clamp(nice, -20, 19);
}

// A thread whose body is a function.
class FunctionThread : public Pt::Thread {
 public:
  explicit FunctionThread(std::function<int()> body) : body_(std::move(body)) {}

 protected:
  int run() override { return body_(); }

 private:
  std::function<int()> body_;
};

// ---------------------------------------------------------------------------
// Running and joining

TEST(PlatformThread, JoinGivesTheResultOfRun) {
  std::vector<std::unique_ptr<FunctionThread>> threads;
  std::vector<std::thread::id> ranOn(8);
  for (int i = 0; i < 8; ++i) {
    threads.push_back(std::make_unique<FunctionThread>([i, &ranOn] {
      ranOn[i] = std::this_thread::get_id();
      return 100 + i;
    }));
  }
  for (auto& thread : threads) thread->begin();
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(threads[i]->join(), 100 + i);
    EXPECT_NE(ranOn[i], std::this_thread::get_id());
  }
}

// A detached thread that deletes itself at the end of its body, as the
// library's fire-and-forget threads do.
class SelfDeleting : public Pt::Thread {
 public:
  SelfDeleting(std::atomic<int>& destroyed, Pt::Semaphore& finished)
      : Pt::Thread(/*detached=*/true), destroyed_(destroyed), finished_(finished) {}
  ~SelfDeleting() override { destroyed_.fetch_add(1); }

 protected:
  int run() override {
    Pt::Semaphore& finished = finished_;
    delete this;
    finished.post();
    return 0;
  }

 private:
  std::atomic<int>& destroyed_;
  Pt::Semaphore& finished_;
};

TEST(PlatformThread, DetachedThreadMayDeleteItself) {
  constexpr int kThreads = 50;
  std::atomic<int> destroyed{0};
  Pt::Semaphore finished;
  for (int i = 0; i < kThreads; ++i) (new SelfDeleting(destroyed, finished))->begin();
  int finishedCount = 0;
  while (finishedCount < kThreads && finished.wait_(kPatienceMs)) ++finishedCount;
  EXPECT_EQ(finishedCount, kThreads);
  EXPECT_EQ(destroyed.load(), kThreads);
}

// ---------------------------------------------------------------------------
// Priority

// Runs `body` on a fresh std::thread, so that changes it makes to its own
// scheduling do not leak into the rest of the test program.
void OnScratchThread(const std::function<void()>& body) {
  std::thread(body).join();
}

// Starts a Pt::Thread at `priority` from the calling thread and returns the
// nice value its body saw.
int NiceSeenAt(Pt::Thread::Priority priority) {
  int seen = 0;
  FunctionThread thread([&seen] {
    seen = OwnNice();
    return 0;
  });
  thread.priority(priority);
  thread.begin();
  thread.join();
  return seen;
}

TEST(PlatformThread, LowPriorityIsFiveStepsNicerThanItsCreator) {
  OnScratchThread([] {
    const int base = OwnNice();
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Normal), base);
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Low), ClampNice(base + 5));
  });
}

TEST(PlatformThread, LowPriorityIsRelativeToAnAlreadyNiceCreator) {
  OnScratchThread([] {
    // Becoming nicer needs no privilege.
    const int base = ClampNice(OwnNice() + 2);
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), base), 0);
    ASSERT_EQ(OwnNice(), base);
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Normal), base);
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Low), ClampNice(base + 5));
  });
}

TEST(PlatformThread, PriorityChangesWhileRunning) {
  OnScratchThread([] {
    const int base = OwnNice();
    Pt::Semaphore started;
    Pt::Semaphore go;
    int seen = 0;
    FunctionThread thread([&] {
      started.post();
      if (!go.wait_(kPatienceMs)) return -1;
      seen = OwnNice();
      return 0;
    });
    thread.begin();
    EXPECT_TRUE(started.wait_(kPatienceMs));
    thread.priority(Pt::Thread::Low);
    go.post();
    EXPECT_EQ(thread.join(), 0);
    EXPECT_EQ(seen, ClampNice(base + 5));
    EXPECT_EQ(OwnNice(), base) << "the creator's own priority changed";
  });
}

// ---------------------------------------------------------------------------
// Processor count

TEST(PlatformThread, ProcessorCountHonoursARestrictedMask) {
  OnScratchThread([] {
    cpu_set_t allowed;
    CPU_ZERO(&allowed);
    ASSERT_EQ(sched_getaffinity(0, sizeof allowed, &allowed), 0);
    EXPECT_EQ(Pt::ProcessorCount(), CPU_COUNT(&allowed));
    int first = 0;
    while (!CPU_ISSET(first, &allowed)) ++first;

    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(first, &one);
    ASSERT_EQ(sched_setaffinity(0, sizeof one, &one), 0);
    EXPECT_EQ(Pt::ProcessorCount(), 1);
  });
}

}  // namespace
