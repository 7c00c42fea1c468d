// Completion of a delete header (64 zero bytes over an entry's EntryHeader).
//
// The slot and the data range of a deleted entry become reusable only once
// the delete header is on disk: until then a crash would leave the old header
// pointing at space that a new entry may already have overwritten. On success
// this receiver gives both back (FileManager::releaseEntry); on failure it
// posts ExFileReadEntry and gives nothing back, so the slot and range stay
// out of use until the next open.
#pragma once

#include <cstdint>

#include "store/FileReceiverBase.h"

namespace Tarn {

class FileManager;

class FileDeleteEntryReceiver : public FileReceiverBase {
 public:
  // `fileManager` outlives the receiver: its destructor waits for every
  // receiver first.
  FileDeleteEntryReceiver(uint32_t headerOffset, uint32_t dataOffset, uint32_t allocatedLength,
                          FileManager* fileManager);

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  uint32_t headerOffset_;
  uint32_t dataOffset_;
  uint32_t allocatedLength_;
  FileManager* fileManager_;
};

}  // namespace Tarn
