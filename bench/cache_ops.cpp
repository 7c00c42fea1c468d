// The cache's main operations, each against a floor measured in the same run:
//   insert + commit of 1 KiB and 64 KiB objects  vs  pwrite of the same bytes
//                                                    (data + a 64-byte header)
//                                                    and one fdatasync
//   find of an in-memory key, 1 and 2 threads    vs  a mutex-guarded std::map
//   find of file-only 4 KiB entries, 64 in flight vs pread of the same bytes
//   findCreate of new keys with a trivial factory: objects per second and the
//   time from the call to found()
// At the end the program prints each figure as a share of its floor.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "FloorReporter.h"

#include "tarn/tarn.h"

namespace {

constexpr int kBatch = 64;  // objects per insert + commit

std::string ScratchFolder() {
  static const std::string folder = [] {
    char pattern[] = "/tmp/tarn-bench-XXXXXX";
    if (mkdtemp(pattern) == nullptr) std::abort();
    return std::string(pattern);
  }();
  return folder;
}

std::wstring Wide(const std::string& text) {
  return std::wstring(text.begin(), text.end());
}

Tarn::PrimaryKey KeyOf(uint64_t n) {
  Tarn::PrimaryKey key{};
  key.length = 8;
  for (int i = 0; i < 8; ++i) key.data[i] = static_cast<uint8_t>(n >> (8 * i));
  return key;
}

class TrivialFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    return Tarn::Cacheable::Create(type_, Tarn::Buffer::Create(key.length, key.data));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override {
    return Tarn::Cacheable::Create(type_, data);
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_ = "blob";
};

// Counts outcomes; the issuing thread waits for them when it must.
class CountingReceiver : public Tarn::CacheableReceiver {
 public:
  void found(int, const Tarn::CacheKey<32>&, const Pt::SmartPointer<Tarn::Cacheable>&) override {
    done();
  }
  void cancelled(int, const Tarn::CacheKey<32>&) override {
    failed_.store(true);
    done();
  }
  void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override {
    failed_.store(true);
    done();
  }
  void waitBelow(int limit) {
    for (int now = pending.load(); now >= limit; now = pending.load()) pending.wait(now);
  }
  std::atomic<int> pending{0};
  bool anyFailed() const { return failed_.load(); }

 private:
  void done() {
    pending.fetch_sub(1);
    pending.notify_one();
  }
  std::atomic<bool> failed_{false};
};

std::unique_ptr<Tarn::Cache> FreshCache(const std::string& name, int32_t memoryTarget,
                                        bool relaxedOrdering = false) {
  const std::wstring path = Wide(ScratchFolder() + "/" + name);
  Tarn::CreateCacheFile(path.c_str());
  Tarn::Config config{};
  config.relaxedOrdering = relaxedOrdering;
  config.memoryTarget = memoryTarget;
  config.memorySlack = 0;
  config.createIfMissing = true;
  return std::make_unique<Tarn::Cache>(path.c_str(), config, new TrivialFactory);
}

Pt::SmartPointer<Tarn::Cacheable> Blob(size_t size) {
  const std::vector<uint8_t> bytes(size, 0x6B);
  return Tarn::Cacheable::Create("blob",
                                 Tarn::Buffer::Create(static_cast<int32_t>(size), bytes.data()));
}

// ---- insert + commit ---------------------------------------------------------

// range(1): 0 for durable ordering (the default), 1 for relaxed ordering.
void InsertCommit(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  const bool relaxed = state.range(1) != 0;
  std::unique_ptr<Tarn::Cache> cache = FreshCache("insert.tarn", 32 << 20, relaxed);
  const Pt::SmartPointer<Tarn::Cacheable> blob = Blob(size);
  uint64_t next = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) cache->insert(KeyOf(next++), Tarn::SecondaryKey{}, blob.get());
    cache->commit();
    Tarn::Statistics statistics;
    if (static_cast<uint32_t>(cache->statistics(statistics).fileSize) > (1u << 30)) {
      state.PauseTiming();  // keep the file well below its 2 GiB limit
      cache.reset();
      cache = FreshCache("insert.tarn", 32 << 20, relaxed);
      state.ResumeTiming();
    }
  }
  state.SetBytesProcessed(state.iterations() * kBatch * static_cast<int64_t>(size));
}

