#include "platform/IoEngine.h"

#include <algorithm>
#include <cerrno>

namespace Pt {

TransferStep NextTransferStep(IoRequest& request) {
  RequestState& state = IoRequestAccess::state(request);
  size_t size = static_cast<size_t>(request.length() - state.transferred);
  if (state.shortenFirstTo > 0) {
    size = std::min(size, static_cast<size_t>(state.shortenFirstTo));
    state.shortenFirstTo = 0;
  }
  return {request.data() + state.transferred, size, request.offset() + state.transferred};
}

bool AccountTransfer(IoRequest& request, long result, int& error) {
  RequestState& state = IoRequestAccess::state(request);
  error = 0;
  if (state.transientErrors > 0) {
    --state.transientErrors;
    result = -EAGAIN;
  }
  if (result == -EINTR || result == -EAGAIN) return false;  // not a failure: go again
  if (result < 0) {
    error = static_cast<int>(-result);
    return true;
  }
  state.transferred += static_cast<int>(result);
  if (state.transferred >= request.length()) return true;
  if (result == 0) {
    // A read at the end of the file is complete with what it got; a write
    // that moves nothing would never finish.
    if (state.kind == IoKind::Write) error = EIO;
    return true;
  }
  return false;
}

}  // namespace Pt
