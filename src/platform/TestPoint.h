// Test seam: named points the library signals, so that a test can wait until
// a thread has reached a chosen place instead of hoping it has.
//
// The library signals a point with a value (what the value means is listed
// with each point below). While no test watches, a signal costs one relaxed
// atomic load. Between Watch() and Unwatch(), every signal is recorded, and a
// test waits with WaitFor until a signal with the value it expects arrived
// (whether before or after the call).
//
// The device's points, signalled for every device (`device` is its
// descriptor):
//   DeviceFlushWaiting      flush() has opened its barrier and now waits for
//                           `value` earlier requests (0: it waits for none);
//                           none of them can finish unseen by it from here on.
//   DeviceRequestEntered    a request leaves the device for the engine (after
//                           the fault-injection seam let it through, or when
//                           a held request is released); `value` is its offset.
//   DeviceRequestCompleted  the engine finished a request, before the device
//                           retires it and runs its callback; `value` is its
//                           offset.
//
// Ownership: the records live in the seam until Unwatch(). Thread-safety:
// every function may be called from any thread; Watch/Unwatch pairs do not
// nest (one test at a time). Errors: none thrown; WaitFor reports a time-out
// by returning false. For tests only; an application never calls it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>

namespace Pt {

class TestPoint {
 public:
  enum class Id { DeviceFlushWaiting, DeviceRequestEntered, DeviceRequestCompleted };

  // Starts recording signals, forgetting any recorded before.
  static void Watch();
  // Stops recording and forgets the records.
  static void Unwatch();
  // Waits up to `timeoutMs` until `point` was signalled with `value` (on any
  // device) since Watch(). False on time-out or when nothing is watched.
  static bool WaitFor(Id point, int64_t value, int timeoutMs = 10000);
  // How many signals of `point` were recorded since Watch().
  static size_t Count(Id point);

  // Used by the library: true while a test watches (one relaxed load).
  static bool Watched() noexcept { return watched_.load(std::memory_order_relaxed); }
  // Used by the library: records the signal while a test watches.
  static void Signal(Id point, int device, int64_t value) noexcept {
    if (watched_.load(std::memory_order_relaxed)) Record(point, device, value);
  }

 private:
  static void Record(Id point, int device, int64_t value) noexcept;
  static std::atomic<bool> watched_;
};

}  // namespace Pt
