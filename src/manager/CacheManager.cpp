#include "manager/CacheManager.h"

#include <algorithm>
#include <cstdlib>
#include <stdexcept>

#include "core/ConfigRules.h"

#include "core/ClientException.h"
#include "core/RaiseSites.h"
#include "pt/Platform.h"
#include "tarn/Exceptions.h"
#include "work/WorkManager.h"

namespace Tarn {
namespace {

std::atomic<int32_t> instanceCounter{0};

}  // namespace

CacheManager::PlatformUser::PlatformUser(const Config& config) {
  Pt::Config platform;
  platform.asyncFileIo = true;
  platform.ioEngine =
      PlatformIoEngine(EffectiveIoEngine(config.ioEngine, std::getenv(kIoEngineVariable)));
  Pt::PlatformInit(platform);
}

CacheManager::PlatformUser::~PlatformUser() {
  Pt::PlatformUninit();
}

CacheManager::CacheManager(const wchar_t* path, const Config& config,
                           const Pt::SmartPointer<FactoryManager>& factories,
                           const TierConfig& tierConfig)
    : platform_(config),
      id_(instanceCounter.fetch_add(1) + 1),
      factories_(factories),
      slots_(config.memoryTarget, config.memorySlack),
      tier_(tierConfig.tier ? std::make_unique<TierClient>(tierConfig) : nullptr) {
  WorkManager::start(config);
  try {
    fileManager_ =
        std::make_unique<FileManager>(path, static_cast<EntryReadSink*>(this), config, factories_);
  } catch (...) {
    WorkManager::stop(id_);
    throw;
  }
}

// The tier's lookups in flight call back first (by their deadline), so that
// none arrives later; then queued work goes, so that no generation starts on
// a dying manager; then every waiting receiver hears cancelled; then the file
// store waits for the file's outstanding requests and closes it.
CacheManager::~CacheManager() {
  if (tier_) tier_->close();
  WorkManager::stop(id_);
  purgeAll();
  Pt::MutexLock file(fileLock_);
  fileManager_.reset();
}

int32_t CacheManager::allocateSlot(const PrimaryKey& key) {
  int evicted = 0;
  const int32_t requestId = slots_.allocate(key, evicted);
  purged_ += evicted;
  return requestId;
}

void CacheManager::releaseSlot(const PrimaryKey& key, PendingList& out) {
  const SlotTable::Released released = slots_.release(key, out);
  // A generation that has not started is withdrawn; one that runs finds its
  // request id stale when it inserts. So is a tier answer waiting for a
  // worker; a lookup still out finds the id stale when it answers.
  if (released.found && released.state == SlotState::Generating) {
    WorkManager::remove(id_, released.requestId);
  } else if (released.found && released.state == SlotState::TierLookup) {
    tierPlans_.erase(released.requestId);
    WorkManager::remove(id_, released.requestId);
  }
}

// The object's verify(), size() and encode() are application code and may
// throw anything: then the object is not kept, the receivers waiting for the
// key hear failed() (with a non-Pt exception wrapped), and the exception
// passes on to the caller unchanged.
void CacheManager::awaitFileRoom(const Cacheable& cacheable) {
  // The bytes to be written are known only after encode(); the object's
  // data, when it has some, is the usual measure of them.
  const Pt::SmartPointer<Buffer>& data = cacheable.getData();
  fileManager_->awaitRoom(data ? static_cast<uint32_t>(std::max(data->length(), 0)) : 0);
}

void CacheManager::insert(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                          const Pt::SmartPointer<Cacheable>& cacheable, int32_t requestId) {
  if (!cacheable) throw std::invalid_argument("Cache::insert: no object");
  factories_->lookup(cacheable->getType());  // the file could not name an unknown type
  // The application's own insert waits for room in the file before any lock
  // is taken (a generation waits in its worker, awaitFileRoom); a read's
  // insert stores nothing new and runs on an I/O thread, which must never
  // wait for I/O.
  if (requestId == 0) awaitFileRoom(*cacheable);
  PendingList collected;
  Pt::UniqueLock index(indexLock_);
  CacheSlot* slot = slots_.find(primaryKey);
  bool generated = false;  // a generated object is offered to the shared tier
  if (slot != nullptr) {
    const bool pending = slot->state == SlotState::Reading ||
                         slot->state == SlotState::Generating ||
                         slot->state == SlotState::TierLookup;
    if (!pending || (requestId != 0 && requestId != slot->requestId())) return;
    generated = requestId != 0 && slot->state == SlotState::Generating;
  } else {
    if (requestId != 0) return;  // the request ended meanwhile
    allocateSlot(primaryKey);
    slot = slots_.find(primaryKey);
  }
  bool verified = false;
  try {
    verified = cacheable->verify();
    if (verified) {
      const SlotState was = slot->state;
      collected.swap(slot->waiting);
      slots_.store(*slot, cacheable);  // size() may throw; the slot then stays as it was
      if (was == SlotState::TierLookup) tierPlans_.erase(slot->requestId());
    }
  } catch (...) {
    failInsert(primaryKey, collected, index, *CaughtAsPtException());
    throw;
  }
  if (!verified) {
    return failInsert(primaryKey, collected, index,
                      ExCachableNotVerified(kInsertNotVerified.where));
  }
  ++inserted_;
  purged_ += slots_.trim();

  Pt::UniqueLock file(fileLock_);
  const bool stored = fileManager_->contains(primaryKey);
  index.unlock();
  Pt::SmartPointer<Buffer> encoded;
  if (!stored) encoded = storeInFile(primaryKey, secondaryKey, cacheable, collected, file);
  file.unlock();
  DeliverFound(collected, cacheable);
  // The bytes written to the file go to the tier as they are, after the
  // receivers have their object.
  if (generated && encoded && tier_) {
    tier_->publish(cacheable->getType(), primaryKey, secondaryKey, encoded->bytes(),
                   static_cast<uint32_t>(encoded->length()));
  }
}

// With the file lock held (it stays held). Writes the object's bytes and
// returns them (null when none were written); when encode() fails, the
// object leaves memory and `collected` hear failed() instead (and are
// emptied). A write the file store refuses is reported to `collected`
// instead of found(); the object stays in memory.
Pt::SmartPointer<Buffer> CacheManager::storeInFile(const PrimaryKey& key,
                                                   const SecondaryKey& secondaryKey,
                                                   const Pt::SmartPointer<Cacheable>& cacheable,
                                                   PendingList& collected, Pt::UniqueLock& file) {
  Pt::SmartPointer<Buffer> data;
  try {
    data = cacheable->encode(false);
  } catch (...) {
    abandonObject(key, cacheable, collected, file, *CaughtAsPtException());
    throw;
  }
  if (!data) {
    abandonObject(key, cacheable, collected, file, ExCachableNotVerified(kInsertNotVerified.where));
    return data;
  }
  try {
    fileManager_->write(key, secondaryKey, cacheable->getType(), data->length(), data->bytes());
  } catch (...) {
    const std::unique_ptr<Pt::Exception> error = CaughtAsPtException();
    PendingList told;
    told.swap(collected);
    file.unlock();
    DeliverFailed(told, *error);
    file.lock();
    if (dynamic_cast<const Pt::ExSystem*>(error.get()) == nullptr) throw;
    return Pt::SmartPointer<Buffer>();
  }
  return data;
}

// An object that cannot be stored leaves memory again; whoever waited for
// it is told why.
void CacheManager::failInsert(const PrimaryKey& key, PendingList& collected, Pt::UniqueLock& index,
                              const Pt::Exception& error) {
  releaseSlot(key, collected);
  index.unlock();
  DeliverFailed(collected, error);
  collected.clear();
}

// Called with the file lock held, which it gives up to take the index lock
// and takes again before returning. The key's slot is released only while it
// still holds `cacheable`: an erase or a newer insert may have come between.
void CacheManager::abandonObject(const PrimaryKey& key,
                                 const Pt::SmartPointer<Cacheable>& cacheable,
                                 PendingList& collected, Pt::UniqueLock& file,
                                 const Pt::Exception& error) {
  file.unlock();
  {
    Pt::MutexLock index(indexLock_);
    const CacheSlot* slot = slots_.find(key);
    if (slot != nullptr && slot->cacheable.get() == cacheable.get()) releaseSlot(key, collected);
  }
  PendingList told;
  told.swap(collected);
  DeliverFailed(told, error);
  file.lock();
}

void CacheManager::erase(const PrimaryKey& primaryKey) {
  PendingList collected;
  Pt::UniqueLock index(indexLock_);
  releaseSlot(primaryKey, collected);
  Pt::UniqueLock file(fileLock_);
  index.unlock();
  try {
    if (fileManager_->erase(primaryKey)) ++erased_;
  } catch (const Pt::ExSystem& error) {
    file.unlock();
    DeliverFailed(collected, error);
    return;
  }
  file.unlock();
  DeliverCancelled(collected);
}

// As erase, for every key at once: memory and file are emptied under the
// same hand-over of locks, so an insert lands either wholly before (and is
// erased) or wholly after (and stays). The wait and the cut happen with no
// manager lock held: reads finishing meanwhile insert what they read.
void CacheManager::clear() {
  PendingList collected;
  int32_t erased = 0;
  {
    Pt::UniqueLock index(indexLock_);
    PrimaryKey key{};
    while (slots_.anyKey(key)) releaseSlot(key, collected);
    Pt::UniqueLock file(fileLock_);
    index.unlock();
    try {
      erased = fileManager_->eraseAll();
    } catch (...) {
      file.unlock();
      DeliverCancelled(collected);
      throw;
    }
  }
  erased_ += erased;
  DeliverCancelled(collected);
  fileManager_->shrinkIfEmpty();
}

void CacheManager::purge(const PrimaryKey& primaryKey) {
  PendingList collected;
  {
    Pt::MutexLock index(indexLock_);
    releaseSlot(primaryKey, collected);
    ++purged_;
  }
  DeliverCancelled(collected);
}

void CacheManager::cancel(int32_t requestId) {
  PendingList collected;
  {
    Pt::MutexLock index(indexLock_);
    CacheSlot* slot = slots_.slotAt(requestId);
    if (slot == nullptr) return;
    // The generation goes on, behind all other work; its result is cached.
    if (slot->state == SlotState::Generating) {
      WorkManager::reprioritize(id_, requestId, WorkManager::kLowPriority);
    }
    if (!slot->waiting.empty() && slot->waiting.front().requestId == requestId) {
      collected.swap(slot->waiting);
    }
  }
  DeliverCancelled(collected);
}

void CacheManager::cancelAll() {
  PendingList collected;
  {
    Pt::MutexLock index(indexLock_);
    slots_.forEachIndexed([&](CacheSlot& slot) {
      for (PendingReceiver& pending : slot.waiting) collected.push_back(std::move(pending));
      slot.waiting.clear();
    });
  }
  DeliverCancelled(collected);
}

void CacheManager::failPending(const PrimaryKey& primaryKey, int32_t requestId,
                               const Pt::Exception& error) {
  PendingList collected;
  {
    Pt::MutexLock index(indexLock_);
    const CacheSlot* slot = slots_.find(primaryKey);
    if (slot == nullptr || slot->requestId() != requestId) return;
    if (slot->state != SlotState::Reading && slot->state != SlotState::Generating &&
        slot->state != SlotState::TierLookup) {
      return;
    }
    releaseSlot(primaryKey, collected);
  }
  DeliverFailed(collected, error);
}

void CacheManager::purgeAll() {
  PendingList collected;
  {
    Pt::MutexLock index(indexLock_);
    PrimaryKey key{};
    while (slots_.anyKey(key)) {
      releaseSlot(key, collected);
      ++purged_;
    }
  }
  DeliverCancelled(collected);
}

bool CacheManager::isCached(const PrimaryKey& primaryKey) {
  {
    Pt::MutexLock index(indexLock_);
    if (slots_.find(primaryKey) != nullptr) return true;
  }
  return fileManager_->contains(primaryKey);
}

Statistics& CacheManager::statistics(Statistics& statistics) {
  Pt::MutexLock index(indexLock_);
  statistics.entriesInMemory = static_cast<int32_t>(slots_.inMemoryCount());
  statistics.inserted = inserted_;
  statistics.purged = purged_;
  statistics.erased = erased_;
  statistics.memoryHits = memoryHits_;
  statistics.reserved5 = 0;
  statistics.fileReads = fileReads_;
  statistics.generated = generated_;
  statistics.memoryInUse = slots_.memoryInUse();
  statistics.reserved9 = 0;
  statistics.fileSize = static_cast<int32_t>(fileManager_->fileEnd());
  statistics.fileEntries = fileManager_->entryCount();
  return statistics;
}

TierStatistics CacheManager::tierStatistics() const {
  return tier_ ? tier_->statistics() : TierStatistics();
}

std::string CacheManager::checkInvariants() {
  Pt::MutexLock index(indexLock_);
  std::string broken = slots_.checkInvariants();
  if (!broken.empty()) return broken;
  std::vector<int32_t> lookups;
  slots_.forEachIndexed([&](const CacheSlot& slot) {
    if (slot.state == SlotState::TierLookup) lookups.push_back(slot.requestId());
  });
  bool planless = false;
  for (const int32_t requestId : lookups) planless = planless || tierPlans_.count(requestId) == 0;
  if (planless || lookups.size() != tierPlans_.size()) {
    return "the tier lookups in progress and their plans do not match";
  }
  return {};
}

}  // namespace Tarn
