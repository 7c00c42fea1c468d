// Opening a cache file of 100,000 entries (25 extents) and of 1,000,000
// (245 extents), against a bare loop that reads the same extent bytes and
// inserts the same keys into a std::map. The figures to watch are the time
// of the smaller open and the ratio of each open to its bare loop. LoadOnly
// is the loader alone (the extents read and every entry checked, no tables
// built): the open less LoadOnly is what the store's own tables cost. On a
// shared machine, read the CPU times and the minimum of the repetitions
// (--benchmark_repetitions=10).
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <map>
#include <random>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "FloorReporter.h"

#include "core/FactoryManager.h"
#include "platform/SyncFile.h"
#include "pt/Platform.h"
#include "store/CacheFileLoader.h"
#include "store/FileManager.h"
#include "tarn/CacheFile.h"

namespace {

constexpr uint32_t kAllocation = 256;
constexpr int64_t kSizes[] = {100'000, 1'000'000};

class BenchFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>&) override { return nullptr; }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>&) override {
    return nullptr;
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_ = "tile";
};

void Check(bool ok, const char* what) {
  if (!ok) {
    std::perror(what);
    std::abort();
  }
}

// The extents of the file: the first one of the new file, then the others
// behind the data region, which stays a hole (a sparse file).
std::vector<uint32_t> ExtentLocations(uint32_t entries) {
  std::vector<uint32_t> locations{Tarn::kFirstExtentOffset};
  const uint32_t extents = (entries + Tarn::kEntriesPerExtent - 1) / Tarn::kEntriesPerExtent;
  const uint32_t dataEnd = Tarn::kInitialFileSize + entries * kAllocation;
  for (uint32_t i = 1; i < extents; ++i) {
    locations.push_back(dataEnd + (i - 1) * Tarn::kExtentBlockSize);
  }
  return locations;
}

std::vector<uint8_t> SlotsOfExtent(uint32_t entries, size_t extent, std::mt19937_64& random) {
  std::vector<uint8_t> slots(Tarn::kExtentSlotsSize, 0);
  for (uint32_t slot = 0; slot < Tarn::kEntriesPerExtent; ++slot) {
    const uint64_t index = extent * Tarn::kEntriesPerExtent + slot;
    if (index >= entries) break;
    Tarn::PrimaryKey key{};
    key.length = 24;
    for (int i = 0; i < 24; i += 8) {
      const uint64_t bits = random();
      std::memcpy(key.data + i, &bits, 8);
    }
    const auto header = Tarn::EntryHeader::ForEntry(
        1, key, Tarn::SecondaryKey::FromString("tiles"),
        static_cast<uint32_t>(Tarn::kInitialFileSize + index * kAllocation), 200, kAllocation);
    header.encodeTo(std::span<uint8_t, 64>(slots.data() + slot * 64, 64));
  }
  return slots;
}

const std::string& Folder() {
  static const std::string folder = [] {
    char pattern[] = "/tmp/tarn-open-XXXXXX";
    Check(mkdtemp(pattern) != nullptr, "mkdtemp");
    return std::string(pattern);
  }();
  return folder;
}

std::string FileOf(uint32_t entries) {
  return Folder() + "/" + std::to_string(entries) + ".tarn";
}

// The file of `entries` entries, made on first use.
std::string BenchFile(uint32_t entries) {
  static std::map<uint32_t, bool> made;
  const std::string file = FileOf(entries);
  if (!made[entries]) {
    made[entries] = true;
    Tarn::CreateCacheFile(std::wstring(file.begin(), file.end()).c_str());
    const int fd = ::open(file.c_str(), O_RDWR);
    const auto type = Tarn::TypeRecord::ForType(1, "tile").encode();
    Check(pwrite(fd, type.data(), type.size(), Tarn::kTypeTableOffset) == 48, "pwrite");
    const std::vector<uint32_t> locations = ExtentLocations(entries);
    std::mt19937_64 random(42);
    for (size_t i = 0; i < locations.size(); ++i) {
      Tarn::ExtentHeader header = Tarn::ExtentHeader::ForNewExtent(locations[i]);
      if (i + 1 < locations.size()) header.nextExtent = locations[i + 1];
      const auto bytes = header.encode();
      Check(pwrite(fd, bytes.data(), bytes.size(), locations[i]) == 16, "pwrite");
      const auto slots = SlotsOfExtent(entries, i, random);
      Check(pwrite(fd, slots.data(), slots.size(), header.entriesOffset) ==
                static_cast<ssize_t>(slots.size()),
            "pwrite");
    }
    close(fd);
  }
  return file;
}

