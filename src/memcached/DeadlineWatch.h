// DeadlineWatch: a thread that answers lookups whose deadline has passed.
//
// Every lookup handed to the tier is watched from the moment it is queued
// until its deadline; at the deadline, one that no server reply has answered
// yet is given to `expire` (which answers Timeout). Lookups already answered
// are simply forgotten at their deadline.
//
// Invariants (guarded by mutex_): the heap is ordered by deadline, earliest
// first; after stop() it is empty and stays so.
//
// Thread-safety: watch() and stop() from any thread.
// Errors: the constructor throws std::system_error if the thread cannot
// start; watch() may throw std::bad_alloc (the lookup is then not watched).
#pragma once

#include <condition_variable>
#include <functional>
#include <memory>
#include <queue>
#include <thread>
#include <vector>

#include "memcached/PendingLookup.h"
#include "pt/PlainMutex.h"

namespace Tarn::Memcached {

class DeadlineWatch {
 public:
  using Expire = std::function<void(PendingLookup&)>;

  explicit DeadlineWatch(Expire expire);
  ~DeadlineWatch();  // stops if stop() was not called

  void watch(std::shared_ptr<PendingLookup> lookup);

  // Ends the thread and hands every lookup still watched to `drop` (on the
  // calling thread, without the lock). The caller stops calling watch()
  // first: a lookup watched after stop() would never expire.
  void stop(const Expire& drop);

 private:
  struct Later {
    bool operator()(const std::shared_ptr<PendingLookup>& a,
                    const std::shared_ptr<PendingLookup>& b) const {
      return a->deadline() > b->deadline();
    }
  };
  using Heap = std::priority_queue<std::shared_ptr<PendingLookup>,
                                   std::vector<std::shared_ptr<PendingLookup>>, Later>;

  void run();
  std::vector<std::shared_ptr<PendingLookup>> takeExpired(PendingLookup::Clock::time_point now)
      PT_REQUIRES(mutex_);

  const Expire expire_;
  Pt::PlainMutex mutex_;
  std::condition_variable wake_;
  Heap heap_ PT_GUARDED_BY(mutex_);
  bool stopping_ PT_GUARDED_BY(mutex_) = false;
  std::thread thread_;
};

}  // namespace Tarn::Memcached
