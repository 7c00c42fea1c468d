#include "platform/UringEngine.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstdint>
#include <system_error>

#include "platform/InvariantCheck.h"
#include "platform/IoFaultInjection.h"
#include "platform/RaiseSites.h"
#include "platform/SanitizerHints.h"

namespace Pt {
namespace {

constexpr unsigned kRingEntries = 256;
constexpr size_t kReapBatch = 64;

// Tags of the engine's own no-ops; requests carry their own address.
char kWakeTag;
char kStopTag;

}  // namespace

std::unique_ptr<UringEngine> UringEngine::Create(int threads) {
  std::unique_ptr<UringEngine> engine(new UringEngine());
  int error = IoFaultInjection::RingSetupError();
  if (error == 0) error = -io_uring_queue_init(kRingEntries, &engine->ring_, 0);
  if (error != 0) throw ExSystem(error, kRaiseIoUringSetup);
  engine->ringReady_ = true;
  // Never more in flight than the completion queue holds, less room for the
  // engine's own no-ops (at most one wake-up and the stop), so no completion
  // ever waits for room.
  engine->maxInFlight_ = engine->ring_.cq.ring_entries - 4;
  try {
    for (int i = 0; i < threads; ++i)
      engine->threads_.emplace_back([e = engine.get(), i] { e->completionLoop(i); });
  } catch (const std::system_error& failure) {
    engine.reset();  // the destructor stops the threads already running
    throw ExSystem(failure.code().value(), kRaiseIoThreadCreate);
  }
  return engine;
}

UringEngine::~UringEngine() {
  if (!ringReady_) return;
  {
    PlainLock guard(reapMutex_);
    stopping_ = true;
    roster_.wakeAll();
  }
  {
    // A no-op wakes the thread on duty out of its wait; it then sees the stop.
    PlainLock guard(submitMutex_);
    pushNoOp(&kStopTag);
    io_uring_submit(&ring_);
  }
  for (std::thread& thread : threads_) thread.join();
  io_uring_queue_exit(&ring_);
}

void UringEngine::submit(IoRequest* request) {
  PlainLock guard(submitMutex_);
  pending_.push_back(request);
  wakeReaper();
  PT_DEBUG_CHECK(inFlight_, invariantsHold());
}

void UringEngine::submitBatch(IoRequest* const* requests, size_t count) {
  PlainLock guard(submitMutex_);
  pending_.insert(pending_.end(), requests, requests + count);
  wakeReaper();
  PT_DEBUG_CHECK(inFlight_, invariantsHold());
}

void UringEngine::wakeReaper() {
  anyPending_.store(!pending_.empty(), std::memory_order_relaxed);
  if (reaperWaiting_ && !wakeQueued_ && !pending_.empty()) {
    // A no-op completes at once, on this thread, and cannot be cancelled.
    wakeQueued_ = true;
    pushNoOp(&kWakeTag);
    io_uring_submit(&ring_);
  }
}

io_uring_sqe* UringEngine::nextSqe() {
  io_uring_sqe* sqe = io_uring_get_sqe(&ring_);
  while (sqe == nullptr) {
    // The submission queue is full of prepared entries; hand them over.
    io_uring_submit(&ring_);
    sqe = io_uring_get_sqe(&ring_);
  }
  return sqe;
}

void UringEngine::pushNoOp(void* tag) {
  io_uring_sqe* sqe = nextSqe();
  io_uring_prep_nop(sqe);
  io_uring_sqe_set_data(sqe, tag);
}

void UringEngine::flushPending() {
  while (!pending_.empty() && inFlight_ < maxInFlight_) {
    IoRequest* request = pending_.front();
    pending_.pop_front();
    linkInFlight(request);
    std::unique_ptr<WriteGroup> group = gather(request);
    if (group) {
      prepareGroup(group.release());  // the completion deletes it
    } else {
      prepare(request);
    }
  }
  anyPending_.store(!pending_.empty(), std::memory_order_relaxed);
  io_uring_submit(&ring_);
}

void UringEngine::linkInFlight(IoRequest* request) {
  RequestState& state = IoRequestAccess::state(*request);
  state.prev = nullptr;
  state.next = inFlightHead_;
  if (inFlightHead_ != nullptr) IoRequestAccess::state(*inFlightHead_).prev = request;
  inFlightHead_ = request;
  ++inFlight_;
}

void UringEngine::unlinkInFlight(IoRequest* request) {
  RequestState& state = IoRequestAccess::state(*request);
  (state.prev ? IoRequestAccess::state(*state.prev).next : inFlightHead_) = state.next;
  if (state.next != nullptr) IoRequestAccess::state(*state.next).prev = state.prev;
  state.next = state.prev = nullptr;
  --inFlight_;
}

void UringEngine::prepare(IoRequest* request) {
  io_uring_sqe* sqe = nextSqe();
  RequestState& state = IoRequestAccess::state(*request);
  if (state.injectedError != 0) {
    io_uring_prep_nop(sqe);
  } else {
    const TransferStep step = NextTransferStep(*request);
    if (state.kind == IoKind::Read) {
      io_uring_prep_read(sqe, state.fd, step.buffer, static_cast<unsigned>(step.size),
                         static_cast<__u64>(step.offset));
    } else {
      io_uring_prep_write(sqe, state.fd, step.buffer, static_cast<unsigned>(step.size),
                          static_cast<__u64>(step.offset));
      // Buffered writes to most file systems cannot complete without
      // blocking; going straight to the kernel's workers saves a failed
      // non-blocking attempt per write.
      sqe->flags |= IOSQE_ASYNC;
    }
  }
  io_uring_sqe_set_data(sqe, request);
  PT_HANDOFF_RELEASE(request);
}

std::unique_ptr<WriteGroup> UringEngine::gather(IoRequest* request) {
  if (pending_.empty() || !WriteGroup::Joinable(*request)) return nullptr;
  auto group = std::make_unique<WriteGroup>(request);
  // A queue in ascending order joins in one pass; a second pass picks up
  // writes queued before their lower neighbour.
  for (int pass = 0; pass < 2 && !group->full(); ++pass) {
    const size_t window = std::min(pending_.size(), WriteGroup::kGatherScan);
    const auto end = pending_.begin() + static_cast<std::ptrdiff_t>(window);
    const auto kept = std::remove_if(
        pending_.begin(), end, [&](IoRequest* candidate) { return group->tryAdd(candidate); });
    if (kept == end) break;
    pending_.erase(kept, end);
  }
  if (group->size() == 1) return nullptr;
  return group;
}

void UringEngine::prepareGroup(WriteGroup* group) {
  group->seal();
  assert(group->checkInvariants());
  countGroup(group->size());
  io_uring_sqe* sqe = nextSqe();
  io_uring_prep_writev(sqe, group->fd(), group->vector(),
                       static_cast<unsigned>(group->vectorCount()),
                       static_cast<__u64>(group->offset()));
  sqe->flags |= IOSQE_ASYNC;
  // Groups are told from requests by the low bit of the tag.
  io_uring_sqe_set_data(sqe, reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(group) | 1));
  PT_HANDOFF_RELEASE(group);
}

