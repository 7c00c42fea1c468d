// Completion of the relink of an extent chain (the previous ExtentHeader
// rewritten with nextExtent set). Success needs no further step; a failure
// posts ExFileWriteExtentHeader: the entries stored in the new extent are
// served while the cache runs but not found after the next open.
#pragma once

#include "store/FileReceiverBase.h"

namespace Tarn {

class FileWriteExtentHeaderReceiver : public FileReceiverBase {
 public:
  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;
};

}  // namespace Tarn
