// GroupSync: runs the steps that must wait until earlier writes are durable.
//
// The file store issues a write that depends on another one (an entry header
// on its data, an extent link on its extent, the reuse of a slot on its
// delete header) only once the first write has survived a power loss, not
// just completed. Doing one fdatasync per write would cost a sync per entry;
// instead, the completion of the first write hands its follow-up step here,
// and one syncing thread per cache file repeatedly takes every step queued so
// far, makes the file durable with one fdatasync (which covers every write
// completed before it began, and so every write these steps wait for), and
// then runs the steps in the order they came. Steps that arrive during a sync
// wait for the next one: group commit.
//
// With durable ordering off (Config::relaxedOrdering), a step runs at once on
// the calling thread: ordering then holds against a crash of the process,
// where every completed write survives, but not against a power loss.
//
// A step gets 0, or the errno of the failed sync; it must not throw (it is
// called as noexcept) and must not wait for other steps.
//
// Ownership: the store owns its GroupSync and destroys it only when no
// operation of the file is alive, so no step is left; the destructor still
// runs whatever is queued before the thread ends.
//
// Thread-safety: afterDurable may be called from any thread; steps run on the
// syncing thread with no lock of this object held.
#pragma once

#include <functional>
#include <vector>

#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "pt/PtIoDeviceFile.h"
#include "pt/Thread.h"
#include "pt/ThreadAnnotations.h"

namespace Tarn {

class GroupSync {
 public:
  using Step = std::function<void(int error)>;

  // Starts the syncing thread when `durable` is set. Throws Pt::ExSystem.
  GroupSync(const Pt::SmartPointer<Pt::PtIoDeviceFile>& device, bool durable);
  ~GroupSync();
  GroupSync(const GroupSync&) = delete;
  GroupSync& operator=(const GroupSync&) = delete;

  // Runs `step` once every write completed before this call is durable.
  void afterDurable(Step step);
  bool durable() const { return durable_; }
  // Syncs performed so far (for tests and statistics).
  uint64_t syncCount();

 private:
  class Worker;
  void run();
  int syncNow() noexcept;

  const Pt::SmartPointer<Pt::PtIoDeviceFile> device_;
  const bool durable_;
  Pt::Mutex lock_;
  Pt::CondVar wake_;
  std::vector<Step> queued_ PT_GUARDED_BY(lock_);
  bool stopping_ PT_GUARDED_BY(lock_) = false;
  uint64_t syncs_ PT_GUARDED_BY(lock_) = 0;
  Worker* worker_ = nullptr;
};

}  // namespace Tarn