void UringEngine::completionLoop(int self) {
  Completion batch[kReapBatch];
  PlainLock lock(reapMutex_);
  for (;;) {
    if (roster_.claimIfFree(self)) {
      if (!ready_.empty()) {
        const Completion completion = ready_.front();
        ready_.pop_front();
        roster_.beginItem();
        lock.unlock();
        handle(completion);
        lock.lock();
        roster_.endItem(self);
        continue;
      }
      if (stopping_) break;
      // Only the thread on duty reaps; it does so with nothing left in ready_.
      lock.unlock();
      const size_t count = waitAndReap(batch, kReapBatch);
      lock.lock();
      ready_.insert(ready_.end(), batch, batch + count);
      continue;
    }
    if (stopping_) break;
    // The roster calls these with reapMutex_ held, which the analysis cannot
    // see through the template.
    roster_.serve(
        lock.native(), self,
        [this]() PT_NO_THREAD_SAFETY_ANALYSIS {
          return !ready_.empty() || io_uring_cq_ready(&ring_) > 0 ||
                 anyPending_.load(std::memory_order_relaxed);
        },
        [this]() PT_NO_THREAD_SAFETY_ANALYSIS { return stopping_; });
  }
  roster_.release(self);
  roster_.wakeAll();
}

// Hands the pending requests to the kernel, then sleeps until completions
// arrive and takes a batch of them.
size_t UringEngine::waitAndReap(Completion* batch, size_t capacity) {
  {
    PlainLock guard(submitMutex_);
    flushPending();
    reaperWaiting_ = true;
  }
  io_uring_cqe* cqe = nullptr;
  int error;
  do {
    error = io_uring_wait_cqe(&ring_, &cqe);
  } while (error == -EINTR);
  {
    PlainLock guard(submitMutex_);
    reaperWaiting_ = false;
    wakeQueued_ = false;
  }
  if (error < 0) return 0;
  io_uring_cqe* cqes[kReapBatch];
  const unsigned count = io_uring_peek_batch_cqe(&ring_, cqes, static_cast<unsigned>(capacity));
  size_t taken = 0;
  for (unsigned i = 0; i < count; ++i) {
    void* tag = io_uring_cqe_get_data(cqes[i]);
    if (tag == &kWakeTag || tag == &kStopTag) continue;
    const auto bits = reinterpret_cast<uintptr_t>(tag);
    if ((bits & 1) != 0) {
      auto* group = reinterpret_cast<WriteGroup*>(bits & ~uintptr_t{1});
      PT_HANDOFF_ACQUIRE(group);
      batch[taken++] = {nullptr, group, cqes[i]->res};
      continue;
    }
    auto* request = static_cast<IoRequest*>(tag);
    PT_HANDOFF_ACQUIRE(request);
    batch[taken++] = {request, nullptr, cqes[i]->res};
  }
  io_uring_cq_advance(&ring_, count);
  return taken;
}

