// TierClient: one cache's side of its shared tier.
//
// Holds the tier and the cache's settings for it (key namespace, lookup
// deadline), counts what the lookups came to, keeps track of the lookups
// that have not called back yet, and decides when an outage is reported.
// The cache manager drives the lookups themselves (TierLookupCall); this
// class owns what they share.
//
// Outages: the first lookup that ends Unavailable after the tier last
// answered (a hit or a miss) reports the outage; the lookups after it stay
// quiet until the tier has answered again. So an application hears one
// exception per outage, whatever the number of requests.
//
// Closing: close() refuses new lookups and waits until every lookup begun
// has ended; the tier answers each by its deadline, so the wait is bounded.
//
// Thread-safety: every member may be called from any thread. `lock_` is a
// leaf: nothing is called while it is held.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "tarn/CacheKey.h"
#include "tarn/SharedTier.h"
#include "tarn/TierConfig.h"

namespace Tarn {

class TierClient {
 public:
  // Throws std::invalid_argument for a namespace longer than
  // kMaxTierNamespace bytes or a deadline below 1 ms. `config.tier` must be
  // set.
  explicit TierClient(const TierConfig& config);
  ~TierClient();
  TierClient(const TierClient&) = delete;
  TierClient& operator=(const TierClient&) = delete;

  SharedTier& tier() const { return *tier_; }
  // The tier's key of `primaryKey` under `type` in this cache's namespace.
  std::string keyFor(const std::string& type, const PrimaryKey& primaryKey) const;
  // When a lookup started now must have been answered.
  std::chrono::steady_clock::time_point deadlineFromNow() const;

  // Counts one more lookup in flight; false (nothing counted) once closing.
  bool beginLookup();
  // The lookup begun has called back. Touches nothing of this object after
  // the count is down, so that close() may return at once.
  void endLookup();
  // Refuses new lookups and waits until none is in flight.
  void close();

  // Records how a lookup ended (Hit counts nothing here: a hit counts once
  // its value has passed the checks). Returns true when this Unavailable
  // begins an outage that must be reported.
  bool recordStatus(TierLookupStatus status);
  void recordHit() { ++hits_; }
  void recordRejected() { ++rejected_; }

  // Offers a generated object's encoded bytes to the tier, wrapped in a
  // record, unless the record would exceed the tier's value limit (counted
  // as tooLarge). Never throws but std::bad_alloc.
  void publish(const std::string& type, const PrimaryKey& primaryKey,
               const SecondaryKey& secondaryKey, const uint8_t* payload, uint32_t length);

  TierStatistics statistics() const;

 private:
  const std::shared_ptr<SharedTier> tier_;
  const std::string keyNamespace_;
  const std::chrono::milliseconds deadline_;

  Pt::Mutex lock_;
  Pt::CondVar ended_;
  int64_t inFlight_ PT_GUARDED_BY(lock_) = 0;
  bool closing_ PT_GUARDED_BY(lock_) = false;

  // Set from the first Unavailable of an outage until the tier answers.
  std::atomic<bool> inOutage_{false};
  std::atomic<uint64_t> hits_{0};
  std::atomic<uint64_t> misses_{0};
  std::atomic<uint64_t> timeouts_{0};
  std::atomic<uint64_t> unavailable_{0};
  std::atomic<uint64_t> rejected_{0};
  std::atomic<uint64_t> published_{0};
  std::atomic<uint64_t> tooLarge_{0};
};

}  // namespace Tarn
