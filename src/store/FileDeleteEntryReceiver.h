// Completion of a delete header (64 zero bytes over an entry's EntryHeader).
//
// The slot and the data range of a deleted entry become reusable only once
// the delete header is durable: until then a crash could leave the old header
// pointing at space that a new entry may already have overwritten, and a new
// header of the same key must not reach the file while the old one may still
// be there. On success the store releases both once the delete is durable
// (FileManager::deleteWritten); on failure nothing is given back (the slot
// and range stay out of use until the next open) and ExFileReadEntry is
// posted.
#pragma once

#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"

namespace Tarn {

class FileManager;

class FileDeleteEntryReceiver : public FileReceiverBase {
 public:
  struct Target {
    PrimaryKey primaryKey;
    uint32_t headerOffset = 0;
    uint32_t dataOffset = 0;
    uint32_t allocatedLength = 0;
  };

  FileDeleteEntryReceiver(FileManager* fileManager, const Target& target,
                          FileOperationRef operation)
      : FileReceiverBase(std::move(operation)), fileManager_(fileManager), target_(target) {}

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  FileManager* fileManager_;
  Target target_;
};

}  // namespace Tarn
