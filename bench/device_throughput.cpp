// Throughput of PtIoDeviceFile against plain pwrite/pread of the same bytes.
//
// Each benchmark moves blocks of 4 KiB or 64 KiB over a 64 MiB region of one
// file, cycling through it. The device runs with 1 or 32 requests in flight
// on each engine; the floor is a plain loop of pwrite or pread on the calling
// thread. At the end the program prints each device figure as a ratio of the
// floor measured in the same run.
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>
#include <liburing.h>

#include "FloorReporter.h"

#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"

namespace {

constexpr int64_t kRegion = 64 << 20;

std::string ScratchFile() {
  static std::string path = [] {
    char pattern[] = "/tmp/tarn-bench-XXXXXX";
    const int fd = mkstemp(pattern);
    std::vector<char> zeros(1 << 20, 0);
    for (int64_t at = 0; at < kRegion; at += static_cast<int64_t>(zeros.size())) {
      if (pwrite(fd, zeros.data(), zeros.size(), at) < 0) abort();
    }
    close(fd);
    return std::string(pattern);
  }();
  return path;
}

// Counts requests in flight. The issuing thread tops the window up to its
// depth, then sleeps until a quarter of it has drained, so that the figure
// measures the device rather than one wake-up of the issuer per completion.
class Window : public Pt::IoNotify {
 public:
  void ioCompleted(Pt::IoRequest&) override { done(); }
  void ioNotified(Pt::IoRequest&) override {}
  void ioFailed(Pt::IoRequest&, const Pt::Exception&) override {
    failed.store(true);
    done();
  }
  void waitBelow(int limit) {
    for (int now = inFlight.load(); now >= limit; now = inFlight.load()) inFlight.wait(now);
  }
  std::atomic<int> inFlight{0};
  std::atomic<bool> failed{false};

