#include "store/FileReceiverBase.h"

#include <atomic>

#include "pt/CondVar.h"
#include "pt/Mutex.h"

namespace Tarn {

namespace {

// Receivers alive in the process, over every cache file. Changed without a
// lock; only its fall to 0 takes gIdleMutex, to wake the sleepers.
std::atomic<int32_t> gPendingReceivers{0};

// A leaf lock: nothing else is taken while it is held.
Pt::Mutex gIdleMutex;
// Set by a thread that goes to sleep in waitForAll; cleared, with every
// sleeper woken, when the count reaches 0.
bool gReceiversWaiting PT_GUARDED_BY(gIdleMutex) = false;
Pt::CondVar gReceiversIdle;

}  // namespace

FileReceiverBase::FileReceiverBase() {
  gPendingReceivers.fetch_add(1, std::memory_order_relaxed);
}

FileReceiverBase::~FileReceiverBase() {
  // acq_rel: whatever this receiver did happens before a waiter's return.
  if (gPendingReceivers.fetch_sub(1, std::memory_order_acq_rel) != 1) return;
  Pt::MutexLock hold(gIdleMutex);
  if (gReceiversWaiting) {
    gReceiversWaiting = false;
    gReceiversIdle.broadcast();
  }
}

void FileReceiverBase::waitForAll() {
  Pt::MutexLock hold(gIdleMutex);
  // The count is read under the lock that its fall to 0 takes, so a fall
  // between this read and the sleep cannot be missed.
  if (gPendingReceivers.load(std::memory_order_acquire) <= 0) return;
  gReceiversWaiting = true;
  while (gReceiversWaiting) gReceiversIdle.wait_(gIdleMutex, -1);
}

int32_t FileReceiverBase::pendingCount() {
  return gPendingReceivers.load(std::memory_order_acquire);
}

}  // namespace Tarn
