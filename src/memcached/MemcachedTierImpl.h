// MemcachedTierImpl: the tier behind MakeMemcachedTier (see
// tarn/MemcachedTier.h for what it promises).
//
// Threads: `lookupThreads` lookup threads, each with its own Connection,
// take lookups from queue_; the deadline watch answers those whose deadline
// passes first; one publisher thread with its own Connection sends what
// publishes_ holds. Receivers are called with no lock held.
//
// Lock order: mutex_ before the deadline watch's lock (lookup() watches a
// lookup while it holds mutex_, so that the destructor, which sets stopping_
// under mutex_ before it stops the watch, finds every lookup in the watch).
#pragma once

#include <atomic>
#include <condition_variable>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "memcached/Connection.h"
#include "memcached/DeadlineWatch.h"
#include "memcached/PendingLookup.h"
#include "memcached/PublishQueue.h"
#include "memcached/ServerHealth.h"
#include "pt/PlainMutex.h"
#include "tarn/MemcachedTier.h"

namespace Tarn::Memcached {

class MemcachedTierImpl final : public MemcachedTier {
 public:
  MemcachedTierImpl(const MemcachedTierConfig& config, std::vector<ServerAddress> servers);
  ~MemcachedTierImpl() override;

  void lookup(std::string_view key, std::chrono::steady_clock::time_point deadline,
              TierLookupReceiver& receiver) noexcept override;
  void publish(std::string_view key, std::string_view value) noexcept override;
  bool healthy() const noexcept override;
  std::size_t maxValueSize() const noexcept override { return config_.maxValueSize; }
  bool drainPublishes(std::chrono::milliseconds timeout) noexcept override;
  MemcachedTierCounters counters() const noexcept override;

 private:
  struct Counters {
    std::atomic<uint64_t> lookups{0}, hits{0}, misses{0}, timeouts{0}, errors{0}, publishesSent{0},
        publishesDropped{0}, ejections{0};
  };

  void start();
  void shutdown() noexcept;
  bool enqueue(const std::shared_ptr<PendingLookup>& lookup);
  void lookupLoop();
  std::shared_ptr<PendingLookup> nextLookup();
  void serve(Connection& connection, PendingLookup& lookup);
  void publishLoop();
  void send(Connection& connection, const PublishQueue::Item& item);
  void failed(Connection& connection, std::size_t server);
  // Answers `lookup` if nobody has, and counts the answer.
  void finish(PendingLookup& lookup, TierLookupStatus status, std::string_view value = {}) noexcept;
  void dropped() noexcept { counters_.publishesDropped.fetch_add(1, std::memory_order_relaxed); }

  const MemcachedTierConfig config_;
  const std::vector<ServerAddress> servers_;
  Counters counters_;
  ServerHealth health_;
  PublishQueue publishes_;
  DeadlineWatch watch_;

  Pt::PlainMutex mutex_;
  std::condition_variable queued_;
  std::deque<std::shared_ptr<PendingLookup>> queue_ PT_GUARDED_BY(mutex_);
  bool stopping_ PT_GUARDED_BY(mutex_) = false;

  std::vector<std::thread> lookupThreads_;
  std::thread publisher_;
};

}  // namespace Tarn::Memcached
