#include "store/FileWriteExtentReceiver.h"

#include <cstring>

#include "core/RaiseSites.h"
#include "store/FileWriteExtentHeaderReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {

FileWriteExtentReceiver::FileWriteExtentReceiver(
    const Pt::SmartPointer<Pt::PtIoDeviceFile>& device, uint32_t previousLocation,
    const std::array<uint8_t, kExtentHeaderSize>& previousHeader)
    : device_(device), previousLocation_(previousLocation), previousHeader_(previousHeader) {}

void FileWriteExtentReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  // The new extent is on disk, so the chain may now reach it. The relink's
  // receiver exists before this one dies, so waitForAll never sees the
  // count pass through 0 between the two writes. Held in a smart pointer
  // until the request owns it, so that a failed Create frees it. A failure
  // to queue propagates to the device, which reports it.
  Pt::SmartPointer<FileWriteExtentHeaderReceiver> receiver(new FileWriteExtentHeaderReceiver);
  Pt::SmartPointer<Pt::IoRequest> relink =
      Pt::IoRequest::Create(receiver.get(), kExtentHeaderSize, Pt::IoRequest::Normal);
  std::memcpy(relink->data(), previousHeader_.data(), previousHeader_.size());
  relink->setOffset(previousLocation_);
  device_->write(relink);
}

void FileWriteExtentReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  // No relink: the chain must never reach a block that may hold garbage.
  Pt::Exception::Post(ExFileWriteExtent(kWriteExtentFailed.where, cause));
}

}  // namespace Tarn
