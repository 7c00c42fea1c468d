// Completion of the write of an entry's EntryHeader: the entry is in the
// file. The store settles the entry (FileManager::finishEntryWrite), which
// also carries out an erase that arrived while the write was in flight. On
// failure the slot may hold a torn header: the store takes the entry out of
// its tables and writes a delete header over the slot; ExFileWriteEntryHeader
// is posted.
#pragma once

#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"

namespace Tarn {

class FileManager;

class FileWriteEntryHeaderReceiver : public FileReceiverBase {
 public:
  FileWriteEntryHeaderReceiver(FileManager* fileManager, const PrimaryKey& primaryKey,
                               uint32_t serial, FileOperationRef operation)
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
