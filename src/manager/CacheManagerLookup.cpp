// Lookups: from memory, by joining a request in progress, from the file, from
// the shared tier when there is one, or by generation. Requests for one key
// merge: while a read, a tier lookup or a generation is in progress, every
// further lookup waits on the same slot and shares its id.
#include "core/ClientException.h"
#include "manager/CacheManager.h"
#include "manager/WorkRequestGenerate.h"
#include "work/WorkManager.h"

namespace Tarn {

int32_t CacheManager::find(const PrimaryKey& primaryKey,
                           const Pt::SmartPointer<CacheableReceiver>& receiver) {
  Pt::UniqueLock index(indexLock_);
  if (const int32_t requestId = findInMemory(primaryKey, receiver, nullptr, index)) {
    return requestId;
  }
  Pt::UniqueLock file(fileLock_);
  if (const int32_t requestId = findInFile(primaryKey, receiver, index, file)) return requestId;
  if (!tier_) return 0;
  return startTierLookup(primaryKey, SecondaryKey{}, Pt::SmartPointer<CacheableFactory>(), receiver,
                         index, file);
}

int32_t CacheManager::findCreate(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                                 const std::string& type,
                                 const Pt::SmartPointer<CacheableReceiver>& receiver) {
  const CreateWish create{type, secondaryKey};
  Pt::UniqueLock index(indexLock_);
  if (const int32_t requestId = findInMemory(primaryKey, receiver, &create, index)) {
    return requestId;
  }
  Pt::UniqueLock file(fileLock_);
  if (const int32_t requestId = findInFile(primaryKey, receiver, index, file)) return requestId;
  // The factory is found before any slot is taken: an unknown type reaches
  // the caller as an exception and leaves nothing behind to wait on.
  const Pt::SmartPointer<CacheableFactory>& factory = factories_->lookup(type);
  if (tier_) return startTierLookup(primaryKey, secondaryKey, factory, receiver, index, file);
  return startGeneration(primaryKey, secondaryKey, factory, receiver);
}

// With the index lock held. Returns 0 (lock still held) when the key has no
// slot; otherwise serves or joins it and releases the lock. A findCreate
// joining a tier lookup makes sure a miss generates (which may throw
// ExFactoryClassNotFound, changing nothing).
int32_t CacheManager::findInMemory(const PrimaryKey& key,
                                   const Pt::SmartPointer<CacheableReceiver>& receiver,
                                   const CreateWish* create, Pt::UniqueLock& index) {
  CacheSlot* slot = slots_.find(key);
  if (slot == nullptr) return 0;
  ++memoryHits_;
  const int32_t requestId = slot->requestId();
  if (slot->cacheable) {
    slots_.touch(*slot);
    const Pt::SmartPointer<Cacheable> cacheable = slot->cacheable;
    index.unlock();
    DeliverFoundTo(requestId, key, *receiver, cacheable);  // no list: a hit allocates nothing
    return requestId;
  }
  if (create != nullptr && slot->state == SlotState::TierLookup) joinTierLookup(*slot, *create);
  slot->waiting.push_back({requestId, key, receiver});
  // Somebody waits now: the generation goes before ordinary work.
  if (slot->state == SlotState::Generating) {
    WorkManager::reprioritize(id_, requestId, WorkManager::kHighPriority);
  }
  index.unlock();
  return requestId;
}

// With both locks held and the key not indexed. Returns 0 (locks still held)
// when the file does not hold the key; otherwise starts its read, releasing
// both locks; a read that the device served at once from the page cache is
// completed after that, on this thread. Racing lookups start one read: the
// second finds the slot.
int32_t CacheManager::findInFile(const PrimaryKey& key,
                                 const Pt::SmartPointer<CacheableReceiver>& receiver,
                                 Pt::UniqueLock& index, Pt::UniqueLock& file) {
  if (!fileManager_->contains(key)) return 0;
  const int32_t requestId = allocateSlot(key);
  CacheSlot* slot = slots_.find(key);
  slot->waiting.push_back({requestId, key, receiver});
  slot->state = SlotState::Reading;
  index.unlock();
  FileManager::CompletedRead completed;
  try {
    completed = fileManager_->read(key, requestId);
  } catch (...) {
    // The read was never queued (a damaged entry, a type without a factory,
    // a refused request): whoever joined meanwhile hears failed() too.
    const std::unique_ptr<Pt::Exception> error = CaughtAsPtException();
    file.unlock();
    failPending(key, requestId, *error);
    return requestId;
  }
  file.unlock();
  ++fileReads_;
  // A read served from the page cache completes here, with no lock held:
  // decode, the insert and the receivers' found run on this thread.
  completed.complete();
  return requestId;
}

// With both locks held; releases them.
int32_t CacheManager::startGeneration(const PrimaryKey& key, const SecondaryKey& secondaryKey,
                                      const Pt::SmartPointer<CacheableFactory>& factory,
                                      const Pt::SmartPointer<CacheableReceiver>& receiver) {
  const int32_t requestId = allocateSlot(key);
  CacheSlot* slot = slots_.find(key);
  slot->waiting.push_back({requestId, key, receiver});
  slot->state = SlotState::Generating;
  try {
    WorkManager::queue(Pt::SmartPointer<WorkRequest>(new WorkRequestGenerate(
                           this, factory, key, secondaryKey, id_, requestId)),
                       WorkManager::kNormalPriority);
  } catch (...) {
    // Nobody else can have joined (the index lock is held): the caller hears
    // the exception and its receiver is not called.
    PendingList dropped;
    releaseSlot(key, dropped);
    throw;
  }
  ++generated_;
  return requestId;
}

}  // namespace Tarn
