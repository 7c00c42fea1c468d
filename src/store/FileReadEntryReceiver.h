// Completion of the read of an entry's data: the object is rebuilt through
// its type's factory and handed to the cache manager's insert for the request
// that asked for it. Anything that fails from here on (the read, decode,
// insert) ends the key's pending request through failPending with an
// ExFileReadEntry; nothing is posted, since the waiting receivers are told.
#pragma once

#include <cstdint>

#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"
#include "tarn/CacheableFactory.h"

namespace Tarn {

class CacheManager;

class FileReadEntryReceiver : public FileReceiverBase {
 public:
  // `manager` outlives the receiver: its file store waits for every receiver
  // before it is destroyed.
  FileReadEntryReceiver(CacheManager* manager, const Pt::SmartPointer<CacheableFactory>& factory,
                        const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                        int32_t requestId, FileOperationRef operation);

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  CacheManager* manager_;
  Pt::SmartPointer<CacheableFactory> factory_;
  PrimaryKey primaryKey_;
  SecondaryKey secondaryKey_;
  int32_t requestId_;
};

}  // namespace Tarn
