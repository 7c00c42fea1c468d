#include "support/FakeTier.h"

#include <algorithm>

namespace TarnTest {

using Tarn::TierLookupStatus;

FakeTier::FakeTier() : thread_([this] { serve(); }) {}

FakeTier::~FakeTier() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  changed_.notify_all();
  thread_.join();
}

void FakeTier::lookup(std::string_view key, std::chrono::steady_clock::time_point deadline,
                      Tarn::TierLookupReceiver& receiver) noexcept {
  ++lookups;
  const Mode now = mode;
  if (now == Mode::Inline) return answer(receiver, std::string(key));
  if (now == Mode::Down || now == Mode::Unhealthy) {
    return receiver.tierLookupDone(TierLookupStatus::Unavailable, {});
  }
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending_.push_back({&receiver, std::string(key), deadline, now});
  }
  changed_.notify_all();
}

void FakeTier::publish(std::string_view key, std::string_view value) noexcept {
  if (value.size() > maxValue) return;
  put(std::string(key), std::string(value));
  ++publishes;
  changed_.notify_all();
}

void FakeTier::put(const std::string& key, const std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  values_[key] = value;
}

bool FakeTier::get(const std::string& key, std::string& value) {
  std::lock_guard<std::mutex> lock(mutex_);
  const auto found = values_.find(key);
  if (found == values_.end()) return false;
  value = found->second;
  return true;
}

void FakeTier::remove(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  values_.erase(key);
}

size_t FakeTier::size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return values_.size();
}

void FakeTier::release() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    released_ = true;
  }
  changed_.notify_all();
}

bool FakeTier::waitPending(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return pending_.size() >= count; });
}

bool FakeTier::waitPublished(int count, int timeoutMs) {
  std::unique_lock<std::mutex> lock(mutex_);
  return changed_.wait_for(lock, std::chrono::milliseconds(timeoutMs),
                           [&] { return publishes >= count; });
}

void FakeTier::answer(Tarn::TierLookupReceiver& receiver, const std::string& key) {
  std::string value;
  if (get(key, value)) return receiver.tierLookupDone(TierLookupStatus::Hit, value);
  receiver.tierLookupDone(TierLookupStatus::Miss, {});
}

// The first lookup that is due: a Later one at once, a Held one once
// released, any at its deadline (then it times out).
bool FakeTier::takeDue(Pending& out) {
  const auto now = std::chrono::steady_clock::now();
  for (auto it = pending_.begin(); it != pending_.end(); ++it) {
    const bool ready = it->mode == Mode::Later || (it->mode == Mode::Held && released_);
    if (ready || it->deadline <= now) {
      out = *it;
      if (!ready) out.mode = Mode::Silent;
      pending_.erase(it);
      return true;
    }
  }
  return false;
}

void FakeTier::serve() {
  std::unique_lock<std::mutex> lock(mutex_);
  while (!stopping_ || !pending_.empty()) {
    Pending due;
    if (takeDue(due)) {
      lock.unlock();
      if (due.mode == Mode::Silent) {
        due.receiver->tierLookupDone(TierLookupStatus::Timeout, {});
      } else {
        answer(*due.receiver, due.key);
      }
      lock.lock();
      continue;
    }
    auto wake = std::chrono::steady_clock::now() + std::chrono::milliseconds(50);
    for (const Pending& pending : pending_) wake = std::min(wake, pending.deadline);
    changed_.wait_until(lock, wake);
  }
}

}  // namespace TarnTest
