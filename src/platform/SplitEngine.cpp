#include "platform/SplitEngine.h"

#include <vector>

namespace Pt {

void SplitEngine::submit(IoRequest* request) {
  if (IoRequestAccess::state(*request).kind == IoKind::Write) {
    writes_->submit(request);
  } else {
    reads_->submit(request);
  }
}

// Keeps each engine's share as one batch.
void SplitEngine::submitBatch(IoRequest* const* requests, size_t count) {
  std::vector<IoRequest*> reads, writes;
  for (size_t i = 0; i < count; ++i) {
    (IoRequestAccess::state(*requests[i]).kind == IoKind::Write ? writes : reads)
        .push_back(requests[i]);
  }
  if (!writes.empty()) writes_->submitBatch(writes.data(), writes.size());
  if (!reads.empty()) reads_->submitBatch(reads.data(), reads.size());
}

}  // namespace Pt