 private:
  void done() {
    inFlight.fetch_sub(1);
    inFlight.notify_one();
  }
};

void DeviceTransfer(benchmark::State& state, Pt::IoEngineKind engine, bool write) {
  const int blockSize = static_cast<int>(state.range(0));
  const int depth = static_cast<int>(state.range(1));
  Pt::Config config;
  config.asyncFileIo = true;
  config.ioEngine = engine;
  Pt::PlatformInit(config);
  {
    const std::string narrow = ScratchFile();
    const std::wstring path(narrow.begin(), narrow.end());
    auto device = Pt::PtIoDeviceFile::Create(path.c_str(), Pt::PtIoDeviceFile::ReadWrite);
    Pt::SmartPointer<Window> window(new Window);
    int64_t offset = 0;
    const int refillBelow = depth - std::max(1, depth / 4) + 1;
    for (auto _ : state) {
      if (window->inFlight.load() >= depth) window->waitBelow(refillBelow);
      auto request = Pt::IoRequest::Create(window.get(), blockSize, Pt::IoRequest::Normal);
      if (write) std::memset(request->data(), 0x5A, static_cast<size_t>(blockSize));
      request->setOffset(offset);
      offset = (offset + blockSize) % kRegion;
      window->inFlight.fetch_add(1);
      write ? device->write(request) : device->read(request);
    }
    window->waitBelow(1);
    if (window->failed.load()) state.SkipWithError("a request failed");
  }
  Pt::PlatformUninit();
  state.SetBytesProcessed(state.iterations() * blockSize);
}

void PlainTransfer(benchmark::State& state, bool write) {
  const int blockSize = static_cast<int>(state.range(0));
  const int fd = open(ScratchFile().c_str(), O_RDWR);
  std::vector<uint8_t> block(static_cast<size_t>(blockSize), 0x5A);
  int64_t offset = 0;
  for (auto _ : state) {
    const ssize_t moved = write ? pwrite(fd, block.data(), block.size(), offset)
                                : pread(fd, block.data(), block.size(), offset);
    if (moved != blockSize) state.SkipWithError("short transfer");
    benchmark::DoNotOptimize(block.data());
    offset = (offset + blockSize) % kRegion;
  }
  close(fd);
  state.SetBytesProcessed(state.iterations() * blockSize);
}

// What io_uring itself gives on this machine and file system: the same
// blocks through a bare ring on the calling thread, `depth` in flight, no
// ordering, callbacks or allocation. Writes go straight to the kernel's
// workers, as the device's do.
void RawRingTransfer(benchmark::State& state, bool write) {
  const int blockSize = static_cast<int>(state.range(0));
  const int depth = static_cast<int>(state.range(1));
  io_uring ring;
  if (io_uring_queue_init(256, &ring, 0) != 0) {
    state.SkipWithError("io_uring unavailable");
    return;
  }
  const int fd = open(ScratchFile().c_str(), O_RDWR);
  std::vector<uint8_t> block(static_cast<size_t>(blockSize) * static_cast<size_t>(depth), 0x5A);
  int64_t offset = 0;
  int inFlight = 0;
  for (auto _ : state) {
    if (inFlight == depth) {
      io_uring_cqe* cqe;
      io_uring_wait_cqe(&ring, &cqe);
      if (cqe->res != blockSize) state.SkipWithError("short transfer");
      io_uring_cqe_seen(&ring, cqe);
      --inFlight;
    }
    io_uring_sqe* sqe = io_uring_get_sqe(&ring);
    uint8_t* buffer = block.data() + static_cast<size_t>(offset / blockSize % depth) * blockSize;
    if (write) {
      io_uring_prep_write(sqe, fd, buffer, static_cast<unsigned>(blockSize),
                          static_cast<__u64>(offset));
      sqe->flags |= IOSQE_ASYNC;
    } else {
      io_uring_prep_read(sqe, fd, buffer, static_cast<unsigned>(blockSize),
                         static_cast<__u64>(offset));
    }
    io_uring_submit(&ring);
    ++inFlight;
    offset = (offset + blockSize) % kRegion;
  }
  for (; inFlight > 0; --inFlight) {
    io_uring_cqe* cqe;
    io_uring_wait_cqe(&ring, &cqe);
    io_uring_cqe_seen(&ring, cqe);
  }
  io_uring_queue_exit(&ring);
  close(fd);
  state.SetBytesProcessed(state.iterations() * blockSize);
}

void Args(benchmark::internal::Benchmark* b) {
  for (int size : {4096, 65536}) {
    for (int depth : {1, 32}) b->Args({size, depth});
  }
  b->ArgNames({"bytes", "depth"})->UseRealTime();
}

void FloorArgs(benchmark::internal::Benchmark* b) {
  for (int size : {4096, 65536}) b->Args({size, 1});
  b->ArgNames({"bytes", "depth"})->UseRealTime();
}

BENCHMARK_CAPTURE(PlainTransfer, write_floor, true)->Apply(FloorArgs);
BENCHMARK_CAPTURE(RawRingTransfer, write_ring, true)->Apply(Args);
BENCHMARK_CAPTURE(DeviceTransfer, write_uring, Pt::IoEngineKind::IoUring, true)->Apply(Args);
BENCHMARK_CAPTURE(DeviceTransfer, write_pool, Pt::IoEngineKind::ThreadPool, true)->Apply(Args);
BENCHMARK_CAPTURE(PlainTransfer, read_floor, false)->Apply(FloorArgs);
BENCHMARK_CAPTURE(RawRingTransfer, read_ring, false)->Apply(Args);
BENCHMARK_CAPTURE(DeviceTransfer, read_uring, Pt::IoEngineKind::IoUring, false)->Apply(Args);
BENCHMARK_CAPTURE(DeviceTransfer, read_pool, Pt::IoEngineKind::ThreadPool, false)->Apply(Args);

// Prints every figure as a share of the plain loop of the same direction and
// block size.
class RatioReporter : public TarnBench::FloorReporter {
 public:
  void Finalize() override {
    ConsoleReporter::Finalize();
    std::printf("\nThroughput as a share of the plain loop of the same direction and size:\n");
    for (const auto& [name, time] : times()) {
      const auto slash = name.find('/');
      const std::string variant = name.substr(slash + 1, name.find('/', slash + 1) - slash - 1);
      if (variant.find("floor") != std::string::npos) continue;
      const bool write = variant.find("write") != std::string::npos;
      const auto bytesAt = name.find("bytes:");
      const std::string bytes = name.substr(bytesAt, name.find('/', bytesAt) - bytesAt);
      share(name, std::string("PlainTransfer/") + (write ? "write_floor/" : "read_floor/") + bytes +
                      "/depth:1/real_time");
    }
  }
};

}  // namespace

int main(int argc, char** argv) {
  RatioReporter reporter;
  TarnBench::RunBenchmarks(argc, argv, reporter);
  unlink(ScratchFile().c_str());
  return 0;
}
