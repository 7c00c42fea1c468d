// The five phases, timed the same way for every library.
#include <algorithm>
#include <cstdio>
#include <numeric>
#include <random>

#include "Workload.h"

namespace Compare {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kReopenTime = std::chrono::seconds(1);
constexpr int kMinReopens = 3;

template <typename Work>
double SecondsOf(Work&& work) {
  const auto start = Clock::now();
  work();
  return std::chrono::duration<double>(Clock::now() - start).count();
}

void Report(const char* phase, double operations, double seconds) {
  std::printf("%s %.0f\n", phase, operations / seconds);
  std::fflush(stdout);
}

std::vector<uint64_t> Shuffled(uint32_t count, std::mt19937_64& random) {
  std::vector<uint64_t> ids(count);
  std::iota(ids.begin(), ids.end(), 0);
  std::shuffle(ids.begin(), ids.end(), random);
  return ids;
}

// As many open + close cycles as fit in a second (at least three).
void Reopen(Library& library) {
  int opens = 0;
  const auto start = Clock::now();
  while (opens < kMinReopens || Clock::now() - start < kReopenTime) {
    library.open();
    library.close();
    ++opens;
  }
  Report("reopen", opens, std::chrono::duration<double>(Clock::now() - start).count());
}

void HotRead(Library& library, uint32_t count, std::mt19937_64& random) {
  std::vector<uint64_t> hot = Shuffled(count, random);
  hot.resize(std::min<size_t>(kHotKeys, hot.size()));
  library.read(hot);  // brings them into memory
  std::vector<uint64_t> passes;
  for (int pass = 0; pass < kHotPasses; ++pass) {
    std::shuffle(hot.begin(), hot.end(), random);
    passes.insert(passes.end(), hot.begin(), hot.end());
  }
  Report("hot", passes.size(), SecondsOf([&] { library.read(passes); }));
}

// A mix of existing keys and new ones (numbered from `count` on).
void GetOrCreate(Library& library, uint32_t count, std::mt19937_64& random) {
  const uint32_t operations = std::min(count, kMaxGetOrCreateOps);
  const auto fresh = static_cast<uint32_t>(operations * kNewKeyShare);
  std::vector<uint64_t> ids;
  std::uniform_int_distribution<uint64_t> existing(0, count - 1);
  for (uint32_t i = 0; i < operations - fresh; ++i) ids.push_back(existing(random));
  for (uint32_t i = 0; i < fresh; ++i) ids.push_back(count + i);
  std::shuffle(ids.begin(), ids.end(), random);
  Report("get-or-create", ids.size(), SecondsOf([&] { library.getOrCreate(ids); }));
}

}  // namespace

void RunPhases(Library& library, const Values&, uint32_t count, bool floorOnly) {
  std::mt19937_64 random(11);
  library.create();
  Report("load", count, SecondsOf([&] { library.load(count); }));
  library.close();
  if (!floorOnly) Reopen(library);
  library.open();
  const std::vector<uint64_t> all = Shuffled(count, random);
  Report("cold", count, SecondsOf([&] { library.read(all); }));
  if (!floorOnly) {
    HotRead(library, count, random);
    GetOrCreate(library, count, random);
  }
  library.close();
}

}  // namespace Compare