void OpenFile(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::string file = BenchFile(entries);
  const std::wstring path(file.begin(), file.end());
  Pt::Config platform;
  platform.asyncFileIo = true;
  Pt::PlatformInit(platform);
  Pt::SmartPointer<Tarn::FactoryManager> factories(
      new Tarn::FactoryManager(Pt::SmartPointer<Tarn::CacheableFactory>(new BenchFactory)));
  Tarn::Config config{};
  for (auto _ : state) {
    Tarn::FileManager store(path.c_str(), nullptr, config, factories);
    if (store.entryCount() != static_cast<int32_t>(entries)) state.SkipWithError("entries lost");
  }
  Pt::PlatformUninit();
}

void LoadOnly(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::string file = BenchFile(entries);
  Tarn::CacheFileLoader::Visitor nothing;
  for (auto _ : state) {
    const Pt::SyncFile opened = Pt::SyncFile::Open(file, Pt::SyncFile::Mode::ReadOnly, {});
    if (Tarn::CacheFileLoader::Load(opened, nothing).liveEntries != entries) {
      state.SkipWithError("entries lost");
    }
  }
}

// The floor: the same reads, and the same keys into a std::map.
void BareLoop(benchmark::State& state) {
  const auto entries = static_cast<uint32_t>(state.range(0));
  const std::string file = BenchFile(entries);
  std::vector<uint8_t> slots(Tarn::kExtentSlotsSize);
  for (auto _ : state) {
    const int fd = ::open(file.c_str(), O_RDONLY);
    std::map<Tarn::PrimaryKey, uint32_t> keys;
    uint32_t location = Tarn::kFirstExtentOffset;
    while (location != 0) {
      uint8_t bytes[16];
      Check(pread(fd, bytes, 16, location) == 16, "pread");
      const auto header = Tarn::ExtentHeader::Decode(std::span<const uint8_t, 16>(bytes, 16));
      Check(pread(fd, slots.data(), slots.size(), header.entriesOffset) ==
                static_cast<ssize_t>(slots.size()),
            "pread");
      for (uint32_t slot = 0; slot < header.entryCount; ++slot) {
        const uint8_t* record = slots.data() + slot * 64;
        if (record[2] == 0) continue;
        Tarn::PrimaryKey key{};
        key.length = record[2];
        std::memcpy(key.data, record + 4, key.length);
        keys.emplace(key, header.entriesOffset + slot * 64);
      }
      location = header.nextExtent;
    }
    close(fd);
    if (keys.size() != entries) state.SkipWithError("keys lost");
  }
}

double Minimum(const std::vector<double>& values) {
  return *std::min_element(values.begin(), values.end());
}

// Each open benchmark at both sizes, reporting the minimum of its runs.
void OpenArguments(benchmark::internal::Benchmark* benchmark) {
  benchmark->Arg(kSizes[0])
      ->Arg(kSizes[1])
      ->Unit(benchmark::kMillisecond)
      ->UseRealTime()
      ->MinTime(2)
      ->ComputeStatistics("min", Minimum);
}

BENCHMARK(BareLoop)->Apply(OpenArguments);
BENCHMARK(LoadOnly)->Apply(OpenArguments);
BENCHMARK(OpenFile)->Apply(OpenArguments);

class RatioReporter : public TarnBench::FloorReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    for (const int64_t entries : kSizes) {
      const std::string suffix = "/" + std::to_string(entries) + "/min_time:2.000/real_time";
      const auto floor = times().find("BareLoop" + suffix);
      const auto open = times().find("OpenFile" + suffix);
      if (floor == times().end() || open == times().end() || floor->second <= 0) continue;
      std::printf("\nOpening %lld entries takes %.2fx the bare loop (%.1f ms vs %.1f ms)\n",
                  static_cast<long long>(entries), open->second / floor->second, open->second,
                  floor->second);
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  TarnBench::RunBenchmarks(argc, argv, reporter);
  for (const int64_t entries : kSizes) unlink(FileOf(static_cast<uint32_t>(entries)).c_str());
  rmdir(Folder().c_str());
  return 0;
}
