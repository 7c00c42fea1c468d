// How the cache reads the fields of a Config that have defaults or limits.
//
// Each rule is a pure function of the configured value (and, for the worker
// count, of the processor count, passed in so that the rule can be checked for
// any machine).
#pragma once

#include <cstdint>

#include "pt/Platform.h"
#include "tarn/Config.h"

namespace Tarn {

inline constexpr int kMaxWorkerThreads = 8;
inline constexpr int32_t kDefaultMinAllocation = 256;

// Worker threads to start: `configured` when positive, else ceil(1.5 x
// `processors`); at most kMaxWorkerThreads and at least 1. A negative count
// is read as "the default", since no workers would leave queued generate
// requests waiting forever. A processor count below 1 counts as 1.
int EffectiveWorkerThreads(int32_t configured, int processors);

// The smallest data allocation in the cache file: `configured` when
// positive, else kDefaultMinAllocation.
int32_t EffectiveMinAllocation(int32_t configured);

// The bytes a cache file may take: `configured` when positive, else (and
// at most) kFormatFileBudget, which leaves room below the format's 2 GiB
// limit for the extents of entry slots that may pass a budget.
inline constexpr uint64_t kFormatFileBudget = (uint64_t{1} << 31) - 4 * 262'160;
uint64_t EffectiveFileBudget(int32_t configured);

// The platform thread priority (1 low, 2 normal, 3 high) for a configured
// worker priority: 0, 1, 2 select 1, 2, 3; any other value selects 2.
int EffectiveWorkerPriority(int32_t configured);

// Refuses a Config whose sizes (memoryTarget, memorySlack, minAllocation,
// fileBudget) are negative, with std::invalid_argument naming the field.
void CheckConfigSizes(const Config& config);

// The environment variable that overrides Config::ioEngine.
inline constexpr const char* kIoEngineVariable = "TARN_IO_ENGINE";

// The engine to start: `environment` ("uring", "threads" or "auto") when it
// is set and not empty, else `configured`. Any other value of the variable,
// or a configured value outside the enumeration, throws
// std::invalid_argument naming it.
IoEngine EffectiveIoEngine(IoEngine configured, const char* environment);

Pt::IoEngineKind PlatformIoEngine(IoEngine engine);
IoEngine PublicIoEngine(Pt::IoEngineKind engine);

}  // namespace Tarn
