// Completion of the write of an entry's EntryHeader: the entry is durable.
// Either way the write is settled in the store (finishEntryWrite), which also
// carries out an erase that arrived while the write was in flight; a failure
// is then posted as ExFileWriteEntryHeader.
#pragma once

#include <cstdint>

#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"

namespace Tarn {

class FileManager;

class FileWriteEntryHeaderReceiver : public FileReceiverBase {
 public:
  FileWriteEntryHeaderReceiver(FileManager* fileManager, const PrimaryKey& primaryKey,
                               uint32_t serial)
      : fileManager_(fileManager), primaryKey_(primaryKey), serial_(serial) {}

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  PrimaryKey primaryKey_;
  uint32_t serial_;
};

}  // namespace Tarn
