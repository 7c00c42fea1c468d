#include "pt/Platform.h"

#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/IoEngine.h"
#include "platform/PlatformState.h"
#include "platform/SplitEngine.h"
#include "platform/ThreadPoolEngine.h"
#include "platform/UringEngine.h"
#include "pt/PlainMutex.h"

namespace Pt {
namespace {

constexpr int kDefaultUringThreads = 3;
constexpr int kDefaultPoolThreads = 4;
constexpr int kDefaultSplitWriteThreads = 2;

struct PlatformRegistry {
  PlainMutex mutex;  // serialises init and uninit
  int users PT_GUARDED_BY(mutex) = 0;
  std::unique_ptr<IoEngine> engine PT_GUARDED_BY(mutex);
};

PlatformRegistry& Registry() {
  static PlatformRegistry registry;
  return registry;
}

std::atomic<IoEngine*> runningEngine{nullptr};

struct OutstandingRequests {
  std::atomic<long> count{0};
  std::mutex mutex;  // guards no field: pairs the drained wake-up with its wait
  std::condition_variable drained;
};

OutstandingRequests& Outstanding() {
  static OutstandingRequests outstanding;
  return outstanding;
}

void WaitForOutstandingRequests() {
  OutstandingRequests& outstanding = Outstanding();
  std::unique_lock<std::mutex> guard(outstanding.mutex);
  outstanding.drained.wait(guard, [&] { return outstanding.count.load() == 0; });
}

}  // namespace

std::unique_ptr<IoEngine> MakeIoEngine(const Config& config) {
  const int threads = config.ioThreads;
  switch (config.ioEngine) {
    case IoEngineKind::IoUring:
      return UringEngine::Create(threads > 0 ? threads : kDefaultUringThreads);
    case IoEngineKind::ThreadPool:
      return std::make_unique<ThreadPoolEngine>(threads > 0 ? threads : kDefaultPoolThreads);
    case IoEngineKind::Automatic:
      break;
  }
  try {
    // Reads on the ring, writes on the pool (SplitEngine.h says why).
    std::unique_ptr<UringEngine> reads =
        UringEngine::Create(threads > 0 ? threads : kDefaultUringThreads);
    return std::make_unique<SplitEngine>(
        std::move(reads),
        std::make_unique<ThreadPoolEngine>(threads > 0 ? threads : kDefaultSplitWriteThreads));
  } catch (const ExSystem&) {
    // Seccomp profiles, kernel.io_uring_disabled and memlock limits all end
    // here (EPERM, ENOSYS, ENOMEM); the thread pool works everywhere.
    return std::make_unique<ThreadPoolEngine>(threads > 0 ? threads : kDefaultPoolThreads);
  }
}

void PlatformInit(const Config& config) {
  PlatformRegistry& registry = Registry();
  PlainLock guard(registry.mutex);
  if (config.asyncFileIo && !registry.engine) {
    registry.engine = MakeIoEngine(config);
    runningEngine.store(registry.engine.get());
  }
  ++registry.users;
}

void PlatformUninit() {
  PlatformRegistry& registry = Registry();
  PlainLock guard(registry.mutex);
  if (registry.users == 0 || --registry.users > 0) return;
  if (registry.engine) {
    WaitForOutstandingRequests();
    runningEngine.store(nullptr);
    registry.engine.reset();
  }
}

IoEngineKind ActiveIoEngine() {
  IoEngine* engine = runningEngine.load();
  return engine ? engine->kind() : IoEngineKind::Automatic;
}

IoEngine* CurrentIoEngine() noexcept {
  return runningEngine.load(std::memory_order_acquire);
}

void RequestStarted() noexcept {
  Outstanding().count.fetch_add(1, std::memory_order_relaxed);
}

void RequestEnded() noexcept {
  OutstandingRequests& outstanding = Outstanding();
  if (outstanding.count.fetch_sub(1, std::memory_order_acq_rel) == 1) {
    std::lock_guard<std::mutex> guard(outstanding.mutex);
    outstanding.drained.notify_all();
  }
}

}  // namespace Pt
