#include "platform/ThreadPoolEngine.h"

#include <unistd.h>

#include <cerrno>
#include <system_error>

#include "platform/RaiseSites.h"

namespace Pt {

ThreadPoolEngine::ThreadPoolEngine(int threads) {
  try {
    for (int i = 0; i < threads; ++i) threads_.emplace_back([this] { workerLoop(); });
  } catch (const std::system_error& error) {
    {
      std::lock_guard<std::mutex> guard(mutex_);
      stopping_ = true;
    }
    work_.notify_all();
    for (std::thread& thread : threads_) thread.join();
    throw ExSystem(error.code().value(), kRaiseIoThreadCreate);
  }
}

ThreadPoolEngine::~ThreadPoolEngine() {
  {
    std::lock_guard<std::mutex> guard(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  for (std::thread& thread : threads_) thread.join();
}

void ThreadPoolEngine::submit(IoRequest* request) {
  IoRequestAccess::state(*request).next = nullptr;
  {
    std::lock_guard<std::mutex> guard(mutex_);
    if (tail_) {
      IoRequestAccess::state(*tail_).next = request;
    } else {
      head_ = request;
    }
    tail_ = request;
  }
  work_.notify_one();
}

void ThreadPoolEngine::workerLoop() {
  std::unique_lock<std::mutex> guard(mutex_);
  for (;;) {
    work_.wait(guard, [this] { return head_ != nullptr || stopping_; });
    if (head_ == nullptr) return;  // stopping, and nothing left to do
    IoRequest* request = head_;
    head_ = IoRequestAccess::state(*request).next;
    if (head_ == nullptr) tail_ = nullptr;
    guard.unlock();
    carryOut(request);
    guard.lock();
  }
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
