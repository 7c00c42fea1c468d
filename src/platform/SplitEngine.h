// The engine that Automatic picks when io_uring can be set up: reads go to
// io_uring, writes to a thread pool that carries them out with pwrite and
// pwritev (adjacent writes grouped, WriteGroup).
//
// Why writes do not take the ring: on this kernel (6.18, ext4 or tmpfs
// under the build machine's 2 cores) a buffered write through io_uring ends
// in one of the kernel's own workers anyway, one hand-off more than a pwrite
// on one of our threads. Measured with tarn_bench_device_throughput while
// the machine was otherwise busy (MB/s; the plain pwrite loop on one thread
// is the floor):
//
//   writes            4 KiB x1   4 KiB x32   64 KiB x1   64 KiB x32
//   io_uring engine      25          53         280          697
//   thread pool          48         162        1822          907
//
// Reads stay on the ring: a read that misses the page cache waits for the
// disk, and the ring keeps many of them in flight without a thread each.
//
// Both engines keep their own guarantees; the device's sequencer orders a
// read after an overlapping write whichever engine carries each out, since a
// request reaches an engine only once every earlier overlapping request has
// completed.
//
// Thread-safety: as IoEngine. kind() says IoUring: the ring runs.
#pragma once

#include <memory>

#include "platform/IoEngine.h"
#include "platform/ThreadPoolEngine.h"
#include "platform/UringEngine.h"

namespace Pt {

class SplitEngine final : public IoEngine {
 public:
  SplitEngine(std::unique_ptr<UringEngine> reads, std::unique_ptr<ThreadPoolEngine> writes)
      : reads_(std::move(reads)), writes_(std::move(writes)) {}

  IoEngineKind kind() const override { return IoEngineKind::IoUring; }
  void submit(IoRequest* request) override;
  void submitBatch(IoRequest* const* requests, size_t count) override;
  uint64_t writeGroups() const override { return writes_->writeGroups(); }
  uint64_t groupedWrites() const override { return writes_->groupedWrites(); }

 private:
  std::unique_ptr<UringEngine> reads_;
  std::unique_ptr<ThreadPoolEngine> writes_;
};

}  // namespace Pt
