// Config: the settings a Cache is built with.
//
// A plain record whose members start at values that suit most applications
// (`Config config;` or `Config config{};`): 64 MiB of objects in memory with
// 16 MiB of slack, the file created when missing, no file budget, durable
// ordering, the I/O engine chosen automatically. A Config cleared to zero
// bytes (memset) keeps memory empty, creates nothing, and takes the default
// wherever 0 means "the default" below. Sizes may not be negative: the Cache
// constructor refuses them with std::invalid_argument. The cache reads the
// record only while it is being constructed and keeps no reference to it.
#pragma once

#include <cstdint>

namespace Tarn {

// Which engine runs the file requests of every cache in the process.
enum class IoEngine : int32_t {
  Automatic = 0,   // reads on io_uring and writes on the thread pool, each the faster
                   // on this kind of kernel; the pool alone when io_uring cannot start
  IoUring = 1,     // io_uring only; the Cache constructor throws when it cannot start
  ThreadPool = 2,  // threads doing pread/pwrite; use it under valgrind
};

inline constexpr int32_t kDefaultMemoryTarget = 64 << 20;
inline constexpr int32_t kDefaultMemorySlack = 16 << 20;

struct Config {
  // Bytes of objects' size() kept in memory after an eviction; 0 keeps none.
  int32_t memoryTarget = kDefaultMemoryTarget;
  // Eviction starts only once memory in use exceeds memoryTarget + memorySlack.
  int32_t memorySlack = kDefaultMemorySlack;
  // Worker threads of the process: 0 (or less) means 1.5 x the processor
  // count, rounded up; every value is capped at 8. The threads are shared by
  // all caches of the process, so only the cache that starts them decides.
  int32_t workerThreads = 0;
  // Smallest data allocation in the cache file, in bytes; 0 means 256.
  int32_t minAllocation = 0;
  // Worker thread priority: 0, 1 and 2 select low, normal and high; any other
  // value selects normal. Like workerThreads, decided by the first cache.
  int32_t workerPriority = 0;
  // Create an empty cache file when the path holds none; when false, a
  // missing file makes the Cache constructor fail.
  bool createIfMissing = true;
  // false (the default): every write that another depends on (an entry's
  // data before its header, a delete before the space is reused, an extent
  // before its link) is made durable with fdatasync before the dependent
  // write is issued, one sync covering a whole batch. After a kill or a power
  // loss the file opens with everything committed, and every entry it serves
  // holds exactly the bytes inserted. true: dependent writes wait only for
  // completion, which is safe against a crash of the process but not of the
  // machine; inserts then cost no sync until commit().
  bool relaxedOrdering = false;
  // Bytes the cache file may take; 0 means no bound but the
  // format's own (2 GiB). When an insert needs more room than the file has
  // free within the bound, the least recently used entries of the file are
  // erased first (an entry is used when it is inserted or read from the
  // file; at open, entries rank in file order). An entry larger than the
  // bound still goes to the file, which then grows past it. The file may
  // pass the bound by one extent of entry slots (256 KiB). Near the format's
  // limit, the cache evicts the same way instead of failing writes.
  int32_t fileBudget = 0;
  // The engine, decided by the first cache of the process (like
  // workerThreads). The environment variable TARN_IO_ENGINE=uring|threads|auto,
  // when set, takes precedence, so that a program can be moved to the thread
  // pool (under valgrind, say) without a rebuild.
  IoEngine ioEngine = IoEngine::Automatic;
};

}  // namespace Tarn
