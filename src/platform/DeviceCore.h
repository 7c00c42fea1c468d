// The working part of a PtIoDeviceFile: its file descriptor, the sequencer
// that orders overlapping requests, and the flush barrier.
//
// A request's way through the device:
//   queue    -> admitted to the sequencer; started at once unless an earlier
//               overlapping request is still running
//   inline   -> (queueReadNow only, a read started at once) preadv2 with
//               RWF_NOWAIT on the calling thread; when it delivers every
//               byte the request is retired there, without a callback, and
//               the caller completes it; otherwise it goes on to dispatch,
//               continuing from the bytes it got
//   dispatch -> fault-injection seam (tests), then the engine; the
//               successors that one retire releases go in as one batch
//   engine   -> writes to adjacent ranges that the engine holds together go
//               out as one vectored write (WriteGroup.h); each still
//               finishes alone, with its own outcome
//   finish   -> (engine thread) retired from the sequencer, which may start
//               waiting successors; then the callback; then released
//
// Each queued request holds a reference on the owning PtIoDeviceFile until
// its callback has returned, so the device outlives its requests.
//
// Flush barrier: every request is counted in the flush epoch that was
// current when it was queued. flush() opens a new epoch and waits until every
// older epoch has drained.
//
// Invariants, whenever `mutex_` is free (checkInvariants() walks them; debug
// builds check after each change while at most kDebugCheckLimit requests are
// unfinished):
// - epochCounts_[i] counts the unfinished requests of epoch baseEpoch_ + i,
//   and only the last entry is the current epoch;
// - the oldest entry is not drained unless it is the only one (drained
//   epochs at the front are dropped at once, which is what wakes a flush);
// - the sequencer's live requests are exactly the unfinished ones, and its
//   own invariants hold.
//
// Test seams: the points DeviceFlushWaiting, DeviceRequestEntered and
// DeviceRequestCompleted (TestPoint.h) and the write/flush trace (IoTrace.h).
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <deque>

#include "platform/RequestSequencer.h"
#include "platform/RequestState.h"
#include "pt/PlainMutex.h"

namespace Pt {

class PtIoDeviceFile;

class DeviceCore {
 public:
  DeviceCore(PtIoDeviceFile* owner, int fd);
  ~DeviceCore();
  DeviceCore(const DeviceCore&) = delete;
  DeviceCore& operator=(const DeviceCore&) = delete;

  void queue(const SmartPointer<IoRequest>& request, IoKind kind);
  // queue for a read, trying it on the calling thread first. True when the
  // read completed there (no callback follows).
  bool queueReadNow(const SmartPointer<IoRequest>& request);
  // Called once per request on an engine thread. May destroy this object.
  static void Finish(IoRequest* request, int error);

  int64_t length() const;
  void flush() PT_EXCLUDES(mutex_);
  // fdatasync alone: covers the writes completed before it begins.
  void sync();
  int descriptor() const noexcept { return fd_; }

  // True when every invariant above holds. Never throws; changes nothing.
  bool checkInvariants() PT_EXCLUDES(mutex_);

 private:
  friend struct DeviceCoreTestAccess;  // tests break the structure on purpose

  // Admits `request` to the sequencer; true when it may start now.
  bool admit(const SmartPointer<IoRequest>& request, IoKind kind) PT_EXCLUDES(mutex_);
  bool readNow(IoRequest* request);
  void finishNow(IoRequest* request);
  static void Dispatch(IoRequest* request);
  static void DispatchAll(std::vector<IoRequest*>& requests);
  static void Deliver(IoRequest& request, int error);
  void retire(IoRequest* request, std::vector<IoRequest*>& ready) PT_EXCLUDES(mutex_);
  void dropDrainedEpochs() PT_REQUIRES(mutex_);
  int64_t unfinishedBefore(uint64_t epoch) const PT_REQUIRES(mutex_);
  bool invariantsHold() const PT_REQUIRES(mutex_);

  PtIoDeviceFile* owner_;
  int fd_;
  // Cleared for good when the file refuses RWF_NOWAIT.
  std::atomic<bool> nowaitReads_{true};

  PlainMutex mutex_;
  RequestSequencer sequencer_ PT_GUARDED_BY(mutex_);
  std::condition_variable flushed_;
  std::deque<int64_t> epochCounts_ PT_GUARDED_BY(mutex_){0};
  uint64_t baseEpoch_ PT_GUARDED_BY(mutex_) = 0;
};

}  // namespace Pt
