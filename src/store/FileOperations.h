// FileOperations: the operations of one cache file that have not ended yet.
//
// Every flow of the file store that writes or reads the file (an entry write,
// an erase, an appended extent, a read) is one operation, from the call that
// starts it to the end of its last step (the header on disk, the slot free
// again, the extent linked, the object delivered). An operation is a counted
// object: each request, parked header or pending step of the flow holds a
// reference, and the operation ends when the last reference goes. So a
// follow-up step that takes its reference before the previous step drops its
// own keeps the operation open across the whole chain.
//
// Operations are numbered in the order they start. commit() waits only for
// the operations that had started when it was called (waitThrough), not for
// the ones that start while it waits; the store's destructor waits for all.
//
// An operation may be charged with the bytes it writes. waitForRoom() holds a
// writer back while the bytes charged to open operations exceed a bound, so
// the backlog of queued writes (and the memory and the wait behind them)
// stays bounded however fast writers are; a commit() then waits at most for
// that backlog.
//
// Invariants (under lock_): open_ holds exactly the tickets of the operations
// alive now, each below next_; openBytes_ is the sum of their charges.
//
// Thread-safety: every member may be called from any thread. lock_ is a leaf:
// nothing else is taken while it is held. Never wait from a step of an
// operation: it would wait for itself.
#pragma once

#include <cstdint>
#include <set>

#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "pt/SmartPointer.h"
#include "pt/ThreadAnnotations.h"

namespace Tarn {

class FileOperations;

class FileOperation : public Pt::SmartPointerBase {
 public:
  FileOperation(FileOperations* owner, uint64_t ticket, uint64_t bytes)
      : owner_(owner), ticket_(ticket), bytes_(bytes) {}
  ~FileOperation() override;
  FileOperation(const FileOperation&) = delete;
  FileOperation& operator=(const FileOperation&) = delete;

  uint64_t ticket() const { return ticket_; }

 private:
  FileOperations* const owner_;
  const uint64_t ticket_;
  const uint64_t bytes_;
};

using FileOperationRef = Pt::SmartPointer<FileOperation>;

class FileOperations {
 public:
  FileOperations() = default;
  FileOperations(const FileOperations&) = delete;
  FileOperations& operator=(const FileOperations&) = delete;

  // Starts an operation charged with `bytes`; it ends when the last
  // reference to it goes. Throws std::bad_alloc and then starts nothing.
  FileOperationRef begin(uint64_t bytes = 0);
  // Blocks while the bytes charged to open operations exceed `limit`. Call it
  // holding no lock that a step of an operation takes.
  void waitForRoom(uint64_t limit);
  // The ticket of the newest operation started so far (0: none).
  uint64_t lastStarted();
  // Blocks until every operation with a ticket up to `ticket` has ended.
  void waitThrough(uint64_t ticket);
  // Blocks until no operation is alive.
  void waitAll();
  // Operations alive now.
  size_t openCount();

 private:
  friend class FileOperation;
  void end(uint64_t ticket, uint64_t bytes);

  Pt::Mutex lock_;
  Pt::CondVar ended_;
  std::set<uint64_t> open_ PT_GUARDED_BY(lock_);
  uint64_t next_ PT_GUARDED_BY(lock_) = 1;
  uint64_t openBytes_ PT_GUARDED_BY(lock_) = 0;
  int waiters_ PT_GUARDED_BY(lock_) = 0;
};

}  // namespace Tarn
