#include "pt/PtIoDeviceFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <limits>
#include <string>

#include "platform/DeviceCore.h"
#include "platform/IoEngine.h"
#include "platform/IoFaultInjection.h"
#include "platform/IoTrace.h"
#include "platform/PlatformState.h"
#include "platform/RaiseSites.h"
#include "platform/TestPoint.h"
#include "platform/Utf8.h"

namespace Pt {

// ---- PtIoDeviceFile ------------------------------------------------------

SmartPointer<PtIoDeviceFile> PtIoDeviceFile::Create(const wchar_t* path, Flags flags) {
  if (path == nullptr || (flags != ReadOnly && flags != ReadWrite)) {
    throw ExSystem(EINVAL, kRaiseDeviceOpen);
  }
  const std::optional<std::string> narrow = WideToUtf8(path);
  if (!narrow) throw ExSystem(EILSEQ, kRaiseDeviceOpen);
  if (CurrentIoEngine() == nullptr) throw ExSystem(ENXIO, kRaisePlatformNotStarted);

  const int fd = ::open(narrow->c_str(), (flags == ReadOnly ? O_RDONLY : O_RDWR) | O_CLOEXEC);
  if (fd < 0) throw ExSystem(errno, kRaiseDeviceOpen);
  struct stat info {};
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode)) {
    const int error = S_ISDIR(info.st_mode) ? EISDIR : (errno != 0 ? errno : EINVAL);
    ::close(fd);
    throw ExSystem(error, kRaiseDeviceOpen);
  }
  return SmartPointer<PtIoDeviceFile>(new PtIoDeviceFile(fd));
}

PtIoDeviceFile::PtIoDeviceFile(int fd) : core_(new DeviceCore(this, fd)) {}

PtIoDeviceFile::~PtIoDeviceFile() {
  delete core_;
}

void PtIoDeviceFile::read(const SmartPointer<IoRequest>& request) {
  core_->queue(request, IoKind::Read);
}

bool PtIoDeviceFile::readNowOrQueue(const SmartPointer<IoRequest>& request) {
  return core_->queueReadNow(request);
}

void PtIoDeviceFile::write(const SmartPointer<IoRequest>& request) {
  core_->queue(request, IoKind::Write);
}

int64_t PtIoDeviceFile::length() const {
  return core_->length();
}

void PtIoDeviceFile::flush() const {
  core_->flush();
}

void PtIoDeviceFile::sync() const {
  core_->sync();
}

int PtIoDeviceFile::descriptor() const noexcept {
  return core_->descriptor();
}

// ---- DeviceCore ----------------------------------------------------------

DeviceCore::DeviceCore(PtIoDeviceFile* owner, int fd) : owner_(owner), fd_(fd) {}

DeviceCore::~DeviceCore() {
  ::close(fd_);
}

void DeviceCore::queue(const SmartPointer<IoRequest>& request, IoKind kind) {
  if (admit(request, kind)) Dispatch(request.get());
}

bool DeviceCore::queueReadNow(const SmartPointer<IoRequest>& request) {
  if (!admit(request, IoKind::Read)) return false;  // waits for an overlapping request
  IoRequest* raw = request.get();
  if (!readNow(raw)) {
    Dispatch(raw);
    return false;
  }
  finishNow(raw);
  return true;
}

bool DeviceCore::admit(const SmartPointer<IoRequest>& request, IoKind kind) {
  if (!request || request->offset() < 0 ||
      request->offset() > std::numeric_limits<int64_t>::max() - request->length()) {
    throw ExSystem(EINVAL, kRaiseDeviceRequest);
  }
  if (CurrentIoEngine() == nullptr) throw ExSystem(ENXIO, kRaisePlatformNotStarted);
  RequestState& state = IoRequestAccess::state(*request);
  if (state.device != nullptr) throw ExSystem(EBUSY, kRaiseDeviceRequest);  // already queued

  IoRequest* raw = request.get();
  raw->incRefCount();  // the device's own reference, dropped after the callback
  owner_->incRefCount();
  RequestStarted();
  state.device = this;
  state.fd = fd_;
  state.kind = kind;
  state.transferred = 0;
  state.solo = false;
  PlainLock guard(mutex_);
  state.flushEpoch = baseEpoch_ + epochCounts_.size() - 1;
  ++epochCounts_.back();
  const bool startNow = sequencer_.admit(raw, raw->offset(), raw->offset() + raw->length());
  PT_DEBUG_CHECK(sequencer_.liveCount(), invariantsHold());
  return startNow;
}

