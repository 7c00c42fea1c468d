// Config: the settings a Cache is built with.
//
// A plain record without a constructor of its own: the application chooses
// every value (`Config config{};` zeroes them all, which selects the default
// for every field that has one). The cache reads it only while it is being
// constructed and keeps no reference to it.
#pragma once

#include <cstdint>

namespace Tarn {

struct Config {
  // Bytes of objects' size() kept in memory after an eviction.
  int32_t memoryTarget;
  // Eviction starts only once memory in use exceeds memoryTarget + memorySlack.
  int32_t memorySlack;
  // Worker threads of the process: 0 (or less) means 1.5 x the processor
  // count, rounded up; every value is capped at 8. The threads are shared by
  // all caches of the process, so only the cache that starts them decides.
  int32_t workerThreads;
  // Smallest data allocation in the cache file, in bytes; 0 or less means 256.
  int32_t minAllocation;
  // Worker thread priority: 0, 1 and 2 select low, normal and high; any other
  // value selects normal. Like workerThreads, decided by the first cache.
  int32_t workerPriority;
  // Create an empty cache file when the path holds none; when false, a
  // missing file makes the Cache constructor fail.
  bool createIfMissing;
  // false (the default): every write that another depends on (an entry's
  // data before its header, a delete before the space is reused, an extent
  // before its link) is made durable with fdatasync before the dependent
  // write is issued, one sync covering a whole batch. After a kill or a power
  // loss the file opens with everything committed, and every entry it serves
  // holds exactly the bytes inserted. true: dependent writes wait only for
  // completion, which is safe against a crash of the process but not of the
  // machine; inserts then cost no sync until commit().
  bool relaxedOrdering;
  // Bytes the cache file may take; 0 (or less) means no bound but the
  // format's own (2 GiB). When an insert needs more room than the file has
  // free within the bound, the least recently used entries of the file are
  // erased first (an entry is used when it is inserted or read from the
  // file; at open, entries rank in file order). An entry larger than the
  // bound still goes to the file, which then grows past it. The file may
  // pass the bound by one extent of entry slots (256 KiB). Near the format's
  // limit, the cache evicts the same way instead of failing writes.
  int32_t fileBudget;
};

}  // namespace Tarn
