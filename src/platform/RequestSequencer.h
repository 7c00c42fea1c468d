// Orders the requests of one device whose byte ranges overlap.
//
// Neither io_uring nor a thread pool keeps two requests on the same bytes in
// the order they were queued. The sequencer does: a request starts only when
// every earlier request that overlaps it has completed. Requests that overlap
// nothing start at once and run in parallel.
//
// Invariants (checkInvariants() walks the whole structure; debug builds call
// it after every admit and retire while at most kDebugCheckLimit requests are
// live, stress tests call it in every build):
// - `segments_` holds disjoint, non-empty byte ranges, keyed by their start.
// - Each segment names its tail: the latest queued, not yet retired request
//   that covers the segment. Every earlier request covering those bytes is a
//   predecessor of the tail, directly or through other requests.
// - A request's pendingPredecessors counts the distinct tails that it found
//   over its range when it was admitted and that have not retired yet; each
//   of them lists it once among its successors.
// - A retired request is the tail of no segment.
// - The live list holds every admitted, not yet retired request once, in
//   admission order, and `liveCount_` is its length; every byte a live
//   request covers lies in a segment.
//
// Cost: admitting a request creates at most three segments and removes every
// segment it visits, so admit and retire are O(log n) amortised in the number
// of queued requests; the live list adds O(1). checkInvariants() costs
// O(n * (segments + successor links)). Not thread-safe: the device locks
// around it.
#pragma once

#include <cstdint>
#include <map>
#include <unordered_set>
#include <vector>

#include "platform/InvariantCheck.h"
#include "platform/RequestState.h"
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
  // Admitted, not yet retired requests (empty ranges included).
  size_t liveCount() const { return liveCount_; }
  // Calls visit(IoRequest*) for each live request, oldest first.
  template <class Visit>
  void forEachLive(Visit visit) const {
    for (IoRequest* r = liveHead_; r != nullptr; r = IoRequestAccess::state(*r).liveNext) visit(r);
  }
  // True when every invariant above holds. Never throws; changes nothing.
  bool checkInvariants() const;

 private:
  friend struct RequestSequencerTestAccess;  // tests break the structure on purpose

  struct Segment {
    int64_t end;
    IoRequest* tail;
  };
  using SegmentMap = std::map<int64_t, Segment>;

  SegmentMap::iterator firstOverlapping(int64_t begin);
  void link(IoRequest* request, int64_t begin, int64_t end);
  void unlink(IoRequest* request);
  using LiveSet = std::unordered_set<const IoRequest*>;
  bool liveListHolds(LiveSet& live) const;
  bool segmentsHold(const LiveSet& live) const;
  bool segmentTailHolds(int64_t begin, const Segment& segment, const LiveSet& live) const;
  bool linksHold(const LiveSet& live) const;
  static bool Reaches(const IoRequest* from, const IoRequest* to);
  static bool Covered(const SegmentMap& segments, int64_t begin, int64_t end);

  SegmentMap segments_;
  IoRequest* liveHead_ = nullptr;
  IoRequest* liveTail_ = nullptr;
  size_t liveCount_ = 0;
  uint64_t admitted_ = 0;
};

}  // namespace Pt
