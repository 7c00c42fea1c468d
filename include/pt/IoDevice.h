// A device that carries out asynchronous reads and writes.
//
// read and write queue a request and return at once. The device calls exactly
// one of the request's ioCompleted or ioFailed on a platform I/O thread, never
// on the calling thread, and releases the request afterwards. Requests whose
// byte ranges overlap reach the device in the order in which they were queued
// (reads included: a read queued after an overlapping write sees that write);
// requests that do not overlap run in parallel. When a request fails, its
// ioFailed returns before any request queued behind it starts.
//
// Thread-safety: read and write may be called from any thread, completion
// callbacks included. They throw Pt::ExSystem when a request cannot be queued
// (then no callback is made for it).
#pragma once

#include "pt/IoRequest.h"

namespace Pt {

class IoDevice : public SmartPointerBase {
 public:
  virtual void read(const SmartPointer<IoRequest>& request) = 0;
  virtual void write(const SmartPointer<IoRequest>& request) = 0;
};

}  // namespace Pt
