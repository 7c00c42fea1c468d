// TierLookupCall: the receiver of one shared tier lookup.
//
// The cache manager creates one per lookup and hands it to the tier; the
// tier calls it exactly once, on its own thread or inside lookup(). The call
// copies what the tier found and queues a WorkRequestTierAnswer, so that the
// checks, decode and insert run on a worker thread and the tier's thread is
// never held up by the cache or its receivers. Then the call deletes itself
// and tells the tier client that one lookup fewer is in flight; the cache's
// destructor waits for that count to reach zero, so no call outlives the
// manager.
//
// Ownership: owns itself from creation until its callback returns.
#pragma once

#include <cstdint>
#include <string>

#include "tarn/CacheKey.h"
#include "tarn/SharedTier.h"

namespace Tarn {

class CacheManager;
class TierClient;

class TierLookupCall final : public TierLookupReceiver {
 public:
  // Counted in `client` by the caller (TierClient::beginLookup) before.
  TierLookupCall(CacheManager& manager, TierClient& client, const PrimaryKey& primaryKey,
                 int32_t requestId, const std::string& type);

  void tierLookupDone(TierLookupStatus status, std::string_view value) noexcept override;

 private:
  ~TierLookupCall() override = default;

  CacheManager& manager_;
  TierClient& client_;
  const PrimaryKey primaryKey_;
  const int32_t requestId_;
  const std::string type_;
};

}  // namespace Tarn
