// One asynchronous read or write of a device, and the callback interface that
// learns how it ended.
//
// An IoRequest is made in one allocation with its data area. The issuer fills
// the data area (for a write) and the file offset, then hands the request to
// IoDevice::read or IoDevice::write. The request holds a counted reference on
// its IoNotify until the request itself is destroyed; the device holds the
// request until after it has called exactly one of ioCompleted or ioFailed,
// on one of the platform's I/O threads, never on the thread that queued it;
// except for a read that IoDevice::readNowOrQueue completed at once, which
// the issuer completes itself.
#pragma once

#include <cstdint>

#include "pt/Exception.h"
#include "pt/SmartPointer.h"

namespace Pt {

class IoRequest;

class IoNotify : public SmartPointerBase {
 public:
  // The request has been carried out; for a read, byteCount() bytes of the
  // data area hold what was read (fewer than asked only at the end of file).
  virtual void ioCompleted(IoRequest& request) = 0;
  // A second notification of the platform; this platform never sends it.
  virtual void ioNotified(IoRequest& request) = 0;
  // The request failed; `cause` is valid only during the call (an ExSystem
  // carrying the system's error code, as a rule).
  virtual void ioFailed(IoRequest& request, const Exception& cause) = 0;

 protected:
  IoNotify() = default;
};

class IoRequest : public SmartPointerBase {
 public:
  enum ReqPri { Low = 0, Normal = 1, High = 2 };

  // A request with a data area of `length` bytes (0 or more). The area is
  // not cleared: the issuer of a write fills every byte of it. Throws
  // std::bad_alloc, or Pt::ExSystem(EINVAL) for a negative length.
  static SmartPointer<IoRequest> Create(IoNotify* notify, int length, ReqPri priority);

  IoNotify* notify() const noexcept { return notify_.get(); }
  ReqPri priority() const noexcept { return priority_; }

  int64_t offset() const noexcept { return offset_; }
  void setOffset(int64_t offset) noexcept { offset_ = offset; }

  int length() const noexcept { return length_; }
  uint8_t* data() noexcept { return data_; }
  const uint8_t* data() const noexcept { return data_; }

  // Bytes transferred; valid once the request has completed.
  int byteCount() const noexcept { return byteCount_; }

  static void operator delete(void* block) noexcept;

 private:
  friend class IoRequestAccess;
  IoRequest(IoNotify* notify, int length, ReqPri priority, uint8_t* data) noexcept;
  ~IoRequest() override;

  SmartPointer<IoNotify> notify_;
  ReqPri priority_;
  int length_;
  int byteCount_ = 0;
  int64_t offset_ = 0;
  uint8_t* data_;  // in the same allocation, behind the device's bookkeeping
};

}  // namespace Pt
