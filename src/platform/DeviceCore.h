// The working part of a PtIoDeviceFile: its file descriptor, the sequencer
// that orders overlapping requests, and the flush barrier.
//
// A request's way through the device:
//   queue    -> admitted to the sequencer; started at once unless an earlier
//               overlapping request is still running
//   dispatch -> fault-injection seam (tests), then the engine
//   finish   -> (engine thread) retired from the sequencer, which may start
//               waiting successors; then the callback; then released
//
// Each queued request holds a reference on the owning PtIoDeviceFile until
// its callback has returned, so the device outlives its requests.
//
// Flush barrier: every request is counted in the flush epoch that was
// current when it was queued. flush() opens a new epoch and waits until every
// older epoch has drained. Invariant: epochCounts_[i] counts the unfinished
// requests of epoch baseEpoch_ + i, and only the last entry may be the
// current epoch.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>

#include "platform/RequestSequencer.h"
#include "platform/RequestState.h"

namespace Pt {

class PtIoDeviceFile;

class DeviceCore {
 public:
  DeviceCore(PtIoDeviceFile* owner, int fd);
  ~DeviceCore();
  DeviceCore(const DeviceCore&) = delete;
  DeviceCore& operator=(const DeviceCore&) = delete;

  void queue(const SmartPointer<IoRequest>& request, IoKind kind);
  // Called once per request on an engine thread. May destroy this object.
  static void Finish(IoRequest* request, int error);

  int64_t length() const;
  void flush();
  void sync();
  int descriptor() const noexcept { return fd_; }

 private:
  static void Dispatch(IoRequest* request);
  static void Deliver(IoRequest& request, int error);
  void retire(IoRequest* request, std::vector<IoRequest*>& ready);
  void dropDrainedEpochs();  // requires mutex_

  PtIoDeviceFile* owner_;
  int fd_;

  std::mutex mutex_;
  RequestSequencer sequencer_;
  std::condition_variable flushed_;
  std::deque<int64_t> epochCounts_{0};
  uint64_t baseEpoch_ = 0;
};

}  // namespace Pt
