#include "core/ConfigRules.h"

#include <algorithm>

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

}  // namespace Tarn
