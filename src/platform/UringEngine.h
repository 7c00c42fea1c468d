// The io_uring engine.
//
// Submission: any thread may call submit(), but only the engine's own threads
// put I/O into the ring. The kernel ties a request to the thread that entered
// it and cancels what is still queued when that thread exits; an application
// thread that writes and then ends must not lose its writes. So submit()
// only queues the request in `pending_`, and wakes the thread on duty with a
// no-op when it sleeps in the kernel. The thread on duty moves pending
// requests into the ring before each wait, which also batches submissions
// under load. At most `maxInFlight_` requests are in the kernel at once, so
// the completion queue can never overflow.
//
// Completion: the thread on duty (DutyRoster) reaps a batch of completions
// into `ready_` and finishes them one by one, callbacks included; only it
// touches the completion queue. Another thread takes over the duty when one
// callback keeps it for long while more work waits.
//
// Invariants: inFlight_ == requests whose operation is in the ring or the
// kernel (continuations included); `pending_` waits only for the thread on
// duty or for room; only the thread on duty reaps; `wakeQueued_` is set while
// a wake-up no-op is in the ring and the thread on duty has not woken.
#pragma once

#include <liburing.h>

#include <atomic>
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
  size_t waitAndReap(Completion* batch, size_t capacity);
  void handle(const Completion& completion);
  void finish(IoRequest* request, int error);
  // With submitMutex_ held, on an engine thread:
  void prepare(IoRequest* request);
  void flushPending();
  // With submitMutex_ held, on any thread:
  io_uring_sqe* nextSqe();
  void pushNoOp(void* tag);

  io_uring ring_{};
  bool ringReady_ = false;
  unsigned maxInFlight_ = 0;

  std::mutex submitMutex_;
  unsigned inFlight_ = 0;
  std::deque<IoRequest*> pending_;
  std::atomic<bool> anyPending_{false};  // pending_ is not empty; read without the lock
  bool reaperWaiting_ = false;
  bool wakeQueued_ = false;

  std::mutex reapMutex_;
  DutyRoster roster_;
  std::deque<Completion> ready_;  // reaped, not yet finished
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
