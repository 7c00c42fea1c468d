// SlotTable: the cache manager's in-memory index.
//
// One slot per primary key that is held in memory or has a request in
// progress (a file read, a shared tier lookup or a generation). A slot is found by key through
// `index_` (a hash map), or directly by request id: an id is the slot's generation (1 to
// 65535) times 65536 plus its position, so it names one use of one slot and
// is never 0. All receivers waiting on one slot share its request id.
//
// Memory is bounded by two numbers: nothing is evicted while memoryInUse stays
// at or below target + slack; once eviction starts it takes least recently
// used objects out until memoryInUse is at most target (hysteresis). An
// evicted object leaves memory only; the cache file keeps it.
//
// The table holds at most 65,536 slots at once (the id has 16 bits for the
// position). When every slot is taken, allocate() evicts least recently used
// in-memory objects to make room; when none can be evicted it throws and
// changes nothing.
//
// Invariants (checkInvariants() walks the whole table, O(n); release() and
// store() call it in debug builds once per as many changes as there are slots):
// - a key is in `index_` exactly when its slot is not Free, and an indexed
//   slot is InMemory, Reading, Generating or TierLookup outside allocate's
//   caller;
// - a slot's cacheable is set exactly when its key is in `lru_`, and
//   memoryInUse is the sum of their recorded sizes;
// - every waiting receiver carries its slot's current request id; an
//   InMemory slot has none waiting;
// - `freeSlots_` holds every Free slot's position once (a stack: the most
//   recently freed slot is reused first).
//
// Not thread-safe: the cache manager's index lock guards it. The only client
// code it runs is size() of an object entering memory (recorded then, so that
// leaving memory asks nothing that could throw), and the destructor of an
// object whose last reference it drops.
#pragma once

#include <cstdint>
#include <list>
#include <string>
#include <unordered_map>
#include <vector>

#include "core/KeyHash.h"
#include "pt/SmartPointer.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/CacheableReceiver.h"

namespace Tarn {

enum class SlotState : int32_t {
  Free = 0,
  Allocated = 1,
  InMemory = 2,
  Reading = 3,
  Generating = 4,
  TierLookup = 5  // the shared tier is being asked; a miss reads nothing more
};

struct PendingReceiver {
  int32_t requestId = 0;
  PrimaryKey key{};
  Pt::SmartPointer<CacheableReceiver> receiver;
};
using PendingList = std::vector<PendingReceiver>;

struct CacheSlot {
  PrimaryKey key{};
  Pt::SmartPointer<Cacheable> cacheable;
  int32_t size = 0;  // cacheable's size() when it was stored
  uint32_t index = 0xFFFFFFFF;
  uint32_t generation = 0;
  std::list<PrimaryKey>::iterator lruPosition;  // valid while cacheable is set
  PendingList waiting;
  SlotState state = SlotState::Free;

  int32_t requestId() const { return static_cast<int32_t>(generation * 65536u + index); }
};

class SlotTable {
 public:
  static constexpr uint32_t kMaxSlots = 65536;
  static constexpr uint32_t kMaxGeneration = 65535;

  SlotTable(int32_t memoryTarget, int32_t memorySlack);

  // Takes a slot for `key`, which must not be in the table, in state
  // Allocated, and returns its request id. When the table is full, evicts
  // least recently used objects first and adds their number to `evicted`.
  // Throws Pt::Exception (the table is full of requests in progress) and
  // then changes nothing.
  int32_t allocate(const PrimaryKey& key, int& evicted);

  // The slot of `key`, or null.
  CacheSlot* find(const PrimaryKey& key);
  // The slot at the position of `requestId` (whatever its generation), or
  // null when the position is beyond the table.
  CacheSlot* slotAt(int32_t requestId);

  struct Released {
    bool found = false;
    SlotState state = SlotState::Free;  // the state it had
    int32_t requestId = 0;
  };
  // Frees `key`'s slot: its waiting receivers move to the end of `out`, its
  // object leaves memory. The generation changes only at the slot's next use.
  Released release(const PrimaryKey& key, PendingList& out);

  // Puts `cacheable` (already verified) in `slot`, at the back of the LRU
  // order, adds its size() and sets the state InMemory. When size() throws,
  // the exception passes through and nothing has changed.
  void store(CacheSlot& slot, const Pt::SmartPointer<Cacheable>& cacheable);
  // Moves an in-memory slot's key to the back of the LRU order.
  void touch(CacheSlot& slot);
  // Evicts while over the bounds (see above); returns how many were evicted.
  int trim();

  // Every indexed slot, in no particular order.
  template <class Visit>
  void forEachIndexed(Visit visit) {
    for (const auto& [key, requestId] : index_) visit(slots_[requestId & 0xFFFF]);
  }
  // Some indexed key; false when the table is empty.
  bool anyKey(PrimaryKey& key) const;

  size_t inMemoryCount() const { return lru_.size(); }
  int32_t memoryInUse() const { return memoryInUse_; }
  size_t indexedCount() const { return index_.size(); }
  size_t slotCount() const { return slots_.size(); }
  // Returns an empty string when every invariant above holds, else a
  // description of the first one broken. Works in every build, so stress
  // tests can call it in release builds too. Not while a slot is Allocated.
  std::string checkInvariants() const;

 private:
  void appendBlankSlot();
  bool overBound() const;
  void evictLeastRecentlyUsed();
  void checkAfterChange();

  const int32_t memoryTarget_;
  const int32_t memorySlack_;
  int32_t memoryInUse_ = 0;
  std::list<PrimaryKey> lru_;
  std::unordered_map<PrimaryKey, uint32_t, SeededKeyHash> index_;
  std::vector<uint32_t> freeSlots_;
  std::vector<CacheSlot> slots_;
  [[maybe_unused]] size_t changesSinceCheck_ = 0;  // drives the debug builds' periodic walk
};

}  // namespace Tarn
