#include "memcached/MemcachedTierImpl.h"

#include "memcached/TierKey.h"

namespace Tarn::Memcached {

using Clock = std::chrono::steady_clock;

MemcachedTierImpl::MemcachedTierImpl(const MemcachedTierConfig& config,
                                     std::vector<ServerAddress> servers)
    : config_(config),
      servers_(std::move(servers)),
      health_(servers_.size(), config.failuresBeforeEjection, config.retryDelay),
      publishes_(config.publishQueueBytes),
      watch_([this](PendingLookup& lookup) { finish(lookup, TierLookupStatus::Timeout); }) {
  try {
    start();
  } catch (...) {
    shutdown();  // joins the threads that did start
    throw;
  }
}

void MemcachedTierImpl::start() {
  for (uint32_t i = 0; i < config_.lookupThreads; ++i) {
    lookupThreads_.emplace_back([this] { lookupLoop(); });
  }
  publisher_ = std::thread([this] { publishLoop(); });
}

MemcachedTierImpl::~MemcachedTierImpl() {
  shutdown();
}

void MemcachedTierImpl::shutdown() noexcept {
  {
    Pt::PlainLock lock(mutex_);
    stopping_ = true;
    queue_.clear();
    queued_.notify_all();
  }
  // Every lookup not yet answered is in the watch: queued ones and those a
  // thread is waiting on alike. They end now; late replies are dropped.
  watch_.stop([this](PendingLookup& lookup) { finish(lookup, TierLookupStatus::Unavailable); });
  const std::size_t unsent = publishes_.stop();
  counters_.publishesDropped.fetch_add(unsent, std::memory_order_relaxed);
  for (std::thread& thread : lookupThreads_) {
    if (thread.joinable()) thread.join();
  }
  if (publisher_.joinable()) publisher_.join();
}

void MemcachedTierImpl::finish(PendingLookup& lookup, TierLookupStatus status,
                               std::string_view value) noexcept {
  if (!lookup.claim()) return;
  // Unavailable is counted where a request failed (errors), not here.
  std::atomic<uint64_t>* counter = nullptr;
  switch (status) {
    case TierLookupStatus::Hit:
      counter = &counters_.hits;
      break;
    case TierLookupStatus::Miss:
      counter = &counters_.misses;
      break;
    case TierLookupStatus::Timeout:
      counter = &counters_.timeouts;
      break;
    case TierLookupStatus::Unavailable:
      break;
  }
  if (counter != nullptr) counter->fetch_add(1, std::memory_order_relaxed);
  lookup.answer(status, value);
}

void MemcachedTierImpl::lookup(std::string_view key, Clock::time_point deadline,
                               TierLookupReceiver& receiver) noexcept {
  counters_.lookups.fetch_add(1, std::memory_order_relaxed);
  std::shared_ptr<PendingLookup> pending;
  try {
    pending = std::make_shared<PendingLookup>(StoredKey(key), deadline, receiver);
  } catch (...) {
    receiver.tierLookupDone(TierLookupStatus::Unavailable, {});
    return;
  }
  if (Clock::now() >= deadline) {
    finish(*pending, TierLookupStatus::Timeout);
  } else if (!healthy() || !enqueue(pending)) {
    finish(*pending, TierLookupStatus::Unavailable);
  }
}

bool MemcachedTierImpl::enqueue(const std::shared_ptr<PendingLookup>& lookup) {
  Pt::PlainLock lock(mutex_);
  if (stopping_ || queue_.size() >= config_.maxQueuedLookups) return false;
  try {
    watch_.watch(lookup);
    queue_.push_back(lookup);
  } catch (...) {
    // The caller answers Unavailable; should the watch hold the lookup, it
    // finds it answered at the deadline.
    return false;
  }
  queued_.notify_one();
  return true;
}

std::shared_ptr<PendingLookup> MemcachedTierImpl::nextLookup() {
  Pt::PlainLock lock(mutex_);
  while (!stopping_ && queue_.empty()) queued_.wait(lock.native());
  if (stopping_) return nullptr;
  auto lookup = std::move(queue_.front());
  queue_.pop_front();
  return lookup;
}

void MemcachedTierImpl::lookupLoop() {
  Connection connection(servers_, config_);
  while (auto lookup = nextLookup()) {
    // A lookup already answered (its deadline passed in the queue) costs
    // the servers nothing.
    if (!lookup->answered()) serve(connection, *lookup);
  }
}

void MemcachedTierImpl::serve(Connection& connection, PendingLookup& lookup) {
  const std::size_t server = connection.serverOf(lookup.storedKey());
  if (!health_.admit(server, Clock::now())) {
    finish(lookup, TierLookupStatus::Unavailable);
    return;
  }
  Connection::Reply reply = connection.get(lookup.storedKey());
  if (reply.outcome == Connection::Outcome::Failed) {
    failed(connection, server);
    finish(lookup, TierLookupStatus::Unavailable);
    return;
  }
  health_.succeeded(server);
  if (reply.outcome == Connection::Outcome::Found) {
    finish(lookup, TierLookupStatus::Hit, std::string_view(reply.bytes.get(), reply.length));
  } else {
    finish(lookup, TierLookupStatus::Miss);
  }
}

void MemcachedTierImpl::failed(Connection& connection, std::size_t server) {
  counters_.errors.fetch_add(1, std::memory_order_relaxed);
  if (health_.failed(server, Clock::now())) {
    counters_.ejections.fetch_add(1, std::memory_order_relaxed);
  }
  connection.reset();
}

void MemcachedTierImpl::publish(std::string_view key, std::string_view value) noexcept {
  try {
    if (value.size() > config_.maxValueSize || !healthy() ||
        !publishes_.push(StoredKey(key), value)) {
      dropped();
    }
  } catch (...) {
    dropped();
  }
}

void MemcachedTierImpl::publishLoop() {
  Connection connection(servers_, config_);
  while (auto item = publishes_.pop()) {
    send(connection, *item);
    publishes_.done();
  }
}

void MemcachedTierImpl::send(Connection& connection, const PublishQueue::Item& item) {
  const std::size_t server = connection.serverOf(item.key);
  if (!health_.admit(server, Clock::now())) {
    dropped();
    return;
  }
  const Connection::Reply reply = connection.set(item.key, item.value, config_.expirationSeconds);
  if (reply.outcome == Connection::Outcome::Stored) {
    health_.succeeded(server);
    counters_.publishesSent.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  if (reply.outcome == Connection::Outcome::Failed) {
    failed(connection, server);
  } else {
    health_.succeeded(server);
  }
  dropped();
}

bool MemcachedTierImpl::healthy() const noexcept {
  return health_.anyUsable(Clock::now());
}

bool MemcachedTierImpl::drainPublishes(std::chrono::milliseconds timeout) noexcept {
  return publishes_.drain(timeout);
}

MemcachedTierCounters MemcachedTierImpl::counters() const noexcept {
  MemcachedTierCounters out;
  out.lookups = counters_.lookups.load(std::memory_order_relaxed);
  out.hits = counters_.hits.load(std::memory_order_relaxed);
  out.misses = counters_.misses.load(std::memory_order_relaxed);
  out.timeouts = counters_.timeouts.load(std::memory_order_relaxed);
  out.errors = counters_.errors.load(std::memory_order_relaxed);
  out.ejections = counters_.ejections.load(std::memory_order_relaxed);
  out.publishesSent = counters_.publishesSent.load(std::memory_order_relaxed);
  out.publishesDropped = counters_.publishesDropped.load(std::memory_order_relaxed);
  return out;
}

}  // namespace Tarn::Memcached
