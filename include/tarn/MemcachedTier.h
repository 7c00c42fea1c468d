// MemcachedTier: a SharedTier on a fleet of memcached servers.
//
// Lives in its own library, libtarn-memcached.so (pkg-config tarn-memcached,
// CMake target Tarn::tarn-memcached), so that an application without a
// memcached fleet does not depend on libmemcached.
//
//   Tarn::MemcachedTierConfig config;
//   config.servers = {"10.0.0.1:11211", "10.0.0.2:11211"};
//   Tarn::TierConfig tier;
//   tier.tier = Tarn::MakeMemcachedTier(config);
//   tier.keyNamespace = "my-renderer";
//
// Keys: memcached takes keys of at most 250 bytes without spaces or control
// characters, and the cache's keys are opaque bytes of any length. The tier
// stores a value under "tarn:" followed by 32 hexadecimal digits of a 128-bit
// hash of the cache's key. Two keys with the same hash would share a slot;
// the cache keeps its full key inside the value and checks it on the way
// back, so such a collision reads as a rejected value, never as a wrong one.
//
// Servers are chosen by consistent (ketama) hashing, so adding or removing
// one moves only its share of the keys. A server that fails
// `failuresBeforeEjection` requests in a row is ejected: its keys answer
// Unavailable at once, and its publishes are dropped, until `retryDelay` has
// passed; then one request tries it again and, if it answers, it is back.
// Keys are not moved to another server while their own is ejected.
//
// Threads: lookups run on `lookupThreads` threads of their own, fed by a
// queue; a watchdog thread answers Timeout to every lookup whose deadline
// passes first, and a late answer from the server is then dropped. Publishes
// are copied into a queue bounded in bytes that one publisher thread sends.
//
// Ownership: MakeMemcachedTier returns a shared_ptr; hand it to any number of
// caches through TierConfig. The destructor (when the last owner lets go)
// answers every lookup still pending with Unavailable, drops the publishes
// not yet sent and joins its threads; it may wait up to one receive timeout
// for a request already on the wire. The last owner must not let go from
// inside a TierLookupReceiver call (that runs on one of the threads the
// destructor joins).
//
// Thread-safety: every member may be called from any thread, several at once.
//
// Errors: MakeMemcachedTier throws std::invalid_argument for a configuration
// it cannot use (no server, a malformed "host:port", a zero timeout or
// bound); nothing else throws. Network failures never surface as exceptions:
// a lookup ends Miss, Timeout or Unavailable, a publish is dropped, and both
// are counted (counters()).
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "tarn/Export.h"
#include "tarn/SharedTier.h"

namespace Tarn {

struct MemcachedTierConfig {
  // The servers, each "host:port" (an IPv4 address, a host name, or an IPv6
  // address in brackets: "[::1]:11211"). At least one.
  std::vector<std::string> servers;
  // How long to wait for a TCP connection to a server.
  std::chrono::milliseconds connectTimeout{100};
  // How long to wait for a server's answer (or for it to take a request)
  // before counting a failure. A lookup's own deadline is usually shorter:
  // the lookup is then answered Timeout, and the thread goes on waiting.
  std::chrono::milliseconds receiveTimeout{250};
  // How long an ejected server is left alone before it is tried again.
  std::chrono::milliseconds retryDelay{2000};
  // Failures in a row (refused or timed-out requests) that eject a server.
  uint32_t failuresBeforeEjection = 2;
  // Bytes (keys and values) waiting to be published at most; a publish that
  // does not fit is dropped.
  std::size_t publishQueueBytes = std::size_t{64} << 20;
  // The largest value published. memcached's default item limit is 1 MiB,
  // which includes its own item header and the key.
  std::size_t maxValueSize = (std::size_t{1} << 20) - 512;
  // Seconds a published value lives on the servers; 0 leaves it to their
  // eviction.
  uint32_t expirationSeconds = 0;
  // Threads that wait on servers for lookups, and lookups queued for them at
  // most (more end Unavailable at once).
  uint32_t lookupThreads = 4;
  std::size_t maxQueuedLookups = 4096;
};

// What the tier did since it was made; every field only grows.
struct MemcachedTierCounters {
  uint64_t lookups = 0;           // lookup calls
  uint64_t hits = 0;              // answered Hit
  uint64_t misses = 0;            // answered Miss
  uint64_t timeouts = 0;          // answered Timeout (deadline passed first)
  uint64_t errors = 0;            // failed requests (lookup or publish)
  uint64_t ejections = 0;         // times a server was ejected
  uint64_t publishesSent = 0;     // values the servers stored
  uint64_t publishesDropped = 0;  // values not stored: too large, queue full, server down
};

class TARN_EXPORT MemcachedTier : public SharedTier {
 public:
  ~MemcachedTier() override;

  // Waits until every publish queued before the call has been sent (or
  // dropped), or until `timeout` has passed. Returns true if the queue
  // drained. For tests and clean shutdown; lookups go on meanwhile.
  virtual bool drainPublishes(std::chrono::milliseconds timeout) noexcept = 0;

  // A consistent snapshot is not promised: each field is read on its own.
  virtual MemcachedTierCounters counters() const noexcept = 0;

 protected:
  MemcachedTier() = default;
};

// Checks `config` and starts the tier's threads. Connections are opened on
// first use, so an unreachable server is not an error here.
// Throws std::invalid_argument (the message names the field) for a bad
// configuration, std::system_error if a thread cannot start.
TARN_EXPORT std::shared_ptr<MemcachedTier> MakeMemcachedTier(const MemcachedTierConfig& config);

}  // namespace Tarn
