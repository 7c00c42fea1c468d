#include "store/GroupSync.h"

#include <cerrno>
#include <utility>

namespace Tarn {

class GroupSync::Worker : public Pt::Thread {
 public:
  explicit Worker(GroupSync& owner) : owner_(owner) {}

 protected:
  int run() override {
    owner_.run();
    return 0;
  }

 private:
  GroupSync& owner_;
};

GroupSync::GroupSync(const Pt::SmartPointer<Pt::PtIoDeviceFile>& device, bool durable)
    : device_(device), durable_(durable) {
  if (!durable_) return;
  worker_ = new Worker(*this);
  try {
    worker_->begin();
  } catch (...) {
    delete worker_;
    throw;
  }
}

GroupSync::~GroupSync() {
  if (worker_ == nullptr) return;
  {
    Pt::MutexLock guard(lock_);
    stopping_ = true;
    wake_.broadcast();
  }
  worker_->join();
  delete worker_;
}

void GroupSync::afterDurable(Step step) {
  if (!durable_) {
    step(0);
    return;
  }
  Pt::MutexLock guard(lock_);
  queued_.push_back(std::move(step));
  if (queued_.size() == 1) wake_.signal();
}

uint64_t GroupSync::syncCount() {
  Pt::MutexLock guard(lock_);
  return syncs_;
}

// One round per batch: take every queued step, sync once, run them. A step
// that arrives while the sync runs waits for the next round, because the
// write it depends on may have completed after the sync began.
void GroupSync::run() {
  std::vector<Step> batch;
  for (;;) {
    {
      Pt::MutexLock guard(lock_);
      while (queued_.empty() && !stopping_) wake_.wait_(lock_, -1);
      if (queued_.empty()) return;
      batch.swap(queued_);
      ++syncs_;
    }
    const int error = syncNow();
    for (Step& step : batch) step(error);
    batch.clear();
  }
}

int GroupSync::syncNow() noexcept {
  try {
    device_->sync();
    return 0;
  } catch (const Pt::ExSystem& failure) {
    return failure.code() != 0 ? failure.code() : EIO;
  } catch (...) {
    return EIO;
  }
}

}  // namespace Tarn
