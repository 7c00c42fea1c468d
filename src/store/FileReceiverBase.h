// FileReceiverBase: the base of every completion receiver of the file store.
//
// Each asynchronous request of a cache file carries one receiver, created
// with new and handed to the device at once; the request holds the only
// reference, so a receiver lives exactly as long as its request. Each
// receiver holds a reference to the store operation it is a step of
// (FileOperations): a step that issues a follow-up request, or hands a step
// to the group sync, passes the reference on before it dies, so the operation
// stays open across the whole chain and commit() and the store's destructor
// wait for chains as a whole.
//
// Thread-safety: receivers are called on I/O threads, except the receiver of
// a read that the device served at once (FileManager::CompletedRead): that
// one runs on the thread that asked for the read, once it holds no lock of
// the cache manager.
#pragma once

#include "pt/IoRequest.h"
#include "store/FileOperations.h"

namespace Tarn {

class FileReceiverBase : public Pt::IoNotify {
 public:
  // No receiver uses the platform's second notification.
  void ioNotified(Pt::IoRequest& /*request*/) override {}

 protected:
  explicit FileReceiverBase(FileOperationRef operation) : operation_(std::move(operation)) {}

  const FileOperationRef& operation() const { return operation_; }

 private:
  FileOperationRef operation_;
};

}  // namespace Tarn
