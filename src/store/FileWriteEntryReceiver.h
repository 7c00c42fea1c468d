// Completion of the write of an entry's data.
//
// An EntryHeader on disk must never point at data that is not there yet, so
// the header is written only after the data: on success the store queues the
// header once the data is durable (FileManager::entryDataWritten). On failure
// the entry is taken out of the file's tables, so that it is never read back
// from the unwritten range, and ExFileWriteEntry is posted.
#pragma once

#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"

namespace Tarn {

class FileManager;

class FileWriteEntryReceiver : public FileReceiverBase {
 public:
  // `fileManager` outlives the receiver: its destructor waits for every
  // operation first.
  FileWriteEntryReceiver(FileManager* fileManager, const PrimaryKey& primaryKey, uint32_t serial,
                         FileOperationRef operation)
      : FileReceiverBase(std::move(operation)),
        fileManager_(fileManager),
        primaryKey_(primaryKey),
        serial_(serial) {}

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  PrimaryKey primaryKey_;
  uint32_t serial_;
};

}  // namespace Tarn
