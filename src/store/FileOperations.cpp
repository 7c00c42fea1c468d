#include "store/FileOperations.h"

namespace Tarn {

FileOperation::~FileOperation() {
  owner_->end(ticket_, bytes_);
}

FileOperationRef FileOperations::begin(uint64_t bytes) {
  Pt::MutexLock guard(lock_);
  const uint64_t ticket = next_;
  // The object exists before its ticket is entered, so a throw enters nothing.
  FileOperationRef operation(new FileOperation(this, ticket, bytes));
  open_.insert(open_.end(), ticket);
  ++next_;
  openBytes_ += bytes;
  return operation;
}

void FileOperations::waitForRoom(uint64_t limit) {
  Pt::MutexLock guard(lock_);
  if (openBytes_ <= limit) return;
  ++waiters_;
  while (openBytes_ > limit) ended_.wait_(lock_, -1);
  --waiters_;
}

uint64_t FileOperations::lastStarted() {
  Pt::MutexLock guard(lock_);
  return next_ - 1;
}

void FileOperations::end(uint64_t ticket, uint64_t bytes) {
  // The waiter is woken while the lock is held, so it cannot return (and
  // destroy this object) before this call is done with it.
  Pt::MutexLock guard(lock_);
  open_.erase(ticket);
  openBytes_ -= bytes;
  if (waiters_ > 0) ended_.broadcast();
}

void FileOperations::waitThrough(uint64_t ticket) {
  Pt::MutexLock guard(lock_);
  ++waiters_;
  while (!open_.empty() && *open_.begin() <= ticket) ended_.wait_(lock_, -1);
  --waiters_;
}

void FileOperations::waitAll() {
  Pt::MutexLock guard(lock_);
  ++waiters_;
  while (!open_.empty()) ended_.wait_(lock_, -1);
  --waiters_;
}

size_t FileOperations::openCount() {
  Pt::MutexLock guard(lock_);
  return open_.size();
}

}  // namespace Tarn
