// WorkRequest: one piece of work queued for the process-wide worker threads.
//
// The owner (a cache manager, by its process-unique id) queues it under a
// request id that is unique among that owner's queued requests; two owners
// may use the same request ids, so the pair identifies a request.
//
// Ownership: reference counted; the queues hold a reference while it waits,
// the worker while it runs.
#pragma once

#include <cstdint>

#include "pt/Exception.h"
#include "pt/SmartPointer.h"

namespace Tarn {

class WorkRequest : public Pt::SmartPointerBase {
 public:
  WorkRequest(int32_t ownerId, int32_t requestId) : ownerId_(ownerId), requestId_(requestId) {}

  int32_t ownerId() const { return ownerId_; }
  int32_t requestId() const { return requestId_; }

  // The work, on a worker thread with no lock of the work manager held.
  virtual void run() = 0;
  // Called on the same thread when run() throws, whatever it throws: an
  // exception that is not a Pt::Exception arrives wrapped in one (see
  // core/ClientException.h). `error` is valid only during the call; what this
  // throws in turn is posted.
  virtual void handleException(const Pt::Exception& error) = 0;

 private:
  const int32_t ownerId_;
  const int32_t requestId_;
};

}  // namespace Tarn
