// The two receivers of an entry write: data first, then the header.
#include <cstring>

#include "core/RaiseSites.h"
#include "store/FileManager.h"
#include "store/FileWriteEntryHeaderReceiver.h"
#include "store/FileWriteEntryReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {

FileWriteEntryReceiver::FileWriteEntryReceiver(FileManager* fileManager,
                                               const PrimaryKey& primaryKey,
                                               const Pt::SmartPointer<Pt::PtIoDeviceFile>& device,
                                               uint32_t serial, uint32_t headerOffset,
                                               const std::array<uint8_t, kEntryHeaderSize>& header)
    : fileManager_(fileManager),
      primaryKey_(primaryKey),
      device_(device),
      serial_(serial),
      headerOffset_(headerOffset),
      header_(header) {}

void FileWriteEntryReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  // The header's receiver exists before this one dies, so the count of live
  // receivers never passes through 0 between the two writes.
  const auto request =
      Pt::IoRequest::Create(new FileWriteEntryHeaderReceiver(fileManager_, primaryKey_, serial_),
                            static_cast<int>(kEntryHeaderSize), Pt::IoRequest::Normal);
  std::memcpy(request->data(), header_.data(), kEntryHeaderSize);
  request->setOffset(headerOffset_);
  device_->write(request);
}

void FileWriteEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  fileManager_->finishEntryWrite(primaryKey_, serial_);
  Pt::Exception::Post(ExFileWriteEntry(kWriteEntryFailed.where, cause));
}

void FileWriteEntryHeaderReceiver::ioCompleted(Pt::IoRequest& /*request*/) {
  fileManager_->finishEntryWrite(primaryKey_, serial_);
}

void FileWriteEntryHeaderReceiver::ioFailed(Pt::IoRequest& /*request*/,
                                            const Pt::Exception& cause) {
  fileManager_->finishEntryWrite(primaryKey_, serial_);
  Pt::Exception::Post(ExFileWriteEntryHeader(kWriteEntryHeaderFailed.where, cause));
}

}  // namespace Tarn
