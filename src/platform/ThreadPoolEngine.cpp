#include "platform/ThreadPoolEngine.h"

#include <unistd.h>

#include <sys/uio.h>

#include <cassert>
#include <cerrno>
#include <system_error>

#include "platform/InvariantCheck.h"
#include "platform/RaiseSites.h"

namespace Pt {

ThreadPoolEngine::ThreadPoolEngine(int threads) : threadCount_(static_cast<size_t>(threads)) {
  try {
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this, i] { workerLoop(i); });
  } catch (const std::system_error& error) {
    stopThreads();
    throw ExSystem(error.code().value(), kRaiseIoThreadCreate);
  }
}

ThreadPoolEngine::~ThreadPoolEngine() {
  stopThreads();
}

void ThreadPoolEngine::stopThreads() {
  {
    PlainLock guard(mutex_);
    stopping_ = true;
    roster_.wakeAll();
  }
  work_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadPoolEngine::submit(IoRequest* request) {
  PlainLock guard(mutex_);
  // Only an empty queue can have the thread on duty waiting.
  if (head_ == nullptr) work_.notify_one();
  append(request);
  PT_DEBUG_CHECK(queued_, invariantsHold());
}

void ThreadPoolEngine::submitBatch(IoRequest* const* requests, size_t count) {
  PlainLock guard(mutex_);
  if (head_ == nullptr && count > 0) work_.notify_one();
  for (size_t i = 0; i < count; ++i) append(requests[i]);
  PT_DEBUG_CHECK(queued_, invariantsHold());
}

void ThreadPoolEngine::append(IoRequest* request) {
  IoRequestAccess::state(*request).next = nullptr;
  if (tail_) {
    IoRequestAccess::state(*tail_).next = request;
  } else {
    head_ = request;
  }
  tail_ = request;
  ++queued_;
}

// Moves the queued writes that extend `group` into it. A queue in ascending
// order joins in one pass; a second pass picks up writes queued before their
// lower neighbour.
void ThreadPoolEngine::gather(WriteGroup& group) {
  for (int pass = 0; pass < 2 && !group.full(); ++pass) {
    bool grew = false;
    IoRequest* previous = nullptr;
    size_t scanned = 0;
    for (IoRequest* r = head_; r != nullptr && scanned < WriteGroup::kGatherScan; ++scanned) {
      IoRequest* next = IoRequestAccess::state(*r).next;
      if (group.tryAdd(r)) {
        (previous ? IoRequestAccess::state(*previous).next : head_) = next;
        if (tail_ == r) tail_ = previous;
        --queued_;
        grew = true;
        if (group.full()) break;
      } else {
        previous = r;
      }
      r = next;
    }
    if (!grew) break;
  }
  PT_DEBUG_CHECK(queued_, invariantsHold());
}

IoRequest* ThreadPoolEngine::pop() {
  IoRequest* request = head_;
  head_ = IoRequestAccess::state(*request).next;
  if (head_ == nullptr) tail_ = nullptr;
  --queued_;
  ++carrying_;
  PT_DEBUG_CHECK(queued_, invariantsHold());
  return request;
}

void ThreadPoolEngine::workerLoop(int self) {
  PlainLock lock(mutex_);
  for (;;) {
    if (roster_.claimIfFree(self)) {
      if (head_ == nullptr) {
        if (stopping_) break;
        work_.wait(lock.native());
        continue;
      }
      IoRequest* request = pop();
      const bool joinable = head_ != nullptr && WriteGroup::Joinable(*request);
      roster_.beginItem();
      if (joinable) {
        WriteGroup group(request);
        gather(group);
        lock.unlock();
        carryOut(group);
      } else {
        lock.unlock();
        carryOut(request);
      }
      lock.lock();
      --carrying_;
      roster_.endItem(self);
      continue;
    }
    if (stopping_) break;  // the thread on duty drains the queue
    // The roster calls these with mutex_ held, which the analysis cannot see
    // through the template.
    roster_.serve(
        lock.native(), self, [this]() PT_NO_THREAD_SAFETY_ANALYSIS { return head_ != nullptr; },
        [this]() PT_NO_THREAD_SAFETY_ANALYSIS { return stopping_; });
  }
  roster_.release(self);
  roster_.wakeAll();
  work_.notify_all();
}

bool ThreadPoolEngine::checkInvariants() {
  PlainLock guard(mutex_);
  return invariantsHold();
}

bool ThreadPoolEngine::invariantsHold() const {
  if ((head_ == nullptr) != (tail_ == nullptr)) return false;
  if (carrying_ > threadCount_) return false;
  size_t length = 0;
  const IoRequest* last = nullptr;
  for (IoRequest* r = head_; r != nullptr; r = IoRequestAccess::state(*r).next) {
    if (++length > queued_) return false;  // longer than counted, or a cycle
    last = r;
  }
  return length == queued_ && last == tail_;
}

void ThreadPoolEngine::carryOut(IoRequest* request) {
  RequestState& state = IoRequestAccess::state(*request);
  int error = state.injectedError;
  if (error == 0) {
    for (;;) {
      const TransferStep step = NextTransferStep(*request);
      const ssize_t moved = state.kind == IoKind::Read
                                ? pread(state.fd, step.buffer, step.size, step.offset)
                                : pwrite(state.fd, step.buffer, step.size, step.offset);
      if (AccountTransfer(*request, moved < 0 ? -errno : moved, error)) break;
    }
  }
  FinishRequest(request, error);
}

// One pwritev for the whole group. Members written whole finish here; the
// others are carried out alone, each hearing its own outcome.
void ThreadPoolEngine::carryOut(WriteGroup& group) {
  if (group.size() == 1) {
    carryOut(group.first());
    return;
  }
  group.seal();
  assert(group.checkInvariants());
  countGroup(group.size());
  const ssize_t moved = pwritev(group.fd(), group.vector(), group.vectorCount(), group.offset());
  const size_t whole = group.settle(moved < 0 ? -errno : moved);
  for (size_t i = 0; i < whole; ++i) FinishRequest(group.member(i), 0);
  for (size_t i = whole; i < group.size(); ++i) carryOut(group.member(i));
}

}  // namespace Pt
