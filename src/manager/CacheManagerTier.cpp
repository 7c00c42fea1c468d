// The shared tier's part of the lookups.
//
// A lookup that misses in memory, among the requests in progress and in the
// file takes a slot in state TierLookup (later lookups of the key join it, so
// one key has one tier lookup at a time) and asks the tier with no lock held.
// The tier's answer reaches a worker thread (TierLookupCall,
// WorkRequestTierAnswer): a valid value is decoded and inserted like a read
// from the file, so it reaches memory and the file and the waiting receivers
// hear found(). Anything else (a miss, a timeout, an unreachable tier, a
// value refused by the checks or by decode) goes on as a miss: a generation
// when a findCreate wished one, else the next type for a find, else
// cancelled. The tier never fails a request.
#include <exception>
#include <memory>

#include "core/ClientException.h"
#include "core/RaiseSites.h"
#include "manager/CacheManager.h"
#include "manager/TierLookupCall.h"
#include "manager/WorkRequestGenerate.h"
#include "tier/TierRecord.h"
#include "work/WorkManager.h"

namespace Tarn {

// With both locks held and the key not indexed; releases them before the
// tier is asked. `factory` null: a find, which asks under the first type.
int32_t CacheManager::startTierLookup(const PrimaryKey& key, const SecondaryKey& secondaryKey,
                                      const Pt::SmartPointer<CacheableFactory>& factory,
                                      const Pt::SmartPointer<CacheableReceiver>& receiver,
                                      Pt::UniqueLock& index, Pt::UniqueLock& file) {
  if (!factory && factories_->size() == 0) return 0;
  const int32_t requestId = allocateSlot(key);
  CacheSlot* slot = slots_.find(key);
  slot->state = SlotState::TierLookup;
  try {
    tierPlans_[requestId] = TierPlan{secondaryKey, factory, 0};
    slot->waiting.push_back({requestId, key, receiver});
  } catch (...) {
    PendingList dropped;  // nobody else can have joined: the index lock is held
    releaseSlot(key, dropped);
    throw;
  }
  const std::string type = factory ? factory->getType() : (*factories_->begin())->getType();
  file.unlock();
  index.unlock();
  askTier(key, requestId, type);
  return requestId;
}

// A findCreate joins a lookup that a find started: its miss now generates.
void CacheManager::joinTierLookup(CacheSlot& slot, const CreateWish& create) {
  TierPlan& plan = tierPlans_.at(slot.requestId());
  if (plan.factory) return;
  plan.factory = factories_->lookup(create.type);
  plan.secondaryKey = create.secondaryKey;
}

// With no lock held. An unhealthy tier is not asked: the lookup ends at
// once as Unavailable. A closing cache asks no more.
void CacheManager::askTier(const PrimaryKey& key, int32_t requestId, const std::string& type) {
  if (!tier_->tier().healthy()) {
    return tierAnswered(key, requestId, type, TierLookupStatus::Unavailable, std::string());
  }
  if (!tier_->beginLookup()) return tierMissed(key, requestId);
  TierLookupCall* call = nullptr;
  std::string tierKey;
  try {
    tierKey = tier_->keyFor(type, key);
    call = new TierLookupCall(*this, *tier_, key, requestId, type);
  } catch (...) {
    tier_->endLookup();
    return tierMissed(key, requestId);
  }
  // The call may come back, and be gone, before lookup() returns.
  tier_->tier().lookup(tierKey, tier_->deadlineFromNow(), *call);
}

void CacheManager::tierAnswered(const PrimaryKey& primaryKey, int32_t requestId,
                                const std::string& type, TierLookupStatus status,
                                const std::string& value) {
  if (tier_->recordStatus(status)) {
    Pt::Exception::Post(
        Pt::Exception(Pt::ExReason{kTierUnavailableMessage, kTierUnavailable.where, 1}));
  }
  if (status == TierLookupStatus::Hit && takeTierValue(primaryKey, requestId, type, value)) return;
  tierMissed(primaryKey, requestId);
}

// A value that passes the record's checks, decodes, is of the type asked
// and verifies is inserted for the request (memory, then the file); true
// then. Whatever decode or verify throw only refuses the value.
bool CacheManager::takeTierValue(const PrimaryKey& key, int32_t requestId, const std::string& type,
                                 const std::string& value) {
  TierRecordView view;
  if (CheckTierRecord(value, tier_->keyFor(type, key), type, view) != TierRecordCheck::Valid) {
    tier_->recordRejected();
    return false;
  }
  Pt::SmartPointer<Cacheable> cacheable;
  try {
    cacheable = factories_->lookup(type)->decode(
        key, Buffer::Create(static_cast<int32_t>(view.payload.size()), view.payload.data()));
    if (cacheable && (cacheable->getType() != type || !cacheable->verify())) {
      cacheable = Pt::SmartPointer<Cacheable>();
    }
  } catch (...) {
    cacheable = Pt::SmartPointer<Cacheable>();
  }
  if (!cacheable) {
    tier_->recordRejected();
    return false;
  }
  tier_->recordHit();
  awaitFileRoom(*cacheable);
  insert(key, view.secondaryKey, cacheable, requestId);
  return true;
}

// What a miss leads to, when the request is still the key's current one.
void CacheManager::tierMissed(const PrimaryKey& key, int32_t requestId) {
  PendingList collected;
  std::unique_ptr<Pt::Exception> error;
  std::string nextType;
  {
    Pt::MutexLock index(indexLock_);
    const CacheSlot* slot = slots_.find(key);
    if (slot == nullptr || slot->requestId() != requestId || slot->state != SlotState::TierLookup) {
      return;
    }
    TierPlan& plan = tierPlans_.at(requestId);
    if (plan.factory) {
      try {
        return queueGeneration(key, requestId);
      } catch (...) {
        error = CaughtAsPtException();
        releaseSlot(key, collected);
      }
    } else if (++plan.typeIndex < factories_->size()) {
      nextType = (*(factories_->begin() + static_cast<std::ptrdiff_t>(plan.typeIndex)))->getType();
    } else {
      releaseSlot(key, collected);
    }
  }
  if (!nextType.empty()) return askTier(key, requestId, nextType);
  if (error) return DeliverFailed(collected, *error);
  DeliverCancelled(collected);
}

// The TierLookup slot of `requestId` turns Generating under the same id, so
// the receivers waiting on it wait on for the factory. Throws, changing
// nothing, when the request cannot be queued.
void CacheManager::queueGeneration(const PrimaryKey& key, int32_t requestId) {
  CacheSlot* slot = slots_.find(key);
  const TierPlan& plan = tierPlans_.at(requestId);
  WorkManager::queue(
      Pt::SmartPointer<WorkRequest>(
          new WorkRequestGenerate(this, plan.factory, key, plan.secondaryKey, id_, requestId)),
      slot->waiting.empty() ? WorkManager::kNormalPriority : WorkManager::kHighPriority);
  slot->state = SlotState::Generating;
  tierPlans_.erase(requestId);
  ++generated_;
}

}  // namespace Tarn
