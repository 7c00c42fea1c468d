// Orders the requests of one device whose byte ranges overlap.
//
// Neither io_uring nor a thread pool keeps two requests on the same bytes in
// the order they were queued. The sequencer does: a request starts only when
// every earlier request that overlaps it has completed. Requests that overlap
// nothing start at once and run in parallel.
//
// Invariants (checked by checkInvariants() in debug builds):
// - `segments_` holds disjoint, non-empty byte ranges, keyed by their start.
// - Each segment names its tail: the latest queued, not yet retired request
//   that covers the segment. Every earlier request covering those bytes is a
//   predecessor of the tail, directly or through other requests.
// - A request's pendingPredecessors counts the distinct tails that it found
//   over its range when it was admitted and that have not retired yet; each
//   of them lists it once among its successors.
// - A retired request is the tail of no segment.
//
// Cost: admitting a request creates at most three segments and removes every
// segment it visits, so admit and retire are O(log n) amortised in the number
// of queued requests. Not thread-safe: the device locks around it.
#pragma once

#include <cstdint>
#include <map>
#include <vector>

#include "pt/IoRequest.h"

namespace Pt {

class RequestSequencer {
 public:
  // Registers `request` over [begin, end). True when it may start now; else
  // it starts when retire() hands it out.
  bool admit(IoRequest* request, int64_t begin, int64_t end);

  // Marks `request` over [begin, end) as done and appends the requests that
  // may start now to `ready`, in queue order of their admission.
  void retire(IoRequest* request, int64_t begin, int64_t end, std::vector<IoRequest*>& ready);

  size_t segmentCount() const { return segments_.size(); }
  bool empty() const { return segments_.empty(); }
  void checkInvariants() const;

 private:
  struct Segment {
    int64_t end;
    IoRequest* tail;
  };
  using SegmentMap = std::map<int64_t, Segment>;

  SegmentMap::iterator firstOverlapping(int64_t begin);

  SegmentMap segments_;
};

}  // namespace Pt
