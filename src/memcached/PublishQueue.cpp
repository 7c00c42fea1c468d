#include "memcached/PublishQueue.h"

#include <cassert>

namespace Tarn::Memcached {

bool PublishQueue::push(std::string_view key, std::string_view value) {
  const std::size_t size = SizeOf(key, value);
  Pt::PlainLock lock(mutex_);
  if (stopped_ || size > maxBytes_ - bytes_) return false;
  // The only step that can throw comes before the count changes.
  items_.push_back(Item{std::string(key), std::string(value)});
  bytes_ += size;
#ifndef NDEBUG
  checkInvariants();
#endif
  changed_.notify_all();
  return true;
}

std::optional<PublishQueue::Item> PublishQueue::pop() {
  Pt::PlainLock lock(mutex_);
  while (!stopped_ && items_.empty()) changed_.wait(lock.native());
  if (stopped_) return std::nullopt;
  Item item = std::move(items_.front());
  items_.pop_front();
  bytes_ -= SizeOf(item.key, item.value);
  inFlight_ = 1;
#ifndef NDEBUG
  checkInvariants();
#endif
  return item;
}

void PublishQueue::done() {
  Pt::PlainLock lock(mutex_);
  inFlight_ = 0;
  changed_.notify_all();
}

bool PublishQueue::drain(std::chrono::milliseconds timeout) {
  Pt::PlainLock lock(mutex_);
  return changed_.wait_for(lock.native(), timeout, [this]() PT_NO_THREAD_SAFETY_ANALYSIS {
    return stopped_ || (items_.empty() && inFlight_ == 0);
  });
}

std::size_t PublishQueue::stop() {
  Pt::PlainLock lock(mutex_);
  stopped_ = true;
  const std::size_t dropped = items_.size();
  items_.clear();
  bytes_ = 0;
  changed_.notify_all();
  return dropped;
}

void PublishQueue::checkInvariants() const {
  std::size_t sum = 0;
  for (const Item& item : items_) sum += SizeOf(item.key, item.value);
  assert(sum == bytes_);
  assert(bytes_ <= maxBytes_);
  assert(inFlight_ == 0 || inFlight_ == 1);
  (void)sum;
}

}  // namespace Tarn::Memcached
