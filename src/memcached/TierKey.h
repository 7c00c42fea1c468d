// The memcached key under which the tier stores a cache key's value.
//
// memcached keys are at most 250 bytes of printable characters without
// spaces; the cache's keys are opaque bytes of any length. The stored key is
// "tarn:" and the 32 hexadecimal digits of a 128-bit MurmurHash3 (x64
// variant, seed 0) of the cache key: 37 bytes, the same on every machine.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Tarn::Memcached {

inline constexpr std::string_view kKeyPrefix = "tarn:";

struct Hash128 {
  uint64_t low = 0;
  uint64_t high = 0;
};

// MurmurHash3_x64_128 of `bytes`; bytes are read little-endian.
Hash128 HashKey(std::string_view bytes) noexcept;

// kKeyPrefix + 32 lowercase hex digits: the first 64-bit half, then the
// second, each most significant digit first.
std::string StoredKey(std::string_view cacheKey);

}  // namespace Tarn::Memcached
