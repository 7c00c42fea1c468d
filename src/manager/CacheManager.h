// CacheManager: the spine of one Cache.
//
// It owns the in-memory index (SlotTable), the file store (FileManager) and a
// reference to the factories, and is one user of the process-wide work
// manager. Every operation that ends requests collects their receivers under
// the index lock and calls them after releasing every lock. A find whose
// file read the device served at once from the page cache completes that
// read on its own thread after releasing both locks: decode, the insert and
// found() run there, as for a memory hit.
//
// Locks, outer first: `indexLock_`, then `fileLock_` (taken while the index
// lock is still held, after which the index lock is released: a thread that
// holds the file lock never waits for the index lock), then the file store's
// own lock or the work manager's. Client code that runs under a manager lock:
// verify, size and encode of the object being inserted, the destructor of an
// object leaving memory, and factories' getType. Whatever the first three
// throw ends the insert's waiting receivers with failed() and frees the slot.
//
// Thread-safety: every public operation may be called from any thread, and
// from inside receivers' callbacks.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/FactoryManager.h"
#include "manager/SlotTable.h"
#include "pt/Mutex.h"
#include "store/EntryReadSink.h"
#include "store/FileManager.h"
#include "tarn/Config.h"
#include "tarn/Statistics.h"
#include "tarn/TierConfig.h"
#include "tier/TierClient.h"

namespace Tarn {

class CacheManager final : private EntryReadSink {
 public:
  // Opens the cache file; on a throw nothing of the manager remains and the
  // process is as before (work manager and platform registrations undone).
  // A `tierConfig` with a tier adds the shared tier to the lookups.
  CacheManager(const wchar_t* path, const Config& config,
               const Pt::SmartPointer<FactoryManager>& factories,
               const TierConfig& tierConfig = TierConfig());
  ~CacheManager();
  CacheManager(const CacheManager&) = delete;
  CacheManager& operator=(const CacheManager&) = delete;

  // Holds the caller back, with no lock of this manager held, while the file
  // has no room for `cacheable` (FileManager::awaitRoom). Never call it on
  // an I/O thread.
  void awaitFileRoom(const Cacheable& cacheable);
  // `requestId` 0 inserts for the application (after awaitFileRoom); a read
  // or generation passes the id of the request it completes, and its object
  // is taken only while that request is still the key's current one.
  void insert(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
              const Pt::SmartPointer<Cacheable>& cacheable, int32_t requestId);
  int32_t find(const PrimaryKey& primaryKey, const Pt::SmartPointer<CacheableReceiver>& receiver);
  int32_t findCreate(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                     const std::string& type, const Pt::SmartPointer<CacheableReceiver>& receiver);
  void erase(const PrimaryKey& primaryKey);
  void purge(const PrimaryKey& primaryKey);
  // Every object leaves memory (waiting receivers hear cancelled) and every
  // entry the file; then the file is cut back when nothing is left in it.
  void clear();
  void cancel(int32_t requestId);
  void cancelAll();
  // Ends the key's read or generation `requestId` with `error`: its receivers
  // hear failed() and the slot is released. Nothing happens when that request
  // has already ended (the key's slot is gone, holds an object, or serves a
  // newer request), so a failure reported twice is told once.
  void failPending(const PrimaryKey& primaryKey, int32_t requestId, const Pt::Exception& error);
  bool isCached(const PrimaryKey& primaryKey);
  Statistics& statistics(Statistics& statistics);
  TierStatistics tierStatistics() const;
  // How a shared tier lookup of `primaryKey` for `requestId` under `type`
  // ended; `value` holds the bytes of a Hit. Runs on a worker thread (or
  // on the thread that asked, when the tier could not be asked): a valid
  // value is decoded and inserted, anything else goes on as a miss.
  void tierAnswered(const PrimaryKey& primaryKey, int32_t requestId, const std::string& type,
                    TierLookupStatus status, const std::string& value);

  FileManager& fileManager() { return *fileManager_; }
  int32_t id() const { return id_; }
  // The index's invariants and the tier plans': empty when they hold, else
  // what is broken.
  // Works in every build.
  std::string checkInvariants();

 private:
  // What the file store reads back for a request completes it like a
  // generated object; a failed read fails it.
  void entryRead(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                 const Pt::SmartPointer<Cacheable>& cacheable, int32_t requestId) override {
    insert(primaryKey, secondaryKey, cacheable, requestId);
  }
  void entryReadFailed(const PrimaryKey& primaryKey, int32_t requestId,
                       const Pt::Exception& error) override {
    failPending(primaryKey, requestId, error);
  }

