// A cache file under churn across many open/close cycles, for 20, 2,000 and
// 50,000 keys: every operation picks a key at random and either replaces it
// (erase, then insert a new version; three in four) or erases it. Sizes are
// drawn log-uniformly from 50 B to 64 KiB, so most objects are small and a
// few are large, as in a typical cache. Each key count starts from a file
// holding every key; one iteration is one cycle: open, the operations, close
// (which waits for the file's writes).
//
// Figures, per key count:
//   ops/s: operations per second, open and close included; against a floor
//     measured in the same run: a pwrite of each new version's data and a
//     64-byte header into a fixed place per key, a 64-byte pwrite per erase,
//     one fdatasync per cycle;
//   space amplification after each close: the file's size over what it must
//     hold (the live entries' allocations, the header, the type table and
//     each extent's block), read from the file with the loader. Printed at
//     the first cycle, and over the cycles after the warm-up (the first
//     third): lowest, mean, highest, last.
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include <benchmark/benchmark.h>

#include "FloorReporter.h"

#include "core/RaiseSites.h"
#include "platform/SyncFile.h"
#include "store/CacheFileLoader.h"
#include "store/SpaceReport.h"
#include "tarn/tarn.h"

namespace {

constexpr uint32_t kSmallest = 50, kLargest = 64 * 1024;
constexpr unsigned kEraseOneIn = 4;  // the other operations replace
constexpr int32_t kMemoryTarget = 1 << 20;

struct Shape {
  int keys;
  int cycles;
  int opsPerCycle;
};

// Each shape runs for well under a minute on the 2-core build machine.
constexpr Shape kShapes[] = {{20, 300, 40}, {2'000, 60, 1'000}, {50'000, 8, 10'000}};

std::string ScratchFolder() {
  static const std::string folder = [] {
    char pattern[] = "/tmp/tarn-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    return std::string(pattern);
  }();
  return folder;
}

Tarn::PrimaryKey KeyOf(uint32_t n) {
  Tarn::PrimaryKey key{};
  key.length = 4;
  for (int i = 0; i < 4; ++i) key.data[i] = static_cast<uint8_t>(n >> (8 * i));
  return key;
}

uint32_t DrawSize(std::mt19937& random) {
  std::uniform_real_distribution<double> exponent(std::log(kSmallest), std::log(kLargest));
  return static_cast<uint32_t>(std::exp(exponent(random)));
}

Pt::SmartPointer<Tarn::Cacheable> Blob(uint32_t size) {
  const std::vector<uint8_t> bytes(size, 0x6B);
  return Tarn::Cacheable::Create("blob",
                                 Tarn::Buffer::Create(static_cast<int32_t>(size), bytes.data()));
}

class BlobFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>&) override { return Blob(64); }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override {
    return Tarn::Cacheable::Create(type_, data);
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_ = "blob";
};

std::unique_ptr<Tarn::Cache> Open(const std::wstring& path) {
  Tarn::Config config{};
  config.memoryTarget = kMemoryTarget;
  config.createIfMissing = true;
  return std::make_unique<Tarn::Cache>(path.c_str(), config, new BlobFactory);
}

// Amplification after each cycle, per key count, for the summary at the end.
std::map<int, std::vector<double>> amplifications;

const Shape& ShapeOf(int keys) {
  return *std::find_if(std::begin(kShapes), std::end(kShapes),
                       [keys](const Shape& shape) { return shape.keys == keys; });
}

