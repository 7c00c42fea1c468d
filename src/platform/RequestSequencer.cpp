#include "platform/RequestSequencer.h"

#include <cassert>
#include <unordered_map>

#include "platform/RequestState.h"

namespace Pt {

RequestSequencer::SegmentMap::iterator RequestSequencer::firstOverlapping(int64_t begin) {
  auto it = segments_.upper_bound(begin);
  if (it != segments_.begin()) {
    auto previous = std::prev(it);
    if (previous->second.end > begin) return previous;
  }
  return it;
}

void RequestSequencer::link(IoRequest* request, int64_t begin, int64_t end) {
  RequestState& state = IoRequestAccess::state(*request);
  state.begin = begin;
  state.end = end;
  state.admission = ++admitted_;
  state.liveNext = nullptr;
  state.livePrev = liveTail_;
  if (liveTail_ != nullptr) {
    IoRequestAccess::state(*liveTail_).liveNext = request;
  } else {
    liveHead_ = request;
  }
  liveTail_ = request;
  ++liveCount_;
}

void RequestSequencer::unlink(IoRequest* request) {
  RequestState& state = IoRequestAccess::state(*request);
  (state.livePrev ? IoRequestAccess::state(*state.livePrev).liveNext : liveHead_) = state.liveNext;
  (state.liveNext ? IoRequestAccess::state(*state.liveNext).livePrev : liveTail_) = state.livePrev;
  state.liveNext = state.livePrev = nullptr;
  --liveCount_;
}

bool RequestSequencer::admit(IoRequest* request, int64_t begin, int64_t end) {
  link(request, begin, end);
  if (begin >= end) return true;  // an empty range overlaps nothing
  RequestState& state = IoRequestAccess::state(*request);

  // Step 1: every distinct tail over the range becomes a predecessor.
  auto it = firstOverlapping(begin);
  for (auto scan = it; scan != segments_.end() && scan->first < end; ++scan) {
    IoRequest* tail = scan->second.tail;
    RequestState& tailState = IoRequestAccess::state(*tail);
    if (tailState.lastVisitor == request) continue;
    tailState.lastVisitor = request;
    tailState.successors.push_back(request);
    ++state.pendingPredecessors;
  }

  // Step 2: the new request becomes the tail of its whole range. Parts of the
  // first and last segments that stick out keep their old tail.
  while (it != segments_.end() && it->first < end) {
    const int64_t segmentBegin = it->first;
    const Segment segment = it->second;
    it = segments_.erase(it);
    if (segmentBegin < begin) segments_.emplace(segmentBegin, Segment{begin, segment.tail});
    if (segment.end > end) segments_.emplace(end, Segment{segment.end, segment.tail});
  }
  segments_.emplace(begin, Segment{end, request});
  PT_DEBUG_CHECK(liveCount_, checkInvariants());
  return state.pendingPredecessors == 0;
}

void RequestSequencer::retire(IoRequest* request, int64_t begin, int64_t end,
                              std::vector<IoRequest*>& ready) {
  unlink(request);
  if (begin >= end) return;
  RequestState& state = IoRequestAccess::state(*request);
  assert(state.pendingPredecessors == 0);

  // Segments this request still tails lie inside its own range.
  for (auto it = firstOverlapping(begin); it != segments_.end() && it->first < end;) {
    it = it->second.tail == request ? segments_.erase(it) : std::next(it);
  }
  for (IoRequest* successor : state.successors) {
    if (--IoRequestAccess::state(*successor).pendingPredecessors == 0) ready.push_back(successor);
  }
  state.successors.clear();
  state.successors.shrink_to_fit();
  PT_DEBUG_CHECK(liveCount_, checkInvariants());
}

// ---- Invariant checks ----------------------------------------------------

bool RequestSequencer::checkInvariants() const {
  LiveSet live;
  return liveListHolds(live) && segmentsHold(live) && linksHold(live);
}

// The live list: linked both ways, in admission order, as long as liveCount_.
bool RequestSequencer::liveListHolds(LiveSet& live) const {
  const IoRequest* previous = nullptr;
  uint64_t previousAdmission = 0;
  for (IoRequest* r = liveHead_; r != nullptr; r = IoRequestAccess::state(*r).liveNext) {
    const RequestState& state = IoRequestAccess::state(*r);
    if (live.size() >= liveCount_ || state.livePrev != previous) return false;
    if (state.admission <= previousAdmission || state.admission > admitted_) return false;
    live.insert(r);
    previous = r;
    previousAdmission = state.admission;
  }
  return previous == liveTail_ && live.size() == liveCount_;
}

bool RequestSequencer::segmentsHold(const LiveSet& live) const {
  int64_t previousEnd = INT64_MIN;
  for (const auto& [begin, segment] : segments_) {
    if (begin >= segment.end || begin < previousEnd) return false;
    if (!segmentTailHolds(begin, segment, live)) return false;
    previousEnd = segment.end;
  }
  return true;
}

// The tail is live, covers the segment, and every other live request on
// those bytes is older and reaches it through successor links.
bool RequestSequencer::segmentTailHolds(int64_t begin, const Segment& segment,
                                        const LiveSet& live) const {
  if (live.count(segment.tail) == 0) return false;
  const RequestState& tail = IoRequestAccess::state(*segment.tail);
  if (tail.begin > begin || tail.end < segment.end) return false;
  for (const IoRequest* other : live) {
    const RequestState& state = IoRequestAccess::state(*other);
    if (other == segment.tail || state.end <= begin || state.begin >= segment.end) continue;
    if (state.admission > tail.admission || !Reaches(other, segment.tail)) return false;
  }
  return true;
}

// True when `to` can be reached from `from` through successor links.
bool RequestSequencer::Reaches(const IoRequest* from, const IoRequest* to) {
  const uint64_t limit = IoRequestAccess::state(*to).admission;
  std::vector<const IoRequest*> stack{from};
  LiveSet seen{from};
  while (!stack.empty()) {
    const RequestState& state = IoRequestAccess::state(*stack.back());
    stack.pop_back();
    for (const IoRequest* next : state.successors) {
      if (next == to) return true;
      // Successors are younger than their predecessor: none younger than
      // `to` leads back to it.
      if (IoRequestAccess::state(*next).admission < limit && seen.insert(next).second) {
        stack.push_back(next);
      }
    }
  }
  return false;
}

// Successor links join live requests that overlap, younger after older, once
// each; pendingPredecessors counts the links into a request; every byte of a
// live request lies in a segment.
bool RequestSequencer::linksHold(const LiveSet& live) const {
  std::unordered_map<const IoRequest*, int> incoming;
  for (const IoRequest* r : live) {
    const RequestState& state = IoRequestAccess::state(*r);
    LiveSet listed;
    for (const IoRequest* successor : state.successors) {
      const RequestState& next = IoRequestAccess::state(*successor);
      if (live.count(successor) == 0 || !listed.insert(successor).second) return false;
      if (next.admission <= state.admission) return false;
      if (next.begin >= state.end || state.begin >= next.end) return false;
      ++incoming[successor];
    }
  }
  for (const IoRequest* r : live) {
    const RequestState& state = IoRequestAccess::state(*r);
    const auto found = incoming.find(r);
    if (state.pendingPredecessors != (found == incoming.end() ? 0 : found->second)) return false;
    if (!Covered(segments_, state.begin, state.end)) return false;
  }
  return true;
}

// True when the segments cover [begin, end) without a gap.
bool RequestSequencer::Covered(const SegmentMap& segments, int64_t begin, int64_t end) {
  auto it = segments.upper_bound(begin);
  if (it != segments.begin()) --it;
  int64_t reached = begin;
  for (; it != segments.end() && it->first <= reached && reached < end; ++it) {
    if (it->second.end > reached) reached = it->second.end;
  }
  return reached >= end;
}

}  // namespace Pt
