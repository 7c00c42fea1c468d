// A plain (non-recursive) lock that clang's lock analysis can follow.
//
// PlainMutex wraps std::mutex and carries the analysis' capability
// annotations, so that fields it guards can be marked PT_GUARDED_BY and
// helpers PT_REQUIRES. PlainLock holds it for a scope, may release it early
// and take it again, and hands the underlying std::unique_lock to a
// std::condition_variable (which releases and retakes the lock inside its
// wait; the lock is held again whenever the wait returns, which is all the
// analysis assumes).
//
// Use Pt::Mutex where a thread must be able to take the lock again while it
// holds it; use PlainMutex for short critical sections, and wherever a
// std::condition_variable waits on the lock.
//
// Ownership: a PlainLock refers to its PlainMutex, which must outlive it.
// Thread-safety: as std::mutex. Errors: none; locking never throws in
// practice (std::mutex::lock throws only on a system error).
#pragma once

#include <mutex>

#include "pt/ThreadAnnotations.h"

namespace Pt {

class PT_CAPABILITY("mutex") PlainMutex {
 public:
  PlainMutex() = default;
  PlainMutex(const PlainMutex&) = delete;
  PlainMutex& operator=(const PlainMutex&) = delete;

  void lock() PT_ACQUIRE() { mutex_.lock(); }
  void unlock() PT_RELEASE() { mutex_.unlock(); }

 private:
  friend class PlainLock;
  std::mutex mutex_;
};

class PT_SCOPED_CAPABILITY PlainLock {
 public:
  explicit PlainLock(PlainMutex& mutex) PT_ACQUIRE(mutex) : lock_(mutex.mutex_) {}
  ~PlainLock() PT_RELEASE() {}
  PlainLock(const PlainLock&) = delete;
  PlainLock& operator=(const PlainLock&) = delete;

  void unlock() PT_RELEASE() { lock_.unlock(); }
  void lock() PT_ACQUIRE() { lock_.lock(); }

  // For std::condition_variable::wait and friends only.
  std::unique_lock<std::mutex>& native() { return lock_; }

 private:
  std::unique_lock<std::mutex> lock_;
};

}  // namespace Pt
