#include "support/IoRecorder.h"

#include <chrono>

#include "pt/Exception.h"

namespace TarnTest {

void IoRecorder::ioCompleted(Pt::IoRequest& request) {
  if (onCallback) onCallback(request);
  record(request, false, 0);
}

void IoRecorder::ioNotified(Pt::IoRequest& /*request*/) {}

void IoRecorder::ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) {
  if (onCallback) onCallback(request);
  const auto* system = dynamic_cast<const Pt::ExSystem*>(&cause);
  record(request, true, system ? system->code() : -1);
}

void IoRecorder::record(Pt::IoRequest& request, bool failed, int error) {
  IoEvent event;
  event.failed = failed;
  event.error = error;
  event.offset = request.offset();
  event.byteCount = request.byteCount();
  event.data.assign(request.data(), request.data() + request.length());
  event.thread = std::this_thread::get_id();
  event.tag = tag_;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    events_.push_back(std::move(event));
  }
  changed_.notify_all();
}

bool IoRecorder::waitFor(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> guard(mutex_);
  return changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                           [&] { return events_.size() >= count; });
}

std::vector<IoEvent> IoRecorder::events() {
  std::lock_guard<std::mutex> guard(mutex_);
  return events_;
}

}  // namespace TarnTest
