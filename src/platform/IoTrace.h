// Test seam: a trace of what every device wrote and when it flushed, in the
// order it happened, for tests that check durability and for a power-loss
// simulator that replays it.
//
// Between Start() and Stop() the devices record, in one sequence:
//   Write       a write request completed without error: its offset and a
//               copy of the bytes it wrote. Recorded before the device
//               retires the request, so before any flush that waits for it
//               can go on.
//   FlushBegin  flush() has waited for every request queued before it and is
//               about to call fdatasync. `writesCovered` is the number of
//               Write events of the same device recorded before it: every one
//               of them completed before fdatasync was called. A Write
//               recorded after it may or may not have reached the disk with
//               this flush.
//   FlushEnd    fdatasync returned without error: the writes the matching
//               FlushBegin covered are durable. A failed flush records no
//               FlushEnd.
// So after a power loss, the file holds every write covered by the last
// FlushBegin that has a FlushEnd, and any subset of the writes after it.
// Writes that failed are not recorded (the bytes a failed write leaves behind
// are not known).
//
// Off by default; while off, a device pays one relaxed atomic load per
// completed request and per flush.
//
// Ownership: Stop() hands the events to the caller. Thread-safety: every
// function may be called from any thread; one trace at a time. Errors:
// recording never throws (an event that cannot be stored for want of memory
// marks the trace as incomplete: Stop() then throws std::bad_alloc). For
// tests only; an application never calls it.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace Pt {

class IoRequest;

class IoTrace {
 public:
  enum class Type { Write, FlushBegin, FlushEnd };

  struct Event {
    Type type = Type::Write;
    int device = -1;             // the device's descriptor
    int64_t offset = 0;          // Write only
    std::vector<uint8_t> bytes;  // Write only: what was written
    size_t writesCovered = 0;    // FlushBegin and FlushEnd: see above
  };

  // Starts a new trace, dropping anything recorded before.
  static void Start();
  // Ends the trace and returns its events in order. Throws std::bad_alloc
  // when an event could not be recorded.
  static std::vector<Event> Stop();
  // Flushes that completed (FlushEnd events) since Start(), on `device` or,
  // with -1, on every device.
  static size_t FlushCount(int device = -1);

  // Used by the device.
  static bool On() noexcept { return on_.load(std::memory_order_relaxed); }
  static void RecordWrite(int device, const IoRequest& request, int bytes) noexcept;
  // Returns the FlushBegin's writesCovered, for the matching FlushEnd.
  static size_t RecordFlushBegin(int device) noexcept;
  static void RecordFlushEnd(int device, size_t writesCovered) noexcept;

 private:
  static std::atomic<bool> on_;
};

}  // namespace Pt
