// PublishQueue: the values waiting for the publisher thread, bounded in
// bytes.
//
// push() copies a key and value in, or refuses them when they would take the
// queue past its bound. The publisher takes one item at a time with pop() and
// reports it finished with done(), so that drain() can wait until everything
// queued has been sent, not only taken.
//
// Invariants (guarded by mutex_): bytes_ is the sum of the sizes of the
// queued items and never exceeds the bound; inFlight_ is 0 or 1.
//
// Thread-safety: every member from any thread; one thread pops.
// Errors: push() may throw std::bad_alloc (nothing is queued then).
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <deque>
#include <optional>
#include <string>
#include <string_view>

#include "pt/PlainMutex.h"

namespace Tarn::Memcached {

class PublishQueue {
 public:
  struct Item {
    std::string key;
    std::string value;
  };

  explicit PublishQueue(std::size_t maxBytes) : maxBytes_(maxBytes) {}

  // False, queueing nothing, if the item does not fit or the queue stopped.
  bool push(std::string_view key, std::string_view value);

  // Waits for an item; empty once stop() has been called.
  std::optional<Item> pop();
  void done();

  // True once every item queued is done, false if `timeout` passed first.
  bool drain(std::chrono::milliseconds timeout);

  // Wakes the publisher for good; returns the number of items dropped.
  std::size_t stop();

 private:
  static std::size_t SizeOf(std::string_view key, std::string_view value) {
    return key.size() + value.size();
  }
  void checkInvariants() const PT_REQUIRES(mutex_);

  const std::size_t maxBytes_;
  Pt::PlainMutex mutex_;
  std::condition_variable changed_;
  std::deque<Item> items_ PT_GUARDED_BY(mutex_);
  std::size_t bytes_ PT_GUARDED_BY(mutex_) = 0;
  int inFlight_ PT_GUARDED_BY(mutex_) = 0;
  bool stopped_ PT_GUARDED_BY(mutex_) = false;
};

}  // namespace Tarn::Memcached
