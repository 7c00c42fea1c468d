// The free-space allocator under churn, as the number of free ranges grows
// from 1,000 to 100,000, against a floor measured in the same run:
//   release + allocate on FreeSpace  vs  std::map erase + insert, same count
//
// The file is a row of 256-byte slots, odd ones free, even ones allocated.
// One iteration releases an even slot (it merges with both free neighbours),
// allocates the merged 768 bytes (the only range that long: best fit finds
// it) and releases the two outer slots again (they merge with nothing), so
// every iteration starts from the same set of free ranges. The floor erases
// and reinserts two entries of a std::map holding as many ranges. The slot
// is drawn at random, so neither walks the same tree path twice in a row.
//
// At the end the program prints each figure as a share of its floor and
// the growth of both from 1,000 to 100,000 ranges: an O(log n) allocator
// grows about as the floor does.
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "FloorReporter.h"

#include "store/FreeSpace.h"

namespace {

constexpr uint32_t kSlot = 256;
constexpr uint32_t kFirstData = 262'960;
constexpr size_t kDraws = 1 << 16;  // random slots, used in a cycle

uint32_t SlotOffset(uint32_t slot) {
  return kFirstData + slot * kSlot;
}

// Even slots 2 .. 2n-2 in random order: each has a free slot on either side.
std::vector<uint32_t> DrawAllocatedSlots(uint32_t ranges) {
  std::mt19937 random(7);
  std::uniform_int_distribution<uint32_t> pick(1, ranges - 1);
  std::vector<uint32_t> slots(kDraws);
  for (uint32_t& slot : slots) slot = 2 * pick(random);
  return slots;
}

void FreeSpaceChurn(benchmark::State& state) {
  const auto ranges = static_cast<uint32_t>(state.range(0));
  Tarn::FreeSpace space(kSlot);
  for (uint32_t i = 0; i < ranges; ++i) space.add(SlotOffset(2 * i + 1), kSlot);
  const std::vector<uint32_t> slots = DrawAllocatedSlots(ranges);
  size_t next = 0;
  for (auto _ : state) {
    const uint32_t slot = slots[next++ % kDraws];
    space.add(SlotOffset(slot), kSlot);
    benchmark::DoNotOptimize(space.take(3 * kSlot));
    space.add(SlotOffset(slot - 1), kSlot);
    space.add(SlotOffset(slot + 1), kSlot);
  }
  if (space.rangeCount() != ranges || !space.checkInvariants().empty()) {
    state.SkipWithError("the churn did not restore the free ranges");
  }
  state.SetItemsProcessed(state.iterations() * 4);
}

void MapFloor(benchmark::State& state) {
  const auto ranges = static_cast<uint32_t>(state.range(0));
  std::map<uint32_t, uint32_t> map;
  for (uint32_t i = 0; i < ranges; ++i) map.emplace(SlotOffset(2 * i + 1), kSlot);
  const std::vector<uint32_t> slots = DrawAllocatedSlots(ranges);
  size_t next = 0;
  for (auto _ : state) {
    const uint32_t slot = slots[next++ % kDraws];
    map.erase(SlotOffset(slot - 1));
    map.erase(SlotOffset(slot + 1));
    map.emplace(SlotOffset(slot - 1), kSlot);
    map.emplace(SlotOffset(slot + 1), kSlot);
  }
  if (map.size() != ranges) state.SkipWithError("the floor lost entries");
  state.SetItemsProcessed(state.iterations() * 4);
}

BENCHMARK(MapFloor)->Arg(1'000)->Arg(10'000)->Arg(100'000)->UseRealTime();
BENCHMARK(FreeSpaceChurn)->Arg(1'000)->Arg(10'000)->Arg(100'000)->UseRealTime();

class RatioReporter : public TarnBench::FloorReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nThroughput as a share of the floor measured in this run:\n");
    for (const char* ranges : {"1000", "10000", "100000"}) {
      share(Name("FreeSpaceChurn", ranges), Name("MapFloor", ranges));
    }
    std::printf("\nTime per iteration at 100,000 free ranges / at 1,000:\n");
    growth("MapFloor");
    growth("FreeSpaceChurn");
  }

 private:
  static std::string Name(const char* benchmark, const char* ranges) {
    return std::string(benchmark) + "/" + ranges + "/real_time";
  }

  void growth(const char* benchmark) const {
    const auto small = times().find(Name(benchmark, "1000"));
    const auto large = times().find(Name(benchmark, "100000"));
    if (small == times().end() || large == times().end() || small->second <= 0) return;
    std::printf("  %-60s %6.2fx\n", benchmark, large->second / small->second);
  }
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  TarnBench::RunBenchmarks(argc, argv, reporter);
  return 0;
}
