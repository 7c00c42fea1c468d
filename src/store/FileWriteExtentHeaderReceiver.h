// Completion of the relink of an extent chain (the previous ExtentHeader
// rewritten with nextExtent pointing at the new extent `location`). Success
// ends the extent's operation; a failure gives the new extent up like a
// failed extent write and posts ExFileWriteExtentHeader.
#pragma once

#include <cstdint>

#include "store/FileReceiverBase.h"

namespace Tarn {

class FileManager;

class FileWriteExtentHeaderReceiver : public FileReceiverBase {
 public:
  FileWriteExtentHeaderReceiver(FileManager* fileManager, uint32_t location,
                                FileOperationRef operation)
      : FileReceiverBase(std::move(operation)), fileManager_(fileManager), location_(location) {}

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  uint32_t location_;
};

}  // namespace Tarn
