#include "memcached/TierKey.h"

#include <cstring>

namespace Tarn::Memcached {
namespace {

constexpr uint64_t kC1 = 0x87c37b91114253d5ULL;
constexpr uint64_t kC2 = 0x4cf5ad432745937fULL;

uint64_t Rotl(uint64_t x, int r) {
  return (x << r) | (x >> (64 - r));
}

uint64_t Mix(uint64_t k) {
  k ^= k >> 33;
  k *= 0xff51afd7ed558ccdULL;
  k ^= k >> 33;
  k *= 0xc4ceb9fe1a85ec53ULL;
  k ^= k >> 33;
  return k;
}

// Little-endian load of up to 8 bytes.
uint64_t Load(const unsigned char* p, std::size_t n) {
  uint64_t v = 0;
  for (std::size_t i = 0; i < n; ++i) v |= uint64_t{p[i]} << (8 * i);
  return v;
}

uint64_t ScrambleLow(uint64_t k) {
  return Rotl(k * kC1, 31) * kC2;
}
uint64_t ScrambleHigh(uint64_t k) {
  return Rotl(k * kC2, 33) * kC1;
}

}  // namespace

Hash128 HashKey(std::string_view bytes) noexcept {
  const auto* data = reinterpret_cast<const unsigned char*>(bytes.data());
  const std::size_t blocks = bytes.size() / 16;
  uint64_t h1 = 0, h2 = 0;
  for (std::size_t i = 0; i < blocks; ++i) {
    h1 ^= ScrambleLow(Load(data + 16 * i, 8));
    h1 = (Rotl(h1, 27) + h2) * 5 + 0x52dce729;
    h2 ^= ScrambleHigh(Load(data + 16 * i + 8, 8));
    h2 = (Rotl(h2, 31) + h1) * 5 + 0x38495ab5;
  }
  const unsigned char* tail = data + 16 * blocks;
  const std::size_t rest = bytes.size() % 16;
  if (rest > 8) h2 ^= ScrambleHigh(Load(tail + 8, rest - 8));
  if (rest > 0) h1 ^= ScrambleLow(Load(tail, rest < 8 ? rest : 8));
  h1 ^= bytes.size();
  h2 ^= bytes.size();
  h1 += h2;
  h2 += h1;
  h1 = Mix(h1);
  h2 = Mix(h2);
  h1 += h2;
  h2 += h1;
  return Hash128{h1, h2};
}

std::string StoredKey(std::string_view cacheKey) {
  static constexpr char kDigits[] = "0123456789abcdef";
  const Hash128 hash = HashKey(cacheKey);
  std::string key(kKeyPrefix);
  for (uint64_t word : {hash.low, hash.high}) {
    for (int shift = 60; shift >= 0; shift -= 4) key += kDigits[(word >> shift) & 0xf];
  }
  return key;
}

}  // namespace Tarn::Memcached
