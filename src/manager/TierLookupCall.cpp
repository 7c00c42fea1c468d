#include "manager/TierLookupCall.h"

#include "manager/CacheManager.h"
#include "manager/WorkRequestTierAnswer.h"
#include "tier/TierClient.h"
#include "work/WorkManager.h"

namespace Tarn {

TierLookupCall::TierLookupCall(CacheManager& manager, TierClient& client,
                               const PrimaryKey& primaryKey, int32_t requestId,
                               const std::string& type)
    : manager_(manager),
      client_(client),
      primaryKey_(primaryKey),
      requestId_(requestId),
      type_(type) {}

void TierLookupCall::tierLookupDone(TierLookupStatus status, std::string_view value) noexcept {
  TierClient& client = client_;
  try {
    const std::string kept = status == TierLookupStatus::Hit ? std::string(value) : std::string();
    // Somebody waits for the answer (or a generation follows it): before
    // ordinary work.
    WorkManager::queue(Pt::SmartPointer<WorkRequest>(new WorkRequestTierAnswer(
                           manager_, primaryKey_, requestId_, type_, status, kept)),
                       WorkManager::kHighPriority);
  } catch (...) {
    // No memory to carry the answer to a worker: go on here as on a lookup
    // that timed out. Should even that fail, the request waits for an
    // erase, a cancel or the destructor.
    try {
      manager_.tierAnswered(primaryKey_, requestId_, type_, TierLookupStatus::Timeout,
                            std::string());
    } catch (...) {
    }
  }
  delete this;
  client.endLookup();
}

}  // namespace Tarn
