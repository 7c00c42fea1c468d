// WorkRequestGenerate: has a factory create a missing object on a worker
// thread and hands it to the cache manager's insert, which takes it only while
// the request is still the key's current one. Anything create() or the
// insert throws ends this request (if it is still the key's current one) with
// failed() calls; an exception that is not a Pt::Exception arrives wrapped.
//
// Ownership: held by whoever queues it, then by the work manager, then by the
// worker that runs it. The manager outlives it: its destructor withdraws its
// queued requests and waits for running ones.
#pragma once

#include "tarn/CacheKey.h"
#include "tarn/CacheableFactory.h"
#include "work/WorkRequest.h"

namespace Tarn {

class CacheManager;

class WorkRequestGenerate : public WorkRequest {
 public:
  WorkRequestGenerate(CacheManager* manager, const Pt::SmartPointer<CacheableFactory>& factory,
                      const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                      int32_t ownerId, int32_t requestId);

  void run() override;
  void handleException(const Pt::Exception& error) override;

 private:
  CacheManager* manager_;
  Pt::SmartPointer<CacheableFactory> factory_;
  PrimaryKey primaryKey_;
  SecondaryKey secondaryKey_;
};

}  // namespace Tarn
