// The portable engine: a few threads that carry requests out with pread and
// pwrite. Used when io_uring cannot be set up, and selectable for tests.
//
// Requests wait in one FIFO queue. The thread on duty (DutyRoster) takes them
// one item at a time, moves the bytes and runs the callbacks; another thread
// takes over when one item keeps it for long while others wait. An item is
// one request, or a write together with the queued writes adjacent to it
// (WriteGroup), carried out with one pwritev.
//
// Invariants, whenever `mutex_` is free (checkInvariants() walks them; debug
// builds check after each change while the queue is short):
// - a request is in the queue from submit() until one thread takes it (alone
//   or in a group); that thread alone then moves its bytes and finishes it;
// - the queue is a list from head_ to tail_ through RequestState::next,
//   without a cycle, `queued_` long; head_ and tail_ are both null or neither;
// - `carrying_` counts the items taken and not yet finished, at most one per
//   thread.
#pragma once

#include <condition_variable>
#include <thread>
#include <vector>

#include "platform/DutyRoster.h"
#include "platform/IoEngine.h"
#include "platform/WriteGroup.h"
#include "pt/PlainMutex.h"

namespace Pt {

class ThreadPoolEngine final : public IoEngine {
 public:
  explicit ThreadPoolEngine(int threads);
  ~ThreadPoolEngine() override;

  IoEngineKind kind() const override { return IoEngineKind::ThreadPool; }
  void submit(IoRequest* request) override PT_EXCLUDES(mutex_);
  void submitBatch(IoRequest* const* requests, size_t count) override PT_EXCLUDES(mutex_);

  // True when every invariant above holds. Never throws; changes nothing.
  bool checkInvariants() PT_EXCLUDES(mutex_);

 private:
  friend struct ThreadPoolEngineTestAccess;  // tests break the structure on purpose

  void workerLoop(int self) PT_EXCLUDES(mutex_);
  IoRequest* pop() PT_REQUIRES(mutex_);  // the queue must not be empty
  void append(IoRequest* request) PT_REQUIRES(mutex_);
  void gather(WriteGroup& group) PT_REQUIRES(mutex_);
  void stopThreads() PT_EXCLUDES(mutex_);
  static void carryOut(IoRequest* request);
  void carryOut(WriteGroup& group);
  bool invariantsHold() const PT_REQUIRES(mutex_);

  PlainMutex mutex_;
  std::condition_variable work_;  // the thread on duty waits here for requests
  DutyRoster roster_ PT_GUARDED_BY(mutex_);
  IoRequest* head_ PT_GUARDED_BY(mutex_) = nullptr;  // FIFO through RequestState::next
  IoRequest* tail_ PT_GUARDED_BY(mutex_) = nullptr;
  size_t queued_ PT_GUARDED_BY(mutex_) = 0;
  size_t carrying_ PT_GUARDED_BY(mutex_) = 0;
  bool stopping_ PT_GUARDED_BY(mutex_) = false;
  const size_t threadCount_;
  std::vector<std::thread> threads_;
};

}  // namespace Pt
