#include "store/FileReadEntryReceiver.h"

#include "core/RaiseSites.h"
#include "manager/CacheManager.h"
#include "tarn/Exceptions.h"

namespace Tarn {

FileReadEntryReceiver::FileReadEntryReceiver(CacheManager* manager,
                                             const Pt::SmartPointer<CacheableFactory>& factory,
                                             const PrimaryKey& primaryKey,
                                             const SecondaryKey& secondaryKey, int32_t requestId,
                                             FileOperationRef operation)
    : FileReceiverBase(std::move(operation)),
      manager_(manager),
      factory_(factory),
      primaryKey_(primaryKey),
      secondaryKey_(secondaryKey),
      requestId_(requestId) {}

void FileReadEntryReceiver::ioCompleted(Pt::IoRequest& request) {
  try {
    const Pt::SmartPointer<Buffer> buffer = Buffer::Create(request.byteCount(), request.data());
    const Pt::SmartPointer<Cacheable> cacheable = factory_->decode(primaryKey_, buffer);
    if (!cacheable) {
      throw Pt::Exception(Pt::ExReason{kDecodeNoObjectMessage, kDecodeNoObject.where, 1});
    }
    manager_->insert(primaryKey_, secondaryKey_, cacheable, requestId_);
  } catch (const Pt::Exception& error) {
    manager_->failPending(primaryKey_, ExFileReadEntry(kReadEntryRebuild.where, error));
  }
}

void FileReadEntryReceiver::ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& cause) {
  manager_->failPending(primaryKey_, ExFileReadEntry(kReadEntryFailed.where, cause));
}

}  // namespace Tarn
