#include "platform/WriteGroup.h"

#include <algorithm>

namespace Pt {

bool WriteGroup::Joinable(const IoRequest& request) {
  const RequestState& state = IoRequestAccess::state(request);
  return state.kind == IoKind::Write && !state.solo && request.length() > 0 &&
         state.transferred == 0 && state.injectedError == 0 && state.shortenFirstTo == 0 &&
         state.transientErrors == 0;
}

WriteGroup::WriteGroup(IoRequest* first)
    : first_(first),
      fd_(IoRequestAccess::state(*first).fd),
      begin_(first->offset()),
      end_(first->offset() + first->length()) {
  members_[count_++] = first;
}

bool WriteGroup::tryAdd(IoRequest* request) {
  if (full() || IoRequestAccess::state(*request).fd != fd_ || !Joinable(*request)) return false;
  if (end_ - begin_ + request->length() > kMaxBytes) return false;
  if (request->offset() == end_) {
    end_ += request->length();
  } else if (request->offset() + request->length() == begin_) {
    begin_ = request->offset();
  } else {
    return false;
  }
  members_[count_++] = request;
  return true;
}

void WriteGroup::seal() {
  std::sort(members_, members_ + count_,
            [](const IoRequest* a, const IoRequest* b) { return a->offset() < b->offset(); });
  for (size_t i = 0; i < count_; ++i) {
    vector_[i] = {members_[i]->data(), static_cast<size_t>(members_[i]->length())};
  }
}

size_t WriteGroup::settle(long result) {
  // A failure, or no progress at all, tells nothing about any one member:
  // each is tried again alone and hears its own outcome.
  int64_t left = result > 0 ? result : 0;
  size_t whole = 0;
  for (size_t i = 0; i < count_; ++i) {
    RequestState& state = IoRequestAccess::state(*members_[i]);
    const int64_t length = members_[i]->length();
    if (left >= length && whole == i) {
      state.transferred = static_cast<int>(length);
      left -= length;
      ++whole;
    } else {
      state.transferred = static_cast<int>(left);
      state.solo = true;
      left = 0;
    }
  }
  return whole;
}

bool WriteGroup::checkInvariants() const {
  if (count_ == 0 || count_ > kMaxMembers) return false;
  if (count_ > 1 && end_ - begin_ > kMaxBytes) return false;
  int64_t at = begin_;
  for (size_t i = 0; i < count_; ++i) {
    const IoRequest* member = members_[i];
    const RequestState& state = IoRequestAccess::state(*member);
    if (member->offset() != at || state.fd != fd_ || state.kind != IoKind::Write) return false;
    if (vector_[i].iov_base != member->data() ||
        vector_[i].iov_len != static_cast<size_t>(member->length())) {
      return false;
    }
    at += member->length();
  }
  return at == end_;
}

}  // namespace Pt
