// An open file as an asynchronous device.
//
// The device owns its file descriptor and closes it when the last reference
// goes; by then no request can be outstanding, since every queued request
// holds a reference on its device until its callback has returned.
// The platform must have been initialised with asyncFileIo (Pt/Platform.h).
#pragma once

#include <cstdint>

#include "pt/IoDevice.h"

namespace Pt {

class DeviceCore;

class PtIoDeviceFile : public IoDevice {
 public:
  enum Flags {
    ReadOnly = 1,   // an existing file, for reading
    ReadWrite = 2,  // an existing file, for reading and writing; never truncated
  };

  // Opens `path` (UTF-32 wide characters, converted to UTF-8). Throws
  // Pt::ExSystem with the system's error code when the file cannot be opened,
  // and when the path is null (EINVAL) or not valid Unicode (EILSEQ).
  static SmartPointer<PtIoDeviceFile> Create(const wchar_t* path, Flags flags);

  void read(const SmartPointer<IoRequest>& request) override;
  // Tries preadv2(RWF_NOWAIT) on the calling thread when no earlier request
  // overlaps the read; a read that would block, or comes back short, goes on
  // asynchronously from where it stopped. Never inline while a fault-injection
  // rule could apply to reads (tests keep their meaning).
  bool readNowOrQueue(const SmartPointer<IoRequest>& request) override;
  void write(const SmartPointer<IoRequest>& request) override;

  // The file's current length in bytes. Throws Pt::ExSystem.
  int64_t length() const;
  // Waits until every request queued before the call has completed, then
  // makes the file's data durable (fdatasync). Throws Pt::ExSystem.
  void flush() const;
  // Makes durable every write that has already completed (fdatasync),
  // without waiting for requests still queued: the step a caller takes to
  // make a batch of completed writes durable before it issues what depends
  // on them. Throws Pt::ExSystem.
  void sync() const;

  // The file descriptor, for diagnostics and tests; owned by the device.
  int descriptor() const noexcept;

 private:
  explicit PtIoDeviceFile(int fd);
  ~PtIoDeviceFile() override;

  DeviceCore* core_;
};

}  // namespace Pt