// One preadv2(RWF_NOWAIT) of the whole range, on the calling thread. True
// when it got every byte; otherwise the bytes it got count as a first
// transfer that the engine continues.
bool DeviceCore::readNow(IoRequest* request) {
  if (!nowaitReads_.load(std::memory_order_relaxed) || request->length() == 0) return false;
  if (IoFaultInjection::Armed() && IoFaultInjection::MayIntercept(IoFaultInjection::Kind::Read)) {
    return false;
  }
  iovec vector{request->data(), static_cast<size_t>(request->length())};
  const ssize_t got = ::preadv2(fd_, &vector, 1, request->offset(), RWF_NOWAIT);
  if (got < 0) {
    // Files that refuse the flag refuse it every time: stop asking.
    if (errno == EOPNOTSUPP || errno == EINVAL || errno == ENOSYS) {
      nowaitReads_.store(false, std::memory_order_relaxed);
    }
    return false;
  }
  IoRequestAccess::state(*request).transferred = static_cast<int>(got);
  return got == request->length();
}

// The end of a read done on the calling thread: Finish without the callback.
void DeviceCore::finishNow(IoRequest* request) {
  RequestState& state = IoRequestAccess::state(*request);
  TestPoint::Signal(TestPoint::Id::DeviceRequestEntered, fd_, request->offset());
  TestPoint::Signal(TestPoint::Id::DeviceRequestCompleted, fd_, request->offset());
  IoRequestAccess::setByteCount(*request, state.transferred);
  std::vector<IoRequest*> ready;  // allocates only when successors wait
  retire(request, ready);
  DispatchAll(ready);
  state.device = nullptr;
  PtIoDeviceFile* owner = owner_;
  request->decRefCount();  // the caller's reference keeps it
  owner->decRefCount();    // may destroy the device
  RequestEnded();
}

void DeviceCore::Dispatch(IoRequest* request) {
  if (IoFaultInjection::Armed() && IoFaultInjection::Intercept(request)) return;
  EnterEngine(request);
}

// Dispatches requests that a retire released, as one batch for the engine.
void DeviceCore::DispatchAll(std::vector<IoRequest*>& requests) {
  if (requests.empty()) return;
  if (IoFaultInjection::Armed()) {
    std::erase_if(requests,
                  [](IoRequest* request) { return IoFaultInjection::Intercept(request); });
  }
  EnterEngine(requests.data(), requests.size());
}

void DeviceCore::retire(IoRequest* request, std::vector<IoRequest*>& ready) {
  RequestState& state = IoRequestAccess::state(*request);
  PlainLock guard(mutex_);
  sequencer_.retire(request, request->offset(), request->offset() + request->length(), ready);
  const size_t index = static_cast<size_t>(state.flushEpoch - baseEpoch_);
  if (--epochCounts_[index] == 0 && index == 0) {
    dropDrainedEpochs();
    flushed_.notify_all();
  }
  PT_DEBUG_CHECK(sequencer_.liveCount(), invariantsHold());
}

void DeviceCore::Finish(IoRequest* request, int error) {
  RequestState& state = IoRequestAccess::state(*request);
  DeviceCore* device = state.device;
  PtIoDeviceFile* owner = device->owner_;
  TestPoint::Signal(TestPoint::Id::DeviceRequestCompleted, device->fd_, request->offset());
  // Recorded before the retire below: a flush waiting for this write cannot
  // record its start before the write.
  if (error == 0 && state.kind == IoKind::Write && IoTrace::On()) {
    IoTrace::RecordWrite(device->fd_, *request, state.transferred);
  }

  IoRequestAccess::setByteCount(*request, state.transferred);
  std::vector<IoRequest*> ready;  // allocates only when successors wait
  if (error == 0) {
    device->retire(request, ready);
    DispatchAll(ready);
    state.device = nullptr;
    Deliver(*request, error);
  } else {
    // The callback of a failed request runs before the requests queued
    // behind it start: a read of a range whose write failed then finds the
    // failure already recorded by its owner, instead of racing it.
    state.device = nullptr;
    Deliver(*request, error);
    device->retire(request, ready);
    DispatchAll(ready);
  }

  request->decRefCount();
  owner->decRefCount();  // may destroy the device; nothing of it is used below
  RequestEnded();
}

