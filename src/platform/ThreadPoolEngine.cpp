#include "platform/ThreadPoolEngine.h"

#include <unistd.h>

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
  IoRequestAccess::state(*request).next = nullptr;
  PlainLock guard(mutex_);
  if (tail_) {
    IoRequestAccess::state(*tail_).next = request;
  } else {
    head_ = request;
    work_.notify_one();  // only an empty queue can have the thread on duty waiting
  }
  tail_ = request;
  ++queued_;
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
      roster_.beginItem();
      lock.unlock();
      carryOut(request);
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

}  // namespace Pt
