// TierConfig: how a Cache uses a shared tier; TierStatistics: what it counts.
//
// A Cache built with a TierConfig whose `tier` is set consults that tier
// between its cache file and its factories (see SharedTier.h). A default
// TierConfig has no tier: the cache behaves as one without.
//
// Ownership: the cache copies the record at construction and keeps the
// shared_ptr to the tier for its whole life.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

namespace Tarn {

class SharedTier;

inline constexpr std::chrono::milliseconds kDefaultTierDeadline{5};

struct TierConfig {
  // The tier; null keeps the cache local.
  std::shared_ptr<SharedTier> tier;
  // Set one per application, so that two applications that share servers
  // (and may use the same type names and keys) never see each other's
  // objects. Part of every key; at most 64 bytes.
  std::string keyNamespace;
  // How long a lookup may wait for the tier before the cache goes on as on a
  // miss (generates, or reports the key as absent); at least 1 ms.
  std::chrono::milliseconds deadline = kDefaultTierDeadline;
};

// Counts since the cache was built; all zero for a cache without a tier.
struct TierStatistics {
  uint64_t hits = 0;         // lookups answered by the tier with a valid value
  uint64_t misses = 0;       // lookups the tier answered without a value
  uint64_t timeouts = 0;     // lookups given up at their deadline
  uint64_t unavailable = 0;  // lookups the tier could not serve (servers down)
  uint64_t rejected = 0;     // values found but refused: truncated, foreign, corrupted
  uint64_t published = 0;    // generated objects offered to the tier
  uint64_t tooLarge = 0;     // generated objects not offered: above the tier's value limit
};

}  // namespace Tarn
