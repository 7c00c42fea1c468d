// The receivers of the store's writes. Each hands its outcome to the store,
// which owns the ordering; a failure is posted once, here, where it happens.
#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "store/FileDeleteEntryReceiver.h"
#include "store/FileManager.h"
#include "store/FileWriteEntryHeaderReceiver.h"
#include "store/FileWriteEntryReceiver.h"
#include "store/FileWriteExtentHeaderReceiver.h"
#include "store/FileWriteExtentReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {

void FileWriteEntryReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  fileManager_->entryDataWritten(primaryKey_, serial_, operation());
}

void FileWriteEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  fileManager_->failEntryWrite(primaryKey_, serial_);
  Pt::Exception::Post(
      WithSubject(ExFileWriteEntry(kWriteEntryFailed.where, cause), KeySubject(primaryKey_)));
}

void FileWriteEntryHeaderReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  fileManager_->finishEntryWrite(primaryKey_, serial_);
}

void FileWriteEntryHeaderReceiver::ioFailed(Pt::IoRequest& /*request*/,
                                            const Pt::Exception& cause) {
  fileManager_->failEntryHeader(primaryKey_, serial_, operation());
  Pt::Exception::Post(WithSubject(ExFileWriteEntryHeader(kWriteEntryHeaderFailed.where, cause),
                                  KeySubject(primaryKey_)));
}

void FileDeleteEntryReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  fileManager_->deleteWritten(target_, operation());
}

void FileDeleteEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  fileManager_->failDelete(target_);
  // Reported as an entry-read failure, the class callers watch for.
  Pt::Exception::Post(WithSubject(ExFileReadEntry(kDeleteHeaderFailed.where, cause),
                                  KeySubject(target_.primaryKey)));
}

void FileWriteExtentReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  fileManager_->extentWritten(location_, operation());
}

void FileWriteExtentReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  fileManager_->failExtent(location_);
  Pt::Exception::Post(ExFileWriteExtent(kWriteExtentFailed.where, cause));
}

void FileWriteExtentHeaderReceiver::ioCompleted(Pt::IoRequest& /*request*/) {}

void FileWriteExtentHeaderReceiver::ioFailed(Pt::IoRequest& /*request*/,
                                             const Pt::Exception& cause) {
  fileManager_->failExtent(location_);
  Pt::Exception::Post(ExFileWriteExtentHeader(kWriteExtentHeaderFailed.where, cause));
}

}  // namespace Tarn