void Churn(benchmark::State& state) {
  const Shape& shape = ShapeOf(static_cast<int>(state.range(0)));
  const std::string name = ScratchFolder() + "/churn.tarn";
  const std::wstring path(name.begin(), name.end());
  std::mt19937 random(static_cast<unsigned>(shape.keys));
  {
    Tarn::CreateCacheFile(path.c_str());
    const std::unique_ptr<Tarn::Cache> cache = Open(path);
    for (int key = 0; key < shape.keys; ++key) {
      cache->insert(KeyOf(key), Tarn::SecondaryKey{}, Blob(DrawSize(random)).get());
    }
  }
  std::vector<double>& figures = amplifications[shape.keys];
  figures.clear();
  for (auto _ : state) {
    {
      const std::unique_ptr<Tarn::Cache> cache = Open(path);
      for (int op = 0; op < shape.opsPerCycle; ++op) {
        const Tarn::PrimaryKey key = KeyOf(random() % shape.keys);
        cache->erase(key);
        if (random() % kEraseOneIn != 0) {
          cache->insert(key, Tarn::SecondaryKey{}, Blob(DrawSize(random)).get());
        }
      }
    }
    state.PauseTiming();
    figures.push_back(Tarn::SpaceAmplification(name));
    state.ResumeTiming();
  }
  state.SetItemsProcessed(state.iterations() * shape.opsPerCycle);
  Tarn::DestroyCacheFile(path.c_str());
}

// The same operations as raw writes: every key owns a fixed place of
// kLargest + 64 bytes, so nothing is ever moved, merged or reclaimed.
void PwriteFloor(benchmark::State& state) {
  const Shape& shape = ShapeOf(static_cast<int>(state.range(0)));
  const std::string path = ScratchFolder() + "/floor.bin";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  const std::vector<uint8_t> data(kLargest + 64, 0x6B), header(64, 0);
  std::mt19937 random(static_cast<unsigned>(shape.keys));
  bool failed = false;
  for (auto _ : state) {
    for (int op = 0; op < shape.opsPerCycle; ++op) {
      const off_t place = static_cast<off_t>(random() % shape.keys) * (kLargest + 64);
      const size_t length = random() % kEraseOneIn != 0 ? DrawSize(random) + 64 : 64;
      failed |= pwrite(fd, (length == 64 ? header : data).data(), length, place) < 0;
    }
    failed |= fdatasync(fd) != 0;
  }
  if (failed) state.SkipWithError("pwrite or fdatasync failed");
  close(fd);
  unlink(path.c_str());
  state.SetItemsProcessed(state.iterations() * shape.opsPerCycle);
}

// One registration per shape, each with its own number of cycles.
void RegisterShapes() {
  for (const Shape& shape : kShapes) {
    for (const auto& [name, function] :
         {std::pair{"PwriteFloor", &PwriteFloor}, std::pair{"Churn", &Churn}}) {
      benchmark::RegisterBenchmark(name, function)
          ->Arg(shape.keys)
          ->Iterations(shape.cycles)
          ->UseRealTime()
          ->Unit(benchmark::kMillisecond);
    }
  }
}

class ChurnReporter : public TarnBench::FloorReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nOperations per second as a share of the floor measured in this run:\n");
    for (const Shape& shape : kShapes) {
      const std::string suffix = "/" + std::to_string(shape.keys) +
                                 "/iterations:" + std::to_string(shape.cycles) + "/real_time";
      share("Churn" + suffix, "PwriteFloor" + suffix);
    }
    std::printf(
        "\nSpace amplification after each close (file size / (live allocations +\n"
        "header + type table + extents)); steady state = after the first third:\n");
    std::printf("  %7s %7s %7s %9s %9s %9s %9s\n", "keys", "cycles", "first", "lowest", "mean",
                "highest", "last");
    for (const auto& [keys, figures] : amplifications) printRow(keys, figures);
  }

 private:
  static void printRow(int keys, const std::vector<double>& figures) {
    if (figures.empty()) return;
    const auto steady = figures.begin() + static_cast<std::ptrdiff_t>(figures.size() / 3);
    double sum = 0;
    for (auto it = steady; it != figures.end(); ++it) sum += *it;
    std::printf("  %7d %7zu %7.2f %9.2f %9.2f %9.2f %9.2f\n", keys, figures.size(), figures.front(),
                *std::min_element(steady, figures.end()),
                sum / static_cast<double>(figures.end() - steady),
                *std::max_element(steady, figures.end()), figures.back());
  }
};

}  // namespace

int main(int argc, char** argv) {
  RegisterShapes();
  ChurnReporter reporter;
  TarnBench::RunBenchmarks(argc, argv, reporter);
  rmdir(ScratchFolder().c_str());
  return 0;
}
