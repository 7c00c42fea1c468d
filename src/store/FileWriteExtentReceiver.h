// Completion of the write of a new extent (header and 4096 free slots).
//
// Only once the whole extent is durable may the chain reach it: on success
// the store relinks the previous extent to it after the next group sync
// (FileManager::extentWritten). On failure the extent, and any extent
// appended behind it, is given up: its slots are never handed out, the
// entries already placed in them are taken out of the file's tables, the next
// entry tries a new extent, and ExFileWriteExtent is posted.
#pragma once

#include <cstdint>

#include "store/FileReceiverBase.h"

namespace Tarn {

class FileManager;

class FileWriteExtentReceiver : public FileReceiverBase {
 public:
  FileWriteExtentReceiver(FileManager* fileManager, uint32_t location, FileOperationRef operation)
      : FileReceiverBase(std::move(operation)), fileManager_(fileManager), location_(location) {}

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  uint32_t location_;
};

}  // namespace Tarn
