#include "support/RecordingReceiver.h"

#include <chrono>

namespace TarnTest {

void RecordingReceiver::found(int requestId, const Tarn::CacheKey<32>& key,
                              const Pt::SmartPointer<Tarn::Cacheable>& cacheable) {
  record({ReceiverCall::Found, requestId, key, cacheable, nullptr, std::this_thread::get_id()});
}

void RecordingReceiver::cancelled(int requestId, const Tarn::CacheKey<32>& key) {
  record({ReceiverCall::Cancelled, requestId, key, nullptr, nullptr, std::this_thread::get_id()});
}

void RecordingReceiver::failed(int requestId, const Tarn::CacheKey<32>& key,
                               const Pt::Exception& error) {
  record({ReceiverCall::Failed, requestId, key, nullptr,
          std::shared_ptr<Pt::Exception>(error.clone()), std::this_thread::get_id()});
}

void RecordingReceiver::record(ReceiverCall call) {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    calls_.push_back(std::move(call));
  }
  changed_.notify_all();
}

bool RecordingReceiver::waitFor(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> guard(mutex_);
  return changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                           [&] { return calls_.size() >= count; });
}

std::vector<ReceiverCall> RecordingReceiver::calls() {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_;
}

size_t RecordingReceiver::count() {
  std::lock_guard<std::mutex> guard(mutex_);
  return calls_.size();
}

}  // namespace TarnTest
