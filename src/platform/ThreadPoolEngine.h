// The portable engine: a few threads that take requests from one queue and
// carry them out with pread and pwrite. Used when io_uring cannot be set up,
// and selectable for tests.
//
// Invariant: a request is in `queue_` from submit() until one thread takes
// it; that thread alone then moves its bytes and finishes it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/IoEngine.h"

namespace Pt {

class ThreadPoolEngine final : public IoEngine {
 public:
  explicit ThreadPoolEngine(int threads);
  ~ThreadPoolEngine() override;

  IoEngineKind kind() const override { return IoEngineKind::ThreadPool; }
  void submit(IoRequest* request) override;

 private:
  void workerLoop();
  static void carryOut(IoRequest* request);

  std::mutex mutex_;
  std::condition_variable work_;
  IoRequest* head_ = nullptr;  // FIFO through RequestState::next
  IoRequest* tail_ = nullptr;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
