// The io_uring engine.
//
// Submission: any thread may submit; `submitMutex_` guards the submission
// queue, the in-flight count and the backlog. At most `maxInFlight_` requests
// are in the kernel at once, so the completion queue can never overflow;
// further requests wait in the backlog (FIFO) and enter as others finish.
//
// Completion: a few threads take turns as the reaper (leader/followers). The
// leader alone waits on the completion queue. It takes a batch, keeps the
// first completion for itself, leaves the rest in `ready_` and wakes one
// follower; every thread takes work from `ready_` before it tries to lead.
// So a slow callback holds up only the thread that runs it, never the
// reaping nor the other completions.
//
// Invariants: inFlight_ == requests whose operation is in the ring or the
// kernel (continuations included); backlog_ is empty unless
// inFlight_ == maxInFlight_; at most one thread is the leader.
#pragma once

#include <liburing.h>

#include <condition_variable>
#include <deque>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

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
  void completionLoop();
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
  std::condition_variable followers_;
  std::deque<Completion> ready_;  // reaped, waiting for a free thread
  bool leaderActive_ = false;
  bool stopping_ = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
