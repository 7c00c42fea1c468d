// Collects the exceptions handed to Pt::Exception::Post while it is alive,
// and restores the previous post handler when it is destroyed.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <vector>

#include "pt/Exception.h"

namespace TarnTest {

class PostedExceptions {
 public:
  PostedExceptions();
  ~PostedExceptions();
  PostedExceptions(const PostedExceptions&) = delete;
  PostedExceptions& operator=(const PostedExceptions&) = delete;

  // Waits up to `timeoutMs` for at least `count` posts; true if they came.
  bool waitFor(size_t count, int timeoutMs = 10000);
  size_t count();
  // A copy of the i-th posted exception (cloned, so it keeps its class).
  std::unique_ptr<Pt::Exception> at(size_t index);

 private:
  static void Collect(const Pt::Exception& posted, void* self);

  std::mutex mutex_;
  std::condition_variable posted_;
  std::vector<std::unique_ptr<Pt::Exception>> exceptions_;
  Pt::Exception::PostHandler previous_ = nullptr;
  void* previousContext_ = nullptr;
};

}  // namespace TarnTest
