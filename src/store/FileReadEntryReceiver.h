// Completion of the read of an entry's data: the object is rebuilt through
// its type's factory and handed to the store's read sink for the request
// that asked for it. Anything that fails from here on (the read, a short
// read, decode, the sink's entryRead; whatever they throw) ends that request
// through the sink's entryReadFailed with an ExFileReadEntry; nothing is
// posted, since the waiting receivers are told.
#pragma once

#include <cstdint>

#include "pt/IoDevice.h"
#include "store/EntryReadSink.h"
#include "store/FileFormat.h"
#include "store/FileReceiverBase.h"
#include "tarn/CacheKey.h"
#include "tarn/CacheableFactory.h"

namespace Tarn {

class FileManager;

class FileReadEntryReceiver : public FileReceiverBase {
 public:
  // `sink` outlives the receiver: the store it serves waits for every
  // receiver before it is destroyed.
  // `store` and `serial` name the entry read: its bytes are delivered only
  // if the store still holds that very entry when the read completes.
  FileReadEntryReceiver(EntryReadSink* sink, FileManager* store, uint32_t serial,
                        const Pt::SmartPointer<CacheableFactory>& factory,
                        const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                        int32_t requestId, FileOperationRef operation);

  // Queues on `device` the read of the data that `header` records, to
  // complete on `receiver`. Returns the request when the device carried it
  // out at once (IoDevice::readNowOrQueue): the caller then completes it
  // with ioCompleted once it holds no lock; else null. Throws ExFileReadEntry (kReadEntryDamaged)
  // for a header whose data length exceeds its allocation or the largest request the device takes,
  // and whatever the request's creation or queueing throws. On a throw nothing is queued and the
  // caller's reference is the receiver's last, so dropping it ends the receiver: a failed queueing
  // never leaves the process-wide count of pending receivers raised.
  static Pt::SmartPointer<Pt::IoRequest> Queue(
      Pt::IoDevice& device, const EntryHeader& header,
      const Pt::SmartPointer<FileReadEntryReceiver>& receiver);

  void ioCompleted(Pt::IoRequest& request) override;
  void ioFailed(Pt::IoRequest& request, const Pt::Exception& cause) override;

 private:
  void rebuild(Pt::IoRequest& request);

  EntryReadSink* sink_;
  FileManager* store_;
  uint32_t serial_;
  Pt::SmartPointer<CacheableFactory> factory_;
  PrimaryKey primaryKey_;
  SecondaryKey secondaryKey_;
  int32_t requestId_;
};

}  // namespace Tarn
