// Connection: one libmemcached handle (memcached_st) on the whole fleet.
//
// A memcached_st may be used by one thread at a time, so every thread of the
// tier owns a Connection. The handle speaks the binary protocol, places keys
// with consistent (ketama) hashing and waits no longer than the configured
// connect and receive timeouts. After a failed request the handle is rebuilt
// (reset()), so that no state libmemcached kept about the failure outlives
// it: whether to try the server again is ServerHealth's decision alone.
//
// Thread-safety: none; one thread at a time.
// Errors: the constructor and reset() throw std::bad_alloc when libmemcached
// cannot allocate a handle; requests report failures in their result.
#pragma once

#include <cstdint>
#include <cstdlib>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include <libmemcached-1.0/memcached.h>

#include "tarn/MemcachedTier.h"

namespace Tarn::Memcached {

struct ServerAddress {
  std::string host;
  uint16_t port = 0;
};

class Connection {
 public:
  enum class Outcome {
    Found,     // get: the value is in `bytes`
    NotFound,  // get: the server has no value under the key
    Stored,    // set: the server stored the value
    Refused,   // set: the server answered but did not store it (too large)
    Failed,    // no usable answer: connection refused, timed out, broken
  };

  struct Reply {
    Outcome outcome = Outcome::Failed;
    std::unique_ptr<char, decltype(&std::free)> bytes{nullptr, &std::free};
    std::size_t length = 0;
    memcached_return_t code = MEMCACHED_FAILURE;
  };

  Connection(const std::vector<ServerAddress>& servers, const MemcachedTierConfig& config);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  // The position (in the server list) of the server that holds `key`.
  // get() and set() try once more on a fresh handle after a failure other
  // than a timeout.
  std::size_t serverOf(std::string_view key) const;

  Reply get(std::string_view key);
  Reply set(std::string_view key, std::string_view value, uint32_t expirationSeconds);

  // Drops the handle and its connections and builds a fresh one.
  void reset();

 private:
  memcached_st* build() const;
  Reply getOnce(std::string_view key);
  Reply setOnce(std::string_view key, std::string_view value, uint32_t expirationSeconds);
  bool worthRetrying(const Reply& reply);

  const std::vector<ServerAddress>& servers_;
  const MemcachedTierConfig& config_;
  memcached_st* handle_;
};

}  // namespace Tarn::Memcached
