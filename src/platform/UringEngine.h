// The io_uring engine.
//
// Submission: any thread may submit; `submitMutex_` guards the submission
// queue, the in-flight count and the backlog. At most `maxInFlight_` requests
// are in the kernel at once, so the completion queue can never overflow;
// further requests wait in the backlog (FIFO) and enter as others finish.
//
// Completion: the thread on duty (DutyRoster) reaps a batch of completions
// into `ready_` and finishes them one by one, callbacks included; only it
// touches the completion queue. Another thread takes over the duty when one
// callback keeps it for long while more completions wait.
//
// Invariants: inFlight_ == requests whose operation is in the ring or the
// kernel (continuations included); backlog_ is empty unless
// inFlight_ == maxInFlight_; only the thread on duty reaps.
#pragma once

#include <liburing.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "platform/DutyRoster.h"
#include "platform/IoEngine.h"

namespace Pt {

class UringEngine final : public IoEngine {
 public:
  // Sets up the ring and starts `threads` completion threads. Throws
  // Pt::ExSystem with the kernel's error when the ring cannot be set up.
  static std::unique_ptr<UringEngine> Create(int threads);
  ~UringEngine() override;

  IoEngineKind kind() const override { return IoEngineKind::IoUring; }
  void submit(IoRequest* request) override;

 private:
  struct Completion {
    IoRequest* request;
    int result;
  };

  UringEngine() = default;
  void completionLoop(int self);
  size_t reapBatch(Completion* batch, size_t capacity);
  void handle(const Completion& completion);
  void prepare(IoRequest* request);  // requires submitMutex_
  void finish(IoRequest* request, int error);

  io_uring ring_{};
  bool ringReady_ = false;
  unsigned maxInFlight_ = 0;

  std::mutex submitMutex_;
  unsigned inFlight_ = 0;
  std::deque<IoRequest*> backlog_;

  std::mutex reapMutex_;
  DutyRoster roster_;
  std::deque<Completion> ready_;  // reaped, not yet finished
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
