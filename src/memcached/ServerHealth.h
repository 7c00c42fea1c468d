// ServerHealth: which servers of the fleet are ejected, shared by every
// thread of one tier.
//
// A server that fails `failuresBeforeEjection` requests in a row is ejected
// and left alone for `retryDelay`. When the delay has passed, admit() lets
// exactly one request through as a probe and holds the others back for
// another delay: a probe that succeeds brings the server back, one that fails
// keeps it ejected.
//
// libmemcached ejects servers too, but per handle (each thread has its own)
// and with a retry delay in whole seconds; the tier keeps this one table
// instead and gives every thread the same view.
//
// Invariants (guarded by mutex_, checked by checkInvariants() in debug
// builds, O(servers)):
//   1. a server is ejected exactly when its failures reach the limit;
//   2. a server that is not ejected has no retry time.
//
// Thread-safety: every member takes the lock; safe from any thread.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "pt/PlainMutex.h"

namespace Tarn::Memcached {

class ServerHealth {
 public:
  using Clock = std::chrono::steady_clock;

  ServerHealth(std::size_t servers, uint32_t failuresBeforeEjection,
               std::chrono::milliseconds retryDelay);

  // True if a request may go to `server` now (it is in service, or it is
  // ejected and this request is its probe).
  bool admit(std::size_t server, Clock::time_point now);

  void succeeded(std::size_t server);

  // Counts a failure; returns true if it ejected the server just now.
  bool failed(std::size_t server, Clock::time_point now);

  // False when every server is ejected and none is due for a probe.
  bool anyUsable(Clock::time_point now) const;

  bool ejected(std::size_t server) const;

 private:
  struct Server {
    uint32_t failures = 0;
    bool ejected = false;
    Clock::time_point retryAt{};
  };

  void checkInvariants() const PT_REQUIRES(mutex_);

  const uint32_t limit_;
  const std::chrono::milliseconds retryDelay_;
  mutable Pt::PlainMutex mutex_;
  std::vector<Server> servers_ PT_GUARDED_BY(mutex_);
};

}  // namespace Tarn::Memcached
