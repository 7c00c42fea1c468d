// Which of an engine's threads works now.
//
// One thread at a time is on duty: it takes the engine's work item by item
// (a transfer and its callback, or a reaped completion and its callback).
// Keeping one thread busy instead of handing each request to the next free
// thread saves a wake-up per request, which on a machine with few cores is
// most of the cost of a request.
//
// A second thread, the watcher, ticks every millisecond while work is under
// way. When the thread on duty has spent a whole tick on one item and more
// work waits, the watcher takes over the duty, so a slow callback or a slow
// disk holds up only its own request. The thread that lost the duty goes back
// to serve when its item is done. Further threads sleep until one is needed
// as watcher. After a while without work the watcher sleeps too, until the
// thread on duty starts an item again.
//
// Invariants: at most one thread is on duty and at most one is the watcher;
// `busy_` is true only while the thread on duty is inside an item;
// `itemsStarted_` grows by one per item started on duty.
//
// Every member is guarded by the engine's mutex, which callers hold (the
// `lock` arguments).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace Pt {

class DutyRoster {
 public:
  // Takes the duty when nobody has it; true when `self` is on duty.
  bool claimIfFree(int self) {
    if (duty_ == kNobody) {
      duty_ = self;
      busy_ = false;
    }
    return duty_ == self;
  }
  void release(int self) {
    if (duty_ == self) duty_ = kNobody;
  }

  // The thread on duty starts an item.
  void beginItem() {
    ++itemsStarted_;
    busy_ = true;
    if (watcherSleeping_) {
      watcherSleeping_ = false;
      watcherWake_.notify_one();
    }
  }
  // The item is done; false when the duty was taken over meanwhile.
  bool endItem(int self) {
    if (duty_ != self) return false;
    busy_ = false;
    return true;
  }

  // For a thread that is not on duty: watches, or sleeps until a watcher is
  // needed. Returns when `self` took the duty or `stopping()` holds.
  template <class WorkPending, class Stopping>
  void serve(std::unique_lock<std::mutex>& lock, int self, WorkPending workPending,
             Stopping stopping) {
    while (!stopping() && duty_ != self) {
      if (duty_ == kNobody) {
        claimIfFree(self);
      } else if (watcherPresent_) {
        spare_.wait(lock);
      } else {
        watch(lock, self, workPending, stopping);
      }
    }
  }

  void wakeAll() {
    watcherWake_.notify_all();
    spare_.notify_all();
  }

 private:
  static constexpr int kNobody = -1;
  static constexpr std::chrono::milliseconds kTick{1};
  static constexpr int kIdleTicksBeforeSleep = 50;

  template <class WorkPending, class Stopping>
  void watch(std::unique_lock<std::mutex>& lock, int self, WorkPending workPending,
             Stopping stopping) {
    watcherPresent_ = true;
    uint64_t seen = itemsStarted_;
    int idleTicks = 0;
    while (!stopping() && duty_ != self) {
      if (idleTicks >= kIdleTicksBeforeSleep) {
        watcherSleeping_ = true;
        watcherWake_.wait(lock, [&] { return !watcherSleeping_ || stopping(); });
        watcherSleeping_ = false;
        idleTicks = 0;
        seen = itemsStarted_;
        continue;
      }
      watcherWake_.wait_for(lock, kTick);
      if (!busy_) {
        ++idleTicks;
      } else if (itemsStarted_ == seen && workPending()) {
        duty_ = self;  // the same item for a whole tick, with work waiting: take over
        busy_ = false;
      } else {
        idleTicks = 0;
      }
      seen = itemsStarted_;
    }
    watcherPresent_ = false;
    spare_.notify_one();  // another thread may take the watch
  }

  int duty_ = kNobody;
  bool busy_ = false;
  uint64_t itemsStarted_ = 0;
  bool watcherPresent_ = false;
  bool watcherSleeping_ = false;
  std::condition_variable watcherWake_;
  std::condition_variable spare_;
};

}  // namespace Pt
