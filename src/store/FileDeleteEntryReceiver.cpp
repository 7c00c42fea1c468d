#include "store/FileDeleteEntryReceiver.h"

#include "core/RaiseSites.h"
#include "store/FileManager.h"
#include "tarn/Exceptions.h"

namespace Tarn {

FileDeleteEntryReceiver::FileDeleteEntryReceiver(uint32_t headerOffset, uint32_t dataOffset,
                                                 uint32_t allocatedLength, FileManager* fileManager)
    : headerOffset_(headerOffset),
      dataOffset_(dataOffset),
      allocatedLength_(allocatedLength),
      fileManager_(fileManager) {}

void FileDeleteEntryReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  // The old header is gone from disk: nothing points at the slot or the data
  // any more, so both may be reused.
  fileManager_->releaseEntry(headerOffset_, dataOffset_, allocatedLength_);
}

void FileDeleteEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  // The old header may still be on disk and still point at the data, so
  // neither is reused while the cache runs; the next open finds the entry
  // again. Reported as an entry-read failure, the class callers watch for.
  Pt::Exception::Post(ExFileReadEntry(kDeleteHeaderFailed.where, cause));
}

}  // namespace Tarn
