#include "support/PostedExceptions.h"

#include <chrono>

namespace TarnTest {

PostedExceptions::PostedExceptions() {
  Pt::Exception::SetPostHandler(&PostedExceptions::Collect, this, &previous_, &previousContext_);
}

PostedExceptions::~PostedExceptions() {
  Pt::Exception::SetPostHandler(previous_, previousContext_);
}

void PostedExceptions::Collect(const Pt::Exception& posted, void* self) {
  auto* collector = static_cast<PostedExceptions*>(self);
  {
    std::lock_guard<std::mutex> guard(collector->mutex_);
    collector->exceptions_.emplace_back(posted.clone());
  }
  collector->posted_.notify_all();
}

bool PostedExceptions::waitFor(size_t count, int timeoutMs) {
  std::unique_lock<std::mutex> guard(mutex_);
  return posted_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                          [&] { return exceptions_.size() >= count; });
}

size_t PostedExceptions::count() {
  std::lock_guard<std::mutex> guard(mutex_);
  return exceptions_.size();
}

std::unique_ptr<Pt::Exception> PostedExceptions::at(size_t index) {
  std::lock_guard<std::mutex> guard(mutex_);
  if (index >= exceptions_.size()) return nullptr;
  return std::unique_ptr<Pt::Exception>(exceptions_[index]->clone());
}

}  // namespace TarnTest