  // The steps below receive the caller's guards and release them on the way
  // (a hand-over the compile-time lock analysis cannot follow through a
  // reference, hence PT_NO_THREAD_SAFETY_ANALYSIS on them).
  // `create` is set for a findCreate: the type to generate and its key.
  struct CreateWish {
    const std::string& type;
    const SecondaryKey& secondaryKey;
  };
  int32_t findInMemory(const PrimaryKey& key, const Pt::SmartPointer<CacheableReceiver>& receiver,
                       const CreateWish* create,
                       Pt::UniqueLock& index) PT_NO_THREAD_SAFETY_ANALYSIS;
  int32_t findInFile(const PrimaryKey& key, const Pt::SmartPointer<CacheableReceiver>& receiver,
                     Pt::UniqueLock& index, Pt::UniqueLock& file) PT_NO_THREAD_SAFETY_ANALYSIS;
  int32_t startGeneration(const PrimaryKey& key, const SecondaryKey& secondaryKey,
                          const Pt::SmartPointer<CacheableFactory>& factory,
                          const Pt::SmartPointer<CacheableReceiver>& receiver)
      PT_REQUIRES(indexLock_);
  int32_t allocateSlot(const PrimaryKey& key) PT_REQUIRES(indexLock_);

  // The shared tier's part of the lookups (CacheManagerTier.cpp). A slot in
  // state TierLookup has a plan saying what a miss leads to: a generation
  // (findCreate wished one) or the next type to ask (find asks under every
  // type in the factories' order), else cancelled.
  struct TierPlan {
    SecondaryKey secondaryKey{};
    Pt::SmartPointer<CacheableFactory> factory;  // set: a miss generates
    size_t typeIndex = 0;                        // find: the type being asked
  };
  int32_t startTierLookup(const PrimaryKey& key, const SecondaryKey& secondaryKey,
                          const Pt::SmartPointer<CacheableFactory>& factory,
                          const Pt::SmartPointer<CacheableReceiver>& receiver,
                          Pt::UniqueLock& index, Pt::UniqueLock& file) PT_NO_THREAD_SAFETY_ANALYSIS;
  void joinTierLookup(CacheSlot& slot, const CreateWish& create) PT_REQUIRES(indexLock_);
  void askTier(const PrimaryKey& key, int32_t requestId, const std::string& type);
  bool takeTierValue(const PrimaryKey& key, int32_t requestId, const std::string& type,
                     const std::string& value);
  void tierMissed(const PrimaryKey& key, int32_t requestId);
  void queueGeneration(const PrimaryKey& key, int32_t requestId) PT_REQUIRES(indexLock_);
  void releaseSlot(const PrimaryKey& key, PendingList& out) PT_REQUIRES(indexLock_);
  void failInsert(const PrimaryKey& key, PendingList& collected, Pt::UniqueLock& index,
                  const Pt::Exception& error) PT_NO_THREAD_SAFETY_ANALYSIS;
  Pt::SmartPointer<Buffer> storeInFile(const PrimaryKey& key, const SecondaryKey& secondaryKey,
                                       const Pt::SmartPointer<Cacheable>& cacheable,
                                       PendingList& collected,
                                       Pt::UniqueLock& file) PT_NO_THREAD_SAFETY_ANALYSIS;
  void abandonObject(const PrimaryKey& key, const Pt::SmartPointer<Cacheable>& cacheable,
                     PendingList& collected, Pt::UniqueLock& file,
                     const Pt::Exception& error) PT_NO_THREAD_SAFETY_ANALYSIS;
  void purgeAll();

  // Holds one registration with the platform for the manager's life, so
  // that every way out of the constructor gives it back.
  struct PlatformUser {
    explicit PlatformUser(const Config& config);
    ~PlatformUser();
  };

  PlatformUser platform_;
  const int32_t id_;
  const Pt::SmartPointer<FactoryManager> factories_;
  Pt::Mutex indexLock_;
  Pt::Mutex fileLock_;
  SlotTable slots_ PT_GUARDED_BY(indexLock_);  // the slot table and its LRU list
  // Invariant (checkInvariants): exactly one plan per slot in state
  // TierLookup, under its current request id.
  std::unordered_map<int32_t, TierPlan> tierPlans_ PT_GUARDED_BY(indexLock_);
  std::unique_ptr<FileManager> fileManager_;
  // Null for a cache without a shared tier: then no tier code runs at all.
  std::unique_ptr<TierClient> tier_;

  // Counters of the statistics; atomic so that a count made after a lock
  // was released is never lost.
  std::atomic<int32_t> inserted_{0};
  std::atomic<int32_t> purged_{0};
  std::atomic<int32_t> erased_{0};
  int32_t memoryHits_ PT_GUARDED_BY(indexLock_) = 0;  // counted with the lock held anyway
  std::atomic<int32_t> fileReads_{0};
  std::atomic<int32_t> generated_{0};
};

// Calls each receiver of `receivers` once, with its own request id and key.
// A receiver that throws does not keep the others from being told: its
// exception is posted.
void DeliverFound(const PendingList& receivers, const Pt::SmartPointer<Cacheable>& cacheable);
// The same for a single receiver, without building a list.
void DeliverFoundTo(int32_t requestId, const PrimaryKey& key, CacheableReceiver& receiver,
                    const Pt::SmartPointer<Cacheable>& cacheable);
void DeliverCancelled(const PendingList& receivers);
void DeliverFailed(const PendingList& receivers, const Pt::Exception& error);

}  // namespace Tarn
