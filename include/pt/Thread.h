// A thread with a virtual body.
//
// Derive, implement run(), call begin() to start it and join() to wait for it.
// A joinable thread (the default) must be joined before it is destroyed. The
// object must outlive its thread.
#pragma once

#include <pthread.h>

#include <atomic>

namespace Pt {

class Thread {
 public:
  // Priorities as the platform numbers them. Normal is the scheduling the
  // thread inherits from the thread that began it; Low and High are one step
  // below and above it. Raising above the inherited level needs privileges the
  // process may lack: the request is then ignored.
  enum Priority { Low = 1, Normal = 2, High = 3 };

  // `detached`: the thread is never joined and cleans up on its own.
  explicit Thread(bool detached = false);
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Starts the thread, which calls run(). Throws Pt::ExSystem when the system
  // cannot create a thread.
  void begin();
  // Waits for run() to return and gives its result.
  int join();
  // Sets the priority; before begin() it takes effect when the thread starts.
  void priority(Priority priority);

 protected:
  virtual int run() = 0;

 private:
  static void* Start(void* self);
  void applyPriority();

  bool detached_;
  bool started_ = false;
  pthread_t handle_{};
  std::atomic<int> priority_{Normal};
  std::atomic<int> systemId_{0};  // kernel thread id once running, for priority changes
  std::atomic<int> baseNice_{0};  // the nice value the thread started with (Normal)
  int result_ = 0;
};

// The number of processors this process may run on (its affinity mask).
int ProcessorCount();

}  // namespace Pt
