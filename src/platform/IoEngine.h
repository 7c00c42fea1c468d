// The engine under every PtIoDeviceFile: it carries out requests that the
// device has released from its sequencer, and reports each one back through
// FinishRequest on one of its own threads.
//
// Engines continue short transfers until the request is whole, retry EINTR
// and EAGAIN, and treat a read that reaches the end of the file as complete
// with the bytes it got. A write that makes no progress fails with EIO.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "platform/RequestState.h"
#include "pt/Platform.h"

namespace Pt {

class IoEngine {
 public:
  virtual ~IoEngine() = default;
  virtual IoEngineKind kind() const = 0;
  // Starts `request` (described by its RequestState). Never completes it on
  // the calling thread. Must not throw once the engine runs.
  virtual void submit(IoRequest* request) = 0;
  // Starts `count` requests at once: one lock and at most one wake-up for
  // all of them, so the engine finds them together (and may group them).
  virtual void submitBatch(IoRequest* const* requests, size_t count) {
    for (size_t i = 0; i < count; ++i) submit(requests[i]);
  }

  // Vectored writes carried out for groups of two or more requests, and the
  // requests they carried (tests and benchmarks read these).
  virtual uint64_t writeGroups() const { return writeGroups_.load(std::memory_order_relaxed); }
  virtual uint64_t groupedWrites() const { return groupedWrites_.load(std::memory_order_relaxed); }

 protected:
  void countGroup(size_t members) {
    writeGroups_.fetch_add(1, std::memory_order_relaxed);
    groupedWrites_.fetch_add(members, std::memory_order_relaxed);
  }

 private:
  std::atomic<uint64_t> writeGroups_{0};
  std::atomic<uint64_t> groupedWrites_{0};
};

// Makes the engine that `config` asks for. Throws Pt::ExSystem when it cannot.
std::unique_ptr<IoEngine> MakeIoEngine(const Config& config);

// Hands `request`, released by its device's sequencer and the fault-injection
// seam, to the running engine; signals TestPoint DeviceRequestEntered first.
void EnterEngine(IoRequest* request);
// The same for several requests at once (IoEngine::submitBatch).
void EnterEngine(IoRequest* const* requests, size_t count);

// Called by an engine thread when `request` is done: `error` is 0 or an errno.
// Hands the request back to its device, which runs the callback.
void FinishRequest(IoRequest* request, int error);

// The next step of a transfer that may have been cut short: where it goes and
// how many bytes it moves, honouring a fault-injected first-transfer cap.
struct TransferStep {
  uint8_t* buffer;
  size_t size;
  int64_t offset;
};
TransferStep NextTransferStep(IoRequest& request);

// Accounts for `result` bytes moved by a step (or a negative errno). Returns
// true when the request is finished, with `error` set to 0 or an errno; false
// when the engine must run another step.
bool AccountTransfer(IoRequest& request, long result, int& error);

}  // namespace Pt
