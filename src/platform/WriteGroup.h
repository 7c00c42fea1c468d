// A run of queued writes to adjacent byte ranges of one file, carried out by
// an engine as one vectored write (pwritev, or an io_uring writev).
//
// Engines gather a group from the requests they have already been handed:
// every such request has left the device's sequencer, so no two of them
// overlap, and a group never waits for a request that has not arrived yet.
// A member therefore completes no later than it would alone, and only once
// its own bytes were written: a flush or sync sees each member exactly as it
// would have seen the request carried out by itself.
//
// Only plain writes join (see Joinable): a request that the fault-injection
// seam marked to fail, to be cut short or to see transient errors, or one
// whose transfer already began, is carried out alone, so the seam affects
// each logical request as before. The seam and the write trace see members
// one by one, since interception happens before the engine and the trace
// records each member's completion.
//
// When the vectored write moves fewer bytes than the group holds, or fails,
// Settle tells which members are whole; the others are marked solo and the
// engine carries each out by itself, so that each hears its own outcome (the
// member that hits a full disk fails, those before it succeed).
//
// Invariants (after seal()): members are sorted by offset, back to back,
// all writes on one descriptor; size() <= kMaxMembers; bytes() <= kMaxBytes
// unless the group holds one request only.
//
// Not thread-safe: the engine thread that gathered a group owns it.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

#include "platform/RequestState.h"

namespace Pt {

class WriteGroup {
 public:
  static constexpr size_t kMaxMembers = 64;
  static constexpr int64_t kMaxBytes = 1 << 20;
  // How many queued requests an engine looks at when it gathers a group.
  static constexpr size_t kGatherScan = 128;

  // Whether `request` may be part of a group.
  static bool Joinable(const IoRequest& request);

  // A group of `first`, which must be Joinable.
  explicit WriteGroup(IoRequest* first);

  // Adds `request` when it is Joinable, on the same file, and extends the
  // group at either end within the bounds; true when added.
  bool tryAdd(IoRequest* request);
  bool full() const { return count_ == kMaxMembers || end_ - begin_ >= kMaxBytes; }

  // Orders the members by offset and builds the vector. Call once, after
  // gathering.
  void seal();

  size_t size() const { return count_; }
  IoRequest* member(size_t i) const { return members_[i]; }
  IoRequest* first() const { return first_; }
  int fd() const { return fd_; }
  int64_t offset() const { return begin_; }
  int64_t bytes() const { return end_ - begin_; }
  const iovec* vector() const { return vector_; }
  int vectorCount() const { return static_cast<int>(count_); }

  // Accounts the vectored write's `result` (bytes moved, or a negative
  // errno). Returns how many leading members were written whole; each of
  // them has its transfer complete. The others are marked solo; the first
  // of them keeps the bytes the write moved of it as its first transfer.
  size_t settle(long result);

  // True when the invariants above hold (after seal()).
  bool checkInvariants() const;

 private:
  IoRequest* first_;
  int fd_;
  int64_t begin_;
  int64_t end_;
  size_t count_ = 0;
  IoRequest* members_[kMaxMembers];
  iovec vector_[kMaxMembers];
};

}  // namespace Pt
