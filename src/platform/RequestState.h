// The device's bookkeeping of one queued request. It lives in the request's
// own allocation, between the IoRequest object and its data area, so that
// queueing a request allocates nothing.
#pragma once

#include <cstdint>
#include <vector>

#include "pt/IoRequest.h"

namespace Pt {

class DeviceCore;

enum class IoKind : uint8_t { Read, Write };

struct RequestState {
  DeviceCore* device = nullptr;  // set while queued; the device is kept alive meanwhile
  int fd = -1;
  IoKind kind = IoKind::Read;
  int transferred = 0;  // bytes done so far; short transfers continue from here
  bool solo = false;    // carried out alone, never in a WriteGroup (set after a group fell short)

  // Set by the fault-injection seam (tests only).
  int injectedError = 0;    // fail the request with this errno instead of doing it
  int shortenFirstTo = 0;   // cap the first transfer at this many bytes
  int transientErrors = 0;  // report EAGAIN this many times before doing it

  // Sequencing of overlapping requests (RequestSequencer).
  int pendingPredecessors = 0;         // earlier overlapping requests still running
  std::vector<IoRequest*> successors;  // later requests waiting for this one
  const IoRequest* lastVisitor =
      nullptr;        // de-duplicates this request among a new one's predecessors
  int64_t begin = 0;  // the byte range it was admitted over
  int64_t end = 0;
  uint64_t admission = 0;         // admission order within its sequencer, from 1
  IoRequest* liveNext = nullptr;  // the sequencer's list of admitted, unretired requests
  IoRequest* livePrev = nullptr;

  uint64_t flushEpoch = 0;    // which flush generation counts it
  IoRequest* next = nullptr;  // intrusive links in engine queues and lists
  IoRequest* prev = nullptr;
};

// The platform's private access to the request's hidden parts.
class IoRequestAccess {
 public:
  static RequestState& state(IoRequest& request) noexcept;
  static const RequestState& state(const IoRequest& request) noexcept {
    return state(const_cast<IoRequest&>(request));
  }
  static void setByteCount(IoRequest& request, int count) noexcept { request.byteCount_ = count; }
};

}  // namespace Pt
