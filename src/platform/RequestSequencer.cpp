#include "platform/RequestSequencer.h"

#include <cassert>

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

bool RequestSequencer::admit(IoRequest* request, int64_t begin, int64_t end) {
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
  return state.pendingPredecessors == 0;
}

void RequestSequencer::retire(IoRequest* request, int64_t begin, int64_t end,
                              std::vector<IoRequest*>& ready) {
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
}

void RequestSequencer::checkInvariants() const {
#ifndef NDEBUG
  int64_t previousEnd = INT64_MIN;
  for (const auto& [begin, segment] : segments_) {
    assert(begin < segment.end);
    assert(begin >= previousEnd);
    assert(segment.tail != nullptr);
    previousEnd = segment.end;
  }
#endif
}

}  // namespace Pt
