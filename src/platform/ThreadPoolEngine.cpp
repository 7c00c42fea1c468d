#include "platform/ThreadPoolEngine.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/RaiseSites.h"

namespace Pt {

ThreadPoolEngine::ThreadPoolEngine(int threads) {
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
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
    roster_.wakeAll();
  }
  work_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadPoolEngine::submit(IoRequest* request) {
  IoRequestAccess::state(*request).next = nullptr;
  std::lock_guard<std::mutex> guard(mutex_);
  if (tail_) {
    IoRequestAccess::state(*tail_).next = request;
  } else {
    head_ = request;
    work_.notify_one();  // only an empty queue can have the thread on duty waiting
  }
  tail_ = request;
}

IoRequest* ThreadPoolEngine::pop() {
  IoRequest* request = head_;
  head_ = IoRequestAccess::state(*request).next;
  if (head_ == nullptr) tail_ = nullptr;
  return request;
}

void ThreadPoolEngine::workerLoop(int self) {
  std::unique_lock<std::mutex> lock(mutex_);
  for (;;) {
    if (roster_.claimIfFree(self)) {
      if (head_ == nullptr) {
        if (stopping_) break;
        work_.wait(lock);
        continue;
      }
      IoRequest* request = pop();
      roster_.beginItem();
      lock.unlock();
      carryOut(request);
      lock.lock();
      roster_.endItem(self);
      continue;
    }
    if (stopping_) break;  // the thread on duty drains the queue
    roster_.serve(
        lock, self, [this] { return head_ != nullptr; }, [this] { return stopping_; });
  }
  roster_.release(self);
  roster_.wakeAll();
  work_.notify_all();
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
