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
// readNowOrQueue is read with a shortcut for bytes already in memory. When
// the device can carry the read out on the calling thread without blocking
// (no earlier overlapping request unfinished, the bytes in the page cache),
// it does so and returns true: byteCount() is set, the device makes no
// callback and keeps no reference, and the caller completes the read itself
// by calling ioCompleted on the thread and at the moment of its choosing,
// typically after releasing its own locks (the device holds none by then).
// Otherwise it queues the request exactly as read does and returns false.
// Either way the read keeps its place in the order of overlapping requests.
// The default implementation never takes the shortcut.
//
// Thread-safety: read, readNowOrQueue and write may be called from any
// thread, completion callbacks included. They throw Pt::ExSystem when a
// request cannot be queued (then no callback is made for it).
#pragma once

#include "pt/IoRequest.h"

namespace Pt {

class IoDevice : public SmartPointerBase {
 public:
  virtual void read(const SmartPointer<IoRequest>& request) = 0;
  virtual void write(const SmartPointer<IoRequest>& request) = 0;
  virtual bool readNowOrQueue(const SmartPointer<IoRequest>& request) {
    read(request);
    return false;
  }
};

}  // namespace Pt
