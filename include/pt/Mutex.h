// A recursive mutual-exclusion lock.
//
// The same thread may lock a Mutex again while it holds it; it must unlock it
// as often. The file store relies on this: it queues requests while holding
// its lock, and some completions take that lock again.
//
// Mutex meets the standard's Lockable requirements, so std::lock_guard and
// std::unique_lock work with it; MutexLock is the project's own guard.
#pragma once

#include <pthread.h>

#include "pt/ThreadAnnotations.h"

namespace Pt {

class PT_CAPABILITY("mutex") Mutex {
 public:
  Mutex();
  ~Mutex();
  Mutex(const Mutex&) = delete;
  Mutex& operator=(const Mutex&) = delete;

  void lock() PT_ACQUIRE();
  void unlock() PT_RELEASE();
  bool try_lock() PT_TRY_ACQUIRE(true);

 private:
  friend class CondVar;
  pthread_mutex_t mutex_;
};

class PT_SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) PT_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() PT_RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

// A guard that may release its mutex early and take it again, for code that
// hands over from one lock to another.
class PT_SCOPED_CAPABILITY UniqueLock {
 public:
  explicit UniqueLock(Mutex& mutex) PT_ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~UniqueLock() PT_RELEASE() {
    if (owns_) mutex_.unlock();
  }
  UniqueLock(const UniqueLock&) = delete;
  UniqueLock& operator=(const UniqueLock&) = delete;

  void unlock() PT_RELEASE() {
    mutex_.unlock();
    owns_ = false;
  }
  void lock() PT_ACQUIRE() {
    mutex_.lock();
    owns_ = true;
  }

 private:
  Mutex& mutex_;
  bool owns_ = true;
};

}  // namespace Pt
