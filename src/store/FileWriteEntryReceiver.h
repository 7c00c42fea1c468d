// Completion of the write of an entry's data.
//
// An EntryHeader on disk must never point at data that is not there yet, so
// the header is written only now that the data is: on success this receiver
// queues the 64-byte header at the entry's slot, through a
// FileWriteEntryHeaderReceiver. On failure it settles the entry in the store
// (finishEntryWrite) and posts ExFileWriteEntry; no header is written, so the
// entry is gone after the next open.
#pragma once

#include <array>
#include <cstdint>

#include "pt/PtIoDeviceFile.h"
#include "store/FileFormat.h"
#include "store/FileReceiverBase.h"

namespace Tarn {

class FileManager;

class FileWriteEntryReceiver : public FileReceiverBase {
 public:
  // `fileManager` outlives the receiver: its destructor waits for every
  // receiver first.
  FileWriteEntryReceiver(FileManager* fileManager, const PrimaryKey& primaryKey,
                         const Pt::SmartPointer<Pt::PtIoDeviceFile>& device, uint32_t serial,
                         uint32_t headerOffset,
                         const std::array<uint8_t, kEntryHeaderSize>& header);

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  PrimaryKey primaryKey_;
  Pt::SmartPointer<Pt::PtIoDeviceFile> device_;
  uint32_t serial_;
  uint32_t headerOffset_;
  std::array<uint8_t, kEntryHeaderSize> header_;
};

}  // namespace Tarn
