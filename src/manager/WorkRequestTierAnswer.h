// WorkRequestTierAnswer: carries a shared tier's answer for one request to
// a worker thread, where the cache manager checks the value, decodes and
// inserts it, or goes on as on a miss (CacheManager::tierAnswered).
// Whatever that throws ends the request (if it is still the key's current
// one) with failed() calls.
//
// Ownership: as WorkRequestGenerate; the manager's destructor withdraws
// queued answers and waits for running ones.
#pragma once

#include <string>

#include "tarn/CacheKey.h"
#include "tarn/SharedTier.h"
#include "work/WorkRequest.h"

namespace Tarn {

class CacheManager;

class WorkRequestTierAnswer : public WorkRequest {
 public:
  WorkRequestTierAnswer(CacheManager& manager, const PrimaryKey& primaryKey, int32_t requestId,
                        const std::string& type, TierLookupStatus status, std::string value);

  void run() override;
  void handleException(const Pt::Exception& error) override;

 private:
  CacheManager& manager_;
  const PrimaryKey primaryKey_;
  const std::string type_;
  const TierLookupStatus status_;
  const std::string value_;  // the tier's bytes of a Hit
};

}  // namespace Tarn
