#include "manager/WorkRequestGenerate.h"

#include "core/RaiseSites.h"
#include "manager/CacheManager.h"

namespace Tarn {

WorkRequestGenerate::WorkRequestGenerate(CacheManager* manager,
                                         const Pt::SmartPointer<CacheableFactory>& factory,
                                         const PrimaryKey& primaryKey,
                                         const SecondaryKey& secondaryKey, int32_t ownerId,
                                         int32_t requestId)
    : WorkRequest(ownerId, requestId),
      manager_(manager),
      factory_(factory),
      primaryKey_(primaryKey),
      secondaryKey_(secondaryKey) {}

void WorkRequestGenerate::run() {
  const Pt::SmartPointer<Cacheable> result = factory_->create(primaryKey_);
  if (!result) {
    // A factory that breaks its promise must not leave receivers waiting.
    throw Pt::Exception(Pt::ExReason{kGenerateNoObjectMessage, kGenerateNoObject.where, 1});
  }
  manager_->awaitFileRoom(*result);  // on the worker, before any lock
  manager_->insert(primaryKey_, secondaryKey_, result, requestId());
}

void WorkRequestGenerate::handleException(const Pt::Exception& error) {
  manager_->failPending(primaryKey_, requestId(), error);
}

}  // namespace Tarn
