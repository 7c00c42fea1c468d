// An IoNotify that records every callback it gets, for device tests.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <mutex>
#include <thread>
#include <vector>

#include "pt/IoRequest.h"

namespace TarnTest {

struct IoEvent {
  bool failed = false;
  int error = 0;  // the ExSystem code when failed
  int64_t offset = 0;
  int byteCount = 0;
  std::vector<uint8_t> data;  // the request's data area at callback time
  std::thread::id thread;
  int tag = 0;  // the recorder's tag, to tell requests apart
};

class IoRecorder : public Pt::IoNotify {
 public:
  explicit IoRecorder(int tag = 0) : tag_(tag) {}

  // Runs inside ioCompleted/ioFailed before the event is recorded.
  std::function<void(Pt::IoRequest&)> onCallback;

  void ioCompleted(Pt::IoRequest& request) override;
  void ioNotified(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

  // Waits up to `timeoutMs` for `count` callbacks of this recorder.
  bool waitFor(size_t count, int timeoutMs = 20000);
  std::vector<IoEvent> events();

 private:
  void record(Pt::IoRequest& request, bool failed, int error);

  int tag_;
  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<IoEvent> events_;
};

}  // namespace TarnTest
