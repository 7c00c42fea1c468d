#include "Workload.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>

namespace Compare {

namespace {
constexpr size_t kPoolSize = 1 << 20;
constexpr uint64_t kMix = 0x9E3779B97F4A7C15ull;
}  // namespace

Key KeyOf(uint64_t id) {
  Key key;
  const uint64_t mixed = id * kMix;
  std::memcpy(key.bytes, &mixed, 8);
  std::memcpy(key.bytes + 8, &id, 8);
  return key;
}

uint64_t IdOfKey(const uint8_t* bytes) {
  uint64_t id;
  std::memcpy(&id, bytes + 8, 8);
  return id;
}

Values::Values(size_t size) : size_(size), pool_(kPoolSize + size) {
  std::mt19937_64 random(7);
  for (size_t i = 0; i + 8 <= pool_.size(); i += 8) {
    const uint64_t bits = random();
    std::memcpy(pool_.data() + i, &bits, 8);
  }
}

std::span<const uint8_t> Values::of(uint64_t id) const {
  thread_local std::vector<uint8_t> value;
  value.resize(size_);
  const size_t at = (id * 4099) % kPoolSize;
  std::memcpy(value.data(), pool_.data() + at, size_);
  std::memcpy(value.data(), &id, 8);
  return value;
}

bool Values::matches(uint64_t id, const uint8_t* bytes, size_t length) const {
  if (length != size_) return false;
  const size_t at = (id * 4099) % kPoolSize;
  return std::memcmp(bytes, &id, 8) == 0 &&
         std::memcmp(bytes + size_ - 8, pool_.data() + at + size_ - 8, 8) == 0;
}

void SpendCreateCost() {
  const auto until = std::chrono::steady_clock::now() + kCreateCost;
  while (std::chrono::steady_clock::now() < until) {
  }
}

void Fail(const std::string& what) {
  std::fprintf(stderr, "compare: %s\n", what.c_str());
  std::exit(1);
}

}  // namespace Compare
