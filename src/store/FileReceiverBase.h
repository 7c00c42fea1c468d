// FileReceiverBase: the base of every completion receiver of the file store.
//
// Each asynchronous request of a cache file carries one receiver, created
// with new and handed to the device at once; the request holds the only
// reference, so a receiver lives exactly as long as its request. The base
// counts the receivers alive in the whole process. waitForAll() blocks until
// that count is 0: every request of every cache file has completed or failed
// and been released. A receiver that issues a follow-up request creates the
// next receiver before it dies, so the count never passes through 0 in the
// middle of a chain and waitForAll() waits for whole chains.
//
// Thread-safety: receivers are called on I/O threads; the count is atomic and
// only its fall to 0 takes the (leaf) mutex that sleepers wait on. Never call
// waitForAll() from a receiver: it would wait for itself.
#pragma once

#include <cstdint>

#include "pt/IoRequest.h"

namespace Tarn {

class FileReceiverBase : public Pt::IoNotify {
 public:
  // Blocks until no file receiver is alive in the process. Every sleeper is
  // woken when the count reaches 0.
  static void waitForAll();
  // Receivers alive now (for tests and statistics).
  static int32_t pendingCount();

  // No receiver uses the platform's second notification.
  void ioNotified(Pt::IoRequest& /*request*/) override {}

 protected:
  FileReceiverBase();
  ~FileReceiverBase() override;
};

}  // namespace Tarn
