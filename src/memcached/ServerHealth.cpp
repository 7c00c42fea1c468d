#include "memcached/ServerHealth.h"

#include <cassert>

namespace Tarn::Memcached {

ServerHealth::ServerHealth(std::size_t servers, uint32_t failuresBeforeEjection,
                           std::chrono::milliseconds retryDelay)
    : limit_(failuresBeforeEjection), retryDelay_(retryDelay), servers_(servers) {}

bool ServerHealth::admit(std::size_t server, Clock::time_point now) {
  Pt::PlainLock lock(mutex_);
  Server& s = servers_.at(server);
  if (!s.ejected) return true;
  if (now < s.retryAt) return false;
  s.retryAt = now + retryDelay_;
  return true;
}

void ServerHealth::succeeded(std::size_t server) {
  Pt::PlainLock lock(mutex_);
  servers_.at(server) = Server{};
#ifndef NDEBUG
  checkInvariants();
#endif
}

bool ServerHealth::failed(std::size_t server, Clock::time_point now) {
  Pt::PlainLock lock(mutex_);
  Server& s = servers_.at(server);
  if (s.failures < limit_) ++s.failures;
  bool ejectedNow = false;
  if (s.failures >= limit_ && !s.ejected) {
    s.ejected = true;
    s.retryAt = now + retryDelay_;
    ejectedNow = true;
  }
#ifndef NDEBUG
  checkInvariants();
#endif
  return ejectedNow;
}

bool ServerHealth::anyUsable(Clock::time_point now) const {
  Pt::PlainLock lock(mutex_);
  for (const Server& s : servers_) {
    if (!s.ejected || now >= s.retryAt) return true;
  }
  return false;
}

bool ServerHealth::ejected(std::size_t server) const {
  Pt::PlainLock lock(mutex_);
  return servers_.at(server).ejected;
}

void ServerHealth::checkInvariants() const {
  for (const Server& s : servers_) {
    assert(s.ejected == (s.failures >= limit_));
    assert(s.ejected || s.retryAt == Clock::time_point{});
    (void)s;
  }
}

}  // namespace Tarn::Memcached
