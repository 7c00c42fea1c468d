#include "manager/WorkRequestTierAnswer.h"

#include <utility>

#include "manager/CacheManager.h"

namespace Tarn {

WorkRequestTierAnswer::WorkRequestTierAnswer(CacheManager& manager, const PrimaryKey& primaryKey,
                                             int32_t requestId, const std::string& type,
                                             TierLookupStatus status, std::string value)
    : WorkRequest(manager.id(), requestId),
      manager_(manager),
      primaryKey_(primaryKey),
      type_(type),
      status_(status),
      value_(std::move(value)) {}

void WorkRequestTierAnswer::run() {
  manager_.tierAnswered(primaryKey_, requestId(), type_, status_, value_);
}

void WorkRequestTierAnswer::handleException(const Pt::Exception& error) {
  manager_.failPending(primaryKey_, requestId(), error);
}

}  // namespace Tarn