void UringEngine::handle(const Completion& completion) {
  if (completion.group != nullptr) {
    handleGroup(completion.group, completion.result);
    return;
  }
  IoRequest* request = completion.request;
  RequestState& state = IoRequestAccess::state(*request);
  int error = state.injectedError;
  if (error != 0 || AccountTransfer(*request, completion.result, error)) {
    finish(request, error);
  } else {
    PlainLock guard(submitMutex_);
    prepare(request);  // the rest of a short transfer, or a retry; still in flight
    io_uring_submit(&ring_);
  }
}

// Members written whole finish; the others go back to the front of the
// queue, in order, to be carried out alone.
void UringEngine::handleGroup(WriteGroup* group, int result) {
  const size_t whole = group->settle(result);
  {
    PlainLock guard(submitMutex_);
    unlinkInFlight(group->first());
    for (size_t i = group->size(); i-- > whole;) pending_.push_front(group->member(i));
    anyPending_.store(!pending_.empty(), std::memory_order_relaxed);
    if (!pending_.empty() && inFlight_ < maxInFlight_) flushPending();
    PT_DEBUG_CHECK(inFlight_, invariantsHold());
  }
  for (size_t i = 0; i < whole; ++i) FinishRequest(group->member(i), 0);
  delete group;
}

void UringEngine::finish(IoRequest* request, int error) {
  {
    PlainLock guard(submitMutex_);
    unlinkInFlight(request);
    // Requests that waited for room enter now.
    if (!pending_.empty() && inFlight_ < maxInFlight_) flushPending();
    PT_DEBUG_CHECK(inFlight_, invariantsHold());
  }
  FinishRequest(request, error);
}

bool UringEngine::checkInvariants() {
  PlainLock guard(submitMutex_);
  return invariantsHold();
}

bool UringEngine::invariantsHold() const {
  if (inFlight_ > maxInFlight_ || anyPending_.load() == pending_.empty()) return false;
  if (wakeQueued_ && !reaperWaiting_) return false;
  if (reaperWaiting_ && !pending_.empty() && !wakeQueued_ && inFlight_ < maxInFlight_) {
    return false;  // a pending request nobody will hand to the kernel
  }
  unsigned listed = 0;
  const IoRequest* previous = nullptr;
  for (IoRequest* r = inFlightHead_; r != nullptr; r = IoRequestAccess::state(*r).next) {
    if (++listed > inFlight_ || IoRequestAccess::state(*r).prev != previous) return false;
    previous = r;
  }
  return listed == inFlight_;
}

}  // namespace Pt
