// A counting semaphore. post() adds one; wait() blocks until the count is
// above 0 and takes one. Safe to call from any thread.
#pragma once

#include <condition_variable>

#include "pt/PlainMutex.h"

namespace Pt {

class Semaphore {
 public:
  explicit Semaphore(int initial = 0);
  Semaphore(const Semaphore&) = delete;
  Semaphore& operator=(const Semaphore&) = delete;

  void post();
  void wait();
  // As wait, but gives up after `timeoutMs` milliseconds (-1: no limit).
  // Returns false on time-out.
  bool wait_(int timeoutMs);

 private:
  PlainMutex mutex_;
  std::condition_variable available_;
  int count_ PT_GUARDED_BY(mutex_);
};

}  // namespace Pt
