// Completion of the write of a new extent (header and 4096 free slots).
//
// Only once the whole extent is on disk may the chain reach it: on success
// this receiver writes the previous extent's ExtentHeader again, now with
// nextExtent pointing at the new extent, through a
// FileWriteExtentHeaderReceiver. On failure it posts ExFileWriteExtent and
// the relink is never written, so the file's chain never reaches a block
// that may hold garbage.
#pragma once

#include <array>
#include <cstdint>

#include "pt/PtIoDeviceFile.h"
#include "store/FileFormat.h"
#include "store/FileReceiverBase.h"

namespace Tarn {

class FileWriteExtentReceiver : public FileReceiverBase {
 public:
  // `previousHeader` is the 16-byte image to write at `previousLocation`.
  FileWriteExtentReceiver(const Pt::SmartPointer<Pt::PtIoDeviceFile>& device,
                          uint32_t previousLocation,
                          const std::array<uint8_t, kExtentHeaderSize>& previousHeader);

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  Pt::SmartPointer<Pt::PtIoDeviceFile> device_;
  uint32_t previousLocation_;
  std::array<uint8_t, kExtentHeaderSize> previousHeader_;
};

}  // namespace Tarn
