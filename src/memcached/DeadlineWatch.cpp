#include "memcached/DeadlineWatch.h"

namespace Tarn::Memcached {

DeadlineWatch::DeadlineWatch(Expire expire) : expire_(std::move(expire)) {
  thread_ = std::thread([this] { run(); });
}

DeadlineWatch::~DeadlineWatch() {
  stop([](PendingLookup&) {});
}

void DeadlineWatch::watch(std::shared_ptr<PendingLookup> lookup) {
  Pt::PlainLock lock(mutex_);
  const bool earliest = heap_.empty() || lookup->deadline() < heap_.top()->deadline();
  heap_.push(std::move(lookup));
  if (earliest) wake_.notify_one();
}

void DeadlineWatch::stop(const Expire& drop) {
  Heap left;
  {
    Pt::PlainLock lock(mutex_);
    stopping_ = true;
    std::swap(left, heap_);
    wake_.notify_one();
  }
  if (thread_.joinable()) thread_.join();
  for (; !left.empty(); left.pop()) drop(*left.top());
}

std::vector<std::shared_ptr<PendingLookup>> DeadlineWatch::takeExpired(
    PendingLookup::Clock::time_point now) {
  std::vector<std::shared_ptr<PendingLookup>> expired;
  while (!heap_.empty() && heap_.top()->deadline() <= now) {
    if (!heap_.top()->answered()) expired.push_back(heap_.top());
    heap_.pop();
  }
  return expired;
}

void DeadlineWatch::run() {
  Pt::PlainLock lock(mutex_);
  while (!stopping_) {
    auto expired = takeExpired(PendingLookup::Clock::now());
    if (!expired.empty()) {
      lock.unlock();
      for (auto& lookup : expired) expire_(*lookup);
      lock.lock();
      continue;
    }
    if (heap_.empty()) {
      wake_.wait(lock.native());
    } else {
      wake_.wait_until(lock.native(), heap_.top()->deadline());
    }
  }
}

}  // namespace Tarn::Memcached
