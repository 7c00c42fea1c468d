#include "store/FileOperations.h"

namespace Tarn {

FileOperation::~FileOperation() {
  owner_->end(ticket_);
}

FileOperationRef FileOperations::begin() {
  Pt::MutexLock guard(lock_);
  const uint64_t ticket = next_;
  // The object exists before its ticket is entered, so a throw enters nothing.
  FileOperationRef operation(new FileOperation(this, ticket));
  open_.insert(open_.end(), ticket);
  ++next_;
  return operation;
}

uint64_t FileOperations::lastStarted() {
  Pt::MutexLock guard(lock_);
  return next_ - 1;
}

void FileOperations::end(uint64_t ticket) {
  // The waiter is woken while the lock is held, so it cannot return (and
  // destroy this object) before this call is done with it.
  Pt::MutexLock guard(lock_);
  open_.erase(ticket);
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
