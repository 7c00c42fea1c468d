#include "core/ConfigRules.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>
#include <string>

namespace Tarn {

int EffectiveWorkerThreads(int32_t configured, int processors) {
  if (configured > 0) return std::min<int32_t>(configured, kMaxWorkerThreads);
  const int64_t cpus = std::max(processors, 1);
  return static_cast<int>(std::min<int64_t>((3 * cpus + 1) / 2, kMaxWorkerThreads));
}

int32_t EffectiveMinAllocation(int32_t configured) {
  return configured > 0 ? configured : kDefaultMinAllocation;
}

uint64_t EffectiveFileBudget(int32_t configured) {
  return configured > 0 ? std::min<uint64_t>(static_cast<uint64_t>(configured), kFormatFileBudget)
                        : kFormatFileBudget;
}

int EffectiveWorkerPriority(int32_t configured) {
  return configured >= 0 && configured <= 2 ? configured + 1 : 2;
}

void CheckConfigSizes(const Config& config) {
  const struct {
    const char* name;
    int32_t value;
  } sizes[] = {{"memoryTarget", config.memoryTarget},
               {"memorySlack", config.memorySlack},
               {"minAllocation", config.minAllocation},
               {"fileBudget", config.fileBudget}};
  for (const auto& size : sizes) {
    if (size.value < 0) {
      throw std::invalid_argument(std::string("Tarn::Config::") + size.name + " is negative (" +
                                  std::to_string(size.value) + "); sizes are 0 or more bytes");
    }
  }
}

IoEngine EffectiveIoEngine(IoEngine configured, const char* environment) {
  if (environment != nullptr && *environment != '\0') {
    if (std::strcmp(environment, "uring") == 0) return IoEngine::IoUring;
    if (std::strcmp(environment, "threads") == 0) return IoEngine::ThreadPool;
    if (std::strcmp(environment, "auto") == 0) return IoEngine::Automatic;
    throw std::invalid_argument(std::string(kIoEngineVariable) + "=\"" + environment +
                                "\" is not one of uring, threads, auto");
  }
  switch (configured) {
    case IoEngine::Automatic:
    case IoEngine::IoUring:
    case IoEngine::ThreadPool:
      return configured;
  }
  throw std::invalid_argument("Tarn::Config::ioEngine " +
                              std::to_string(static_cast<int32_t>(configured)) +
                              " is not an IoEngine");
}

Pt::IoEngineKind PlatformIoEngine(IoEngine engine) {
  switch (engine) {
    case IoEngine::IoUring:
      return Pt::IoEngineKind::IoUring;
    case IoEngine::ThreadPool:
      return Pt::IoEngineKind::ThreadPool;
    case IoEngine::Automatic:
      break;
  }
  return Pt::IoEngineKind::Automatic;
}

IoEngine PublicIoEngine(Pt::IoEngineKind engine) {
  switch (engine) {
    case Pt::IoEngineKind::IoUring:
      return IoEngine::IoUring;
    case Pt::IoEngineKind::ThreadPool:
      return IoEngine::ThreadPool;
    case Pt::IoEngineKind::Automatic:
      break;
  }
  return IoEngine::Automatic;
}

}  // namespace Tarn
