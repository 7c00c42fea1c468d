// A TierLookupReceiver that records its calls and lets a test wait for the
// first one, with a bound.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>

#include "tarn/SharedTier.h"

namespace TarnTest {

class TierReceiver : public Tarn::TierLookupReceiver {
 public:
  void tierLookupDone(Tarn::TierLookupStatus status, std::string_view value) noexcept override {
    std::lock_guard<std::mutex> lock(mutex_);
    ++calls_;
    status_ = status;
    value_ = std::string(value);
    called_.notify_all();
  }

  // True once called; false if `limit` passed first.
  bool waitFor(std::chrono::steady_clock::duration limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    return called_.wait_for(lock, limit, [this] { return calls_ > 0; });
  }

  int calls() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return calls_;
  }
  Tarn::TierLookupStatus status() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return status_;
  }
  std::string value() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return value_;
  }

 private:
  mutable std::mutex mutex_;
  std::condition_variable called_;
  int calls_ = 0;
  Tarn::TierLookupStatus status_ = Tarn::TierLookupStatus::Miss;
  std::string value_;
};

}  // namespace TarnTest
