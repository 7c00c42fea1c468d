#include "pt/Thread.h"

#include <gtest/gtest.h>
#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <thread>

#include "pt/Semaphore.h"

namespace {

constexpr int kPatienceMs = 30000;

// The nice value of the calling thread.
int OwnNice() {
  return getpriority(PRIO_PROCESS, static_cast<id_t>(gettid()));
}

// A detached thread that deletes itself at the end of its body, as the
// library's fire-and-forget threads do.
class SelfDeleting : public Pt::Thread {
 public:
  explicit SelfDeleting(Pt::Semaphore& finished)
      : Pt::Thread(/*detached=*/true), finished_(finished) {}

 protected:
  int run() override {
    Pt::Semaphore& finished = finished_;
    delete this;
    finished.post();
    return 0;
  }

 private:
  Pt::Semaphore& finished_;
};

TEST(PlatformThread, DetachedThreadMayDeleteItself) {
  constexpr int kThreads = 50;
  Pt::Semaphore finished;
  for (int i = 0; i < kThreads; ++i) (new SelfDeleting(finished))->begin();
  int finishedCount = 0;
  while (finishedCount < kThreads && finished.wait_(kPatienceMs)) ++finishedCount;
  EXPECT_EQ(finishedCount, kThreads);
}

// Records the nice value its body runs at.
class NiceProbe : public Pt::Thread {
 public:
  int seen = 0;

 protected:
  int run() override {
    seen = OwnNice();
    return 7;
  }
};

// Runs a thread at `priority` and returns the nice value its body saw.
int NiceSeenAt(Pt::Thread::Priority priority) {
  NiceProbe thread;
  thread.priority(priority);
  thread.begin();
  EXPECT_EQ(thread.join(), 7);
  return thread.seen;
}

// Each case runs on a scratch thread, so that its own scheduling changes do
// not leak into the rest of the test program.
TEST(PlatformThread, LowPriorityIsFiveStepsNicerThanAnAlreadyNiceCreator) {
  std::thread([] {
    // Becoming nicer needs no privilege.
    const int base = std::min(OwnNice() + 2, 19);
    ASSERT_EQ(setpriority(PRIO_PROCESS, static_cast<id_t>(gettid()), base), 0);
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Normal), base);
    EXPECT_EQ(NiceSeenAt(Pt::Thread::Low), std::min(base + 5, 19));
    EXPECT_EQ(OwnNice(), base) << "the creator's own priority changed";
  }).join();
}

TEST(PlatformThread, ProcessorCountHonoursARestrictedMask) {
  std::thread([] {
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
  }).join();
}

}  // namespace
