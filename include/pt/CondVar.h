// A condition variable used with Pt::Mutex.
//
// wait_ releases the mutex while it sleeps and holds it again when it returns.
// The mutex must be held exactly once by the caller (not recursively), or the
// sleep would keep it locked.
#pragma once

#include <pthread.h>

#include "pt/Mutex.h"

namespace Pt {

class CondVar {
 public:
  CondVar();
  ~CondVar();
  CondVar(const CondVar&) = delete;
  CondVar& operator=(const CondVar&) = delete;

  // Sleeps until signalled or until `timeoutMs` milliseconds have passed; -1
  // means no limit. Returns false on time-out. Spurious wake-ups are possible:
  // callers wait in a loop on their condition.
  bool wait_(Mutex& mutex, int timeoutMs) PT_REQUIRES(mutex);

  void signal();     // wakes one waiter
  void broadcast();  // wakes every waiter

 private:
  pthread_cond_t cond_;
};

}  // namespace Pt
