#include "store/FileWriteExtentHeaderReceiver.h"

#include "core/RaiseSites.h"
#include "tarn/Exceptions.h"

namespace Tarn {

void FileWriteExtentHeaderReceiver::ioCompleted(Pt::IoRequest& /*request*/) {}

void FileWriteExtentHeaderReceiver::ioFailed(Pt::IoRequest& /*request*/,
                                             const Pt::Exception& cause) {
  Pt::Exception::Post(ExFileWriteExtentHeader(kWriteExtentHeaderFailed.where, cause));
}

}  // namespace Tarn
