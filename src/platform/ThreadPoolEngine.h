// The portable engine: a few threads that carry requests out with pread and
// pwrite. Used when io_uring cannot be set up, and selectable for tests.
//
// Requests wait in one FIFO queue. The thread on duty (DutyRoster) takes them
// one by one, moves the bytes and runs the callback; another thread takes
// over when one request keeps it for long while others wait.
//
// Invariant: a request is in the queue from submit() until one thread takes
// it; that thread alone then moves its bytes and finishes it.
#pragma once

#include <condition_variable>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/DutyRoster.h"
#include "platform/IoEngine.h"

namespace Pt {

class ThreadPoolEngine final : public IoEngine {
 public:
  explicit ThreadPoolEngine(int threads);
  ~ThreadPoolEngine() override;

  IoEngineKind kind() const override { return IoEngineKind::ThreadPool; }
  void submit(IoRequest* request) override;

 private:
  void workerLoop(int self);
  IoRequest* pop();  // requires mutex_ and a non-empty queue
  void stopThreads();
  static void carryOut(IoRequest* request);

  std::mutex mutex_;
  std::condition_variable work_;  // the thread on duty waits here for requests
  DutyRoster roster_;
  IoRequest* head_ = nullptr;  // FIFO through RequestState::next
  IoRequest* tail_ = nullptr;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
