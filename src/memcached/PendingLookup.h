// PendingLookup: one lookup between SharedTier::lookup and its answer.
//
// Two threads may race to answer it: the lookup thread with the server's
// reply and the deadline watch with Timeout (or the destructor with
// Unavailable). claim() lets exactly one of them through; the loser drops
// its answer, so the receiver is called exactly once.
//
// Ownership: shared by the lookup queue and the deadline watch.
// Thread-safety: claim() from any thread; the rest is immutable.
#pragma once

#include <atomic>
#include <chrono>
#include <string>

#include "tarn/SharedTier.h"

namespace Tarn::Memcached {

class PendingLookup {
 public:
  using Clock = std::chrono::steady_clock;

  PendingLookup(std::string storedKey, Clock::time_point deadline, TierLookupReceiver& receiver)
      : storedKey_(std::move(storedKey)), deadline_(deadline), receiver_(receiver) {}

  const std::string& storedKey() const { return storedKey_; }
  Clock::time_point deadline() const { return deadline_; }

  // True for the first caller only, which must then answer().
  bool claim() noexcept { return !answered_.exchange(true, std::memory_order_acq_rel); }
  bool answered() const noexcept { return answered_.load(std::memory_order_acquire); }

  void answer(TierLookupStatus status, std::string_view value) noexcept {
    receiver_.tierLookupDone(status, value);
  }

 private:
  const std::string storedKey_;
  const Clock::time_point deadline_;
  TierLookupReceiver& receiver_;
  std::atomic<bool> answered_{false};
};

}  // namespace Tarn::Memcached
