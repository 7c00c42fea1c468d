// The io_uring engine.
//
// Submission: any thread may call submit(), but only the engine's own threads
// put I/O into the ring. The kernel ties a request to the thread that entered
// it and cancels what is still queued when that thread exits; an application
// thread that writes and then ends must not lose its writes. So submit()
// only queues the request in `pending_`, and wakes the thread on duty with a
// no-op when it sleeps in the kernel. The thread on duty moves pending
// requests into the ring before each wait, which also batches submissions
// under load: whatever is pending goes in with one io_uring_submit. At most
// `maxInFlight_` operations are in the kernel at once, so the completion
// queue can never overflow.
//
// Writes pending together to adjacent ranges of one file go in as one
// writev (WriteGroup), which counts as one operation in flight: its first
// request stands for it in the in-flight list. When a group falls short or
// fails, its members not written whole go back to the front of `pending_`,
// marked to be carried out alone.
//
// Completion: the thread on duty (DutyRoster) reaps a batch of completions
// into `ready_` and finishes them one by one, callbacks included; only it
// touches the completion queue. Completions thus reach their callbacks
// without a wake-up per request: one wait in the kernel returns up to
// kReapBatch of them. Another thread takes over the duty when one
// callback keeps it for long while more work waits.
//
// Invariants, whenever `submitMutex_` is free (checkInvariants() walks them;
// debug builds check after each change while few requests are in flight):
// - inFlight_ == requests whose operation is in the ring or the kernel
//   (continuations included), and each of them is once in the in-flight list
//   (linked through RequestState::next and prev); inFlight_ <= maxInFlight_;
// - `pending_` waits only for the thread on duty or for room: when the thread
//   on duty sleeps in the kernel with requests pending, a wake-up is queued
//   or the ring is full; `anyPending_` says whether `pending_` is empty;
// - `wakeQueued_` is set while a wake-up no-op is in the ring and the thread
//   on duty has not woken, so only while it sleeps there;
// - only the thread on duty reaps.
//
// Locks: `reapMutex_` and `submitMutex_` are never held together, except in
// the destructor, which takes them one after the other.
#pragma once

#include <liburing.h>

#include <atomic>
#include <deque>
#include <memory>
#include <thread>
#include <vector>

#include "platform/DutyRoster.h"
#include "platform/IoEngine.h"
#include "platform/WriteGroup.h"
#include "pt/PlainMutex.h"

namespace Pt {

class UringEngine final : public IoEngine {
 public:
  // Sets up the ring and starts `threads` completion threads. Throws
  // Pt::ExSystem with the kernel's error when the ring cannot be set up.
  static std::unique_ptr<UringEngine> Create(int threads);
  ~UringEngine() override;

  IoEngineKind kind() const override { return IoEngineKind::IoUring; }
  void submit(IoRequest* request) override PT_EXCLUDES(submitMutex_);
  void submitBatch(IoRequest* const* requests, size_t count) override PT_EXCLUDES(submitMutex_);

  // True when every invariant above holds. Never throws; changes nothing.
  bool checkInvariants() PT_EXCLUDES(submitMutex_);

 private:
  friend struct UringEngineTestAccess;  // tests break the structure on purpose

  struct Completion {
    IoRequest* request;  // null for a group
    WriteGroup* group;   // null for a single request
    int result;
  };

  UringEngine() = default;
  void completionLoop(int self) PT_EXCLUDES(reapMutex_);
  size_t waitAndReap(Completion* batch, size_t capacity) PT_EXCLUDES(submitMutex_);
  void handle(const Completion& completion) PT_EXCLUDES(submitMutex_);
  void handleGroup(WriteGroup* group, int result) PT_EXCLUDES(submitMutex_);
  void wakeReaper() PT_REQUIRES(submitMutex_);
  void finish(IoRequest* request, int error) PT_EXCLUDES(submitMutex_);
  // On an engine thread:
  void prepare(IoRequest* request) PT_REQUIRES(submitMutex_);
  // Takes the pending writes that extend a group of `request`; null when
  // none does.
  std::unique_ptr<WriteGroup> gather(IoRequest* request) PT_REQUIRES(submitMutex_);
  void prepareGroup(WriteGroup* group) PT_REQUIRES(submitMutex_);
  void flushPending() PT_REQUIRES(submitMutex_);
  // On any thread:
  io_uring_sqe* nextSqe() PT_REQUIRES(submitMutex_);
  void pushNoOp(void* tag) PT_REQUIRES(submitMutex_);
  void linkInFlight(IoRequest* request) PT_REQUIRES(submitMutex_);
  void unlinkInFlight(IoRequest* request) PT_REQUIRES(submitMutex_);
  bool invariantsHold() const PT_REQUIRES(submitMutex_);

  // The submission queue is used under submitMutex_, the completion queue by
  // the thread on duty alone; neither lock guards the ring as a whole.
  io_uring ring_{};
  bool ringReady_ = false;
  unsigned maxInFlight_ = 0;

  PlainMutex submitMutex_;
  unsigned inFlight_ PT_GUARDED_BY(submitMutex_) = 0;
  IoRequest* inFlightHead_ PT_GUARDED_BY(submitMutex_) = nullptr;
  std::deque<IoRequest*> pending_ PT_GUARDED_BY(submitMutex_);
  std::atomic<bool> anyPending_{false};  // pending_ is not empty; read without the lock
  bool reaperWaiting_ PT_GUARDED_BY(submitMutex_) = false;
  bool wakeQueued_ PT_GUARDED_BY(submitMutex_) = false;

  PlainMutex reapMutex_;
  DutyRoster roster_ PT_GUARDED_BY(reapMutex_);
  std::deque<Completion> ready_ PT_GUARDED_BY(reapMutex_);  // reaped, not yet finished
  bool stopping_ PT_GUARDED_BY(reapMutex_) = false;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