void PwriteFloor(benchmark::State& state) {
  const auto size = static_cast<size_t>(state.range(0));
  const std::string path = ScratchFolder() + "/floor.bin";
  const int fd = open(path.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
  const std::vector<uint8_t> data(size, 0x6B), header(64, 0x11);
  int64_t at = 0;
  for (auto _ : state) {
    for (int i = 0; i < kBatch; ++i) {
      if (pwrite(fd, data.data(), size, at) < 0 || pwrite(fd, header.data(), 64, at + size) < 0) {
        state.SkipWithError("pwrite");
      }
      at = (at + static_cast<int64_t>(size) + 64) % (int64_t{1} << 30);
    }
    fdatasync(fd);
  }
  close(fd);
  unlink(path.c_str());
  state.SetBytesProcessed(state.iterations() * kBatch * static_cast<int64_t>(size));
}

// ---- find of in-memory keys ------------------------------------------------------

constexpr uint64_t kMemoryKeys = 10'000;

// Shared by the runs of a benchmark (and its threads); closed before exit.
std::unique_ptr<Tarn::Cache> memoryCache, fileCache;
std::once_flag memoryCacheMade, fileCacheMade;

Tarn::Cache& MemoryCache() {
  std::call_once(memoryCacheMade, [] {
    memoryCache = FreshCache("memory.tarn", 1 << 30);
    const auto blob = Blob(64);
    for (uint64_t i = 0; i < kMemoryKeys; ++i) {
      memoryCache->insert(KeyOf(i), Tarn::SecondaryKey{}, blob.get());
    }
    memoryCache->commit();
  });
  return *memoryCache;
}

void FindInMemory(benchmark::State& state) {
  Tarn::Cache& cache = MemoryCache();
  Pt::SmartPointer<CountingReceiver> receiver(new CountingReceiver);
  uint64_t n = static_cast<uint64_t>(state.thread_index()) * 7919;
  for (auto _ : state) cache.find(KeyOf(n++ % kMemoryKeys), receiver.get());
  if (receiver->anyFailed()) state.SkipWithError("a find failed");
  state.SetItemsProcessed(state.iterations());
}

void LockedMapFloor(benchmark::State& state) {
  static std::mutex mutex;
  static const auto map = [] {
    std::map<Tarn::PrimaryKey, Pt::SmartPointer<Tarn::Cacheable>> made;
    const auto blob = Blob(64);
    for (uint64_t i = 0; i < kMemoryKeys; ++i) made.emplace(KeyOf(i), blob);
    return made;
  }();
  uint64_t n = static_cast<uint64_t>(state.thread_index()) * 7919;
  for (auto _ : state) {
    Pt::SmartPointer<Tarn::Cacheable> found;
    {
      std::lock_guard<std::mutex> guard(mutex);
      found = map.find(KeyOf(n++ % kMemoryKeys))->second;
    }
    benchmark::DoNotOptimize(found.get());
  }
  state.SetItemsProcessed(state.iterations());
}

// ---- find of file-only entries ----------------------------------------------------

constexpr uint64_t kFileKeys = 16'384;
constexpr size_t kFileEntrySize = 4096;

Tarn::Cache& FileCache() {
  // memoryTarget 0: every object leaves memory at once, so each find reads.
  std::call_once(fileCacheMade, [] {
    fileCache = FreshCache("file.tarn", 0);
    const auto blob = Blob(kFileEntrySize);
    for (uint64_t i = 0; i < kFileKeys; ++i) {
      fileCache->insert(KeyOf(i), Tarn::SecondaryKey{}, blob.get());
    }
    fileCache->commit();
  });
  return *fileCache;
}

void FindInFile(benchmark::State& state) {
  Tarn::Cache& cache = FileCache();
  Pt::SmartPointer<CountingReceiver> receiver(new CountingReceiver);
  uint64_t n = 0;
  for (auto _ : state) {
    // Keep up to 64 in flight; refill in batches rather than waking the
    // issuer for every completion.
    if (receiver->pending.load() >= 64) receiver->waitBelow(49);
    receiver->pending.fetch_add(1);
    if (cache.find(KeyOf(n++ % kFileKeys), receiver.get()) == 0) state.SkipWithError("missing");
  }
  receiver->waitBelow(1);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileEntrySize));
}

void PreadFloor(benchmark::State& state) {
  FileCache();
  const std::string path = ScratchFolder() + "/file.tarn";
  const int fd = open(path.c_str(), O_RDONLY);
  std::vector<uint8_t> buffer(kFileEntrySize);
  const int64_t first = 262'960;
  uint64_t n = 0;
  for (auto _ : state) {
    const int64_t at = first + static_cast<int64_t>((n++ % kFileKeys) * kFileEntrySize);
    if (pread(fd, buffer.data(), kFileEntrySize, at) < 0) state.SkipWithError("pread");
  }
  close(fd);
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(kFileEntrySize));
}

// ---- findCreate of new keys --------------------------------------------------------

void FindCreateNew(benchmark::State& state) {
  std::unique_ptr<Tarn::Cache> cache = FreshCache("create.tarn", 1 << 20);
  Pt::SmartPointer<CountingReceiver> receiver(new CountingReceiver);
  uint64_t n = 0;
  for (auto _ : state) {
    receiver->pending.fetch_add(1);
    cache->findCreate(KeyOf(n++), Tarn::SecondaryKey{}, "blob", receiver.get());
    receiver->waitBelow(1);  // the time from the call to found()
  }
  cache->commit();
  state.SetItemsProcessed(state.iterations());
}

BENCHMARK(PwriteFloor)->Arg(1024)->Arg(65536)->UseRealTime();
BENCHMARK(InsertCommit)->ArgsProduct({{1024, 65536}, {0, 1}})->UseRealTime();
BENCHMARK(LockedMapFloor)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(FindInMemory)->Threads(1)->Threads(2)->UseRealTime();
BENCHMARK(PreadFloor)->UseRealTime();
BENCHMARK(FindInFile)->UseRealTime();
BENCHMARK(FindCreateNew)->UseRealTime()->Unit(benchmark::kMicrosecond);

class RatioReporter : public TarnBench::FloorReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nThroughput as a share of the floor measured in this run:\n");
    share("InsertCommit/1024/0/real_time", "PwriteFloor/1024/real_time");
    share("InsertCommit/1024/1/real_time", "PwriteFloor/1024/real_time");
    share("InsertCommit/65536/0/real_time", "PwriteFloor/65536/real_time");
    share("InsertCommit/65536/1/real_time", "PwriteFloor/65536/real_time");
    share("FindInMemory/real_time/threads:1", "LockedMapFloor/real_time/threads:1");
    share("FindInMemory/real_time/threads:2", "LockedMapFloor/real_time/threads:2");
    share("FindInFile/real_time", "PreadFloor/real_time");
  }
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  TarnBench::RunBenchmarks(argc, argv, reporter);
  memoryCache.reset();
  fileCache.reset();
  for (const char* name : {"insert.tarn", "memory.tarn", "file.tarn", "create.tarn"}) {
    unlink((ScratchFolder() + "/" + name).c_str());
  }
  rmdir(ScratchFolder().c_str());
  return 0;
}
