// KeyHash: the hash of a primary key for the in-memory hash indexes.
//
// Seeded once per process from std::random_device, so that which keys
// collide cannot be worked out from the function alone and an application
// fed keys by others cannot be made to probe long chains. Only the key's
// significant bytes and its length take part, as in key comparison, so keys
// that compare equal hash equal.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>

#include "tarn/CacheKey.h"

namespace Tarn {

inline uint64_t ProcessKeySeed() {
  static const uint64_t seed = [] {
    std::random_device device;
    return (uint64_t{device()} << 32) ^ device();
  }();
  return seed;
}

// The `length` significant bytes at `bytes` (at most a primary key's 32),
// for callers that hold a key's bytes without a PrimaryKey.
inline uint64_t HashKey(const uint8_t* bytes, size_t length, int32_t keyLength, uint64_t seed) {
  constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;
  uint64_t words[4] = {};
  static_assert(sizeof(words) == sizeof(PrimaryKey::data));
  std::memcpy(words, bytes, length < sizeof(words) ? length : sizeof(words));
  uint64_t hash = seed ^ static_cast<uint64_t>(keyLength);
  for (const uint64_t word : words) {
    hash = (hash ^ word) * kMix;
    hash ^= hash >> 29;
  }
  return hash;
}

inline uint64_t HashKey(const PrimaryKey& key, uint64_t seed) {
  const std::string_view bytes = key.view();
  return HashKey(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size(), key.length, seed);
}

// For std::unordered_map and its kin.
struct SeededKeyHash {
  size_t operator()(const PrimaryKey& key) const { return HashKey(key, seed); }
  uint64_t seed = ProcessKeySeed();
};

}  // namespace Tarn