void DeviceCore::Deliver(IoRequest& request, int error) {
  IoNotify* notify = request.notify();
  if (notify == nullptr) return;
  // A callback that throws must not take an I/O thread down: its exception
  // is reported like any other that no caller can catch.
  try {
    if (error != 0) {
      const ExSystem cause(error, kRaiseIoTransfer);
      notify->ioFailed(request, cause);
    } else {
      notify->ioCompleted(request);
    }
  } catch (const Exception& escaped) {
    Exception::Post(escaped);
  } catch (const std::exception& escaped) {
    const std::wstring text =
        L"I/O completion callback failed: " +
        std::wstring(escaped.what(), escaped.what() + std::strlen(escaped.what()));
    Exception::Post(Exception(ExReason{text.c_str(), kRaiseIoCallback, 1}));
  } catch (...) {
    Exception::Post(Exception(ExReason{L"I/O completion callback failed", kRaiseIoCallback, 1}));
  }
}

void DeviceCore::dropDrainedEpochs() {
  while (epochCounts_.size() > 1 && epochCounts_.front() == 0) {
    epochCounts_.pop_front();
    ++baseEpoch_;
  }
}

int64_t DeviceCore::length() const {
  struct stat info {};
  if (fstat(fd_, &info) != 0) throw ExSystem(errno, kRaiseDeviceLength);
  return info.st_size;
}

void DeviceCore::flush() {
  {
    PlainLock guard(mutex_);
    const uint64_t target = baseEpoch_ + epochCounts_.size() - 1;
    epochCounts_.push_back(0);
    dropDrainedEpochs();
    PT_DEBUG_CHECK(sequencer_.liveCount(), invariantsHold());
    if (TestPoint::Watched()) {
      TestPoint::Signal(TestPoint::Id::DeviceFlushWaiting, fd_, unfinishedBefore(target + 1));
    }
    while (baseEpoch_ <= target) flushed_.wait(guard.native());
  }
  sync();
}

void DeviceCore::sync() {
  const size_t covered = IoTrace::On() ? IoTrace::RecordFlushBegin(fd_) : 0;
  if (IoFaultInjection::Armed()) {
    const int injected = IoFaultInjection::InterceptSync(IoFaultInjection::Kind::DeviceSync).error;
    if (injected != 0) throw ExSystem(injected, kRaiseDeviceFlush);
  }
  if (fdatasync(fd_) != 0) throw ExSystem(errno, kRaiseDeviceFlush);
  if (IoTrace::On()) IoTrace::RecordFlushEnd(fd_, covered);
}

// Unfinished requests of the epochs before `epoch`.
int64_t DeviceCore::unfinishedBefore(uint64_t epoch) const {
  int64_t count = 0;
  for (uint64_t e = baseEpoch_; e < epoch && e - baseEpoch_ < epochCounts_.size(); ++e) {
    count += epochCounts_[static_cast<size_t>(e - baseEpoch_)];
  }
  return count;
}

bool DeviceCore::checkInvariants() {
  PlainLock guard(mutex_);
  return invariantsHold();
}

bool DeviceCore::invariantsHold() const {
  if (epochCounts_.empty()) return false;
  if (epochCounts_.size() > 1 && epochCounts_.front() == 0) return false;
  // Count the live requests by epoch and compare with the counters.
  std::vector<int64_t> counted(epochCounts_.size(), 0);
  const uint64_t base = baseEpoch_;
  bool inRange = true;
  sequencer_.forEachLive([&](const IoRequest* request) {
    const uint64_t epoch = IoRequestAccess::state(*request).flushEpoch;
    if (epoch < base || epoch - base >= counted.size()) {
      inRange = false;
    } else {
      ++counted[static_cast<size_t>(epoch - base)];
    }
  });
  if (!inRange) return false;
  for (size_t i = 0; i < counted.size(); ++i) {
    if (counted[i] != epochCounts_[i]) return false;
  }
  return sequencer_.checkInvariants();
}

void EnterEngine(IoRequest* request) {
  TestPoint::Signal(TestPoint::Id::DeviceRequestEntered, IoRequestAccess::state(*request).fd,
                    request->offset());
  CurrentIoEngine()->submit(request);
}

void EnterEngine(IoRequest* const* requests, size_t count) {
  if (TestPoint::Watched()) {
    for (size_t i = 0; i < count; ++i) {
      TestPoint::Signal(TestPoint::Id::DeviceRequestEntered,
                        IoRequestAccess::state(*requests[i]).fd, requests[i]->offset());
    }
  }
  if (count == 1) {
    CurrentIoEngine()->submit(requests[0]);
  } else {
    CurrentIoEngine()->submitBatch(requests, count);
  }
}

void FinishRequest(IoRequest* request, int error) {
  DeviceCore::Finish(request, error);
}

}  // namespace Pt
