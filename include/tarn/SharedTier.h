// SharedTier: a second cache tier shared by many processes and machines.
//
// A Cache may be given a shared tier at construction (see TierConfig and the
// Cache constructor that takes one). A lookup that misses in memory, among
// the requests in progress and in the cache file asks the tier before the
// factory generates the object; an object generated here is published to the
// tier in the background, so that the other processes of a fleet find it
// instead of generating it again. libtarn-memcached.so implements the tier
// on a fleet of memcached servers (tarn/MemcachedTier.h).
//
// The cache speaks to the tier in opaque bytes: a key made of the
// application's namespace, the type name and the primary key, and a value
// that the cache wraps with its type, secondary key, length and a checksum,
// which it checks on the way back. An implementation maps the key to its own
// rules (length, characters) and stores the value as it was given.
//
// Failure is a miss: the cache never fails or delays a request because of
// the tier beyond the lookup's deadline.
//
// Ownership: shared. The cache keeps a std::shared_ptr to its tier for its
// whole life; several caches may share one tier.
//
// Thread-safety: every member may be called from any thread, several at once.
#pragma once

#include <chrono>
#include <cstddef>
#include <string_view>

#include "tarn/Export.h"

namespace Tarn {

// What one lookup came to.
enum class TierLookupStatus {
  Hit,          // the value was found; its bytes come with the call
  Miss,         // the tier answered: no value under the key
  Timeout,      // no answer before the deadline
  Unavailable,  // the tier (or the server holding the key) cannot be reached
};

// Where the outcome of a SharedTier::lookup goes.
class TARN_EXPORT TierLookupReceiver {
 public:
  // Called exactly once per lookup, on any thread (possibly inside lookup
  // itself). `value` is empty unless status is Hit, and valid only during
  // the call; the receiver copies what it keeps. Must not throw.
  virtual void tierLookupDone(TierLookupStatus status, std::string_view value) noexcept = 0;

 protected:
  TierLookupReceiver() = default;
  TierLookupReceiver(const TierLookupReceiver&) = default;
  TierLookupReceiver& operator=(const TierLookupReceiver&) = default;
  virtual ~TierLookupReceiver();
};

class TARN_EXPORT SharedTier {
 public:
  virtual ~SharedTier();

  // Starts looking `key` up and returns without waiting for the network.
  // `receiver` is called exactly once, no later than `deadline` plus the
  // time to schedule the call; it must stay alive until then. A lookup
  // started after the deadline, or while the tier cannot take more work,
  // ends with Timeout or Unavailable.
  virtual void lookup(std::string_view key, std::chrono::steady_clock::time_point deadline,
                      TierLookupReceiver& receiver) noexcept = 0;

  // Stores `value` under `key` in the background, fire and forget: both are
  // copied before the call returns, and a value the tier cannot take (too
  // large, queue full, tier down) is dropped.
  virtual void publish(std::string_view key, std::string_view value) noexcept = 0;

  // False while the tier knows itself unreachable (every server ejected or
  // failing); lookups then end at once with Unavailable.
  virtual bool healthy() const noexcept = 0;

  // The largest value publish accepts, in bytes; the cache does not offer
  // larger ones.
  virtual std::size_t maxValueSize() const noexcept = 0;

 protected:
  SharedTier() = default;
  SharedTier(const SharedTier&) = delete;
  SharedTier& operator=(const SharedTier&) = delete;
};

}  // namespace Tarn
