#include "manager/SlotTable.h"

#include <algorithm>
#include <cassert>
#include <cstdio>
#include <iterator>
#include <string>
#include <utility>

#include "core/RaiseSites.h"
#include "pt/Exception.h"

namespace Tarn {

namespace {

// The slot's position is the low 16 bits of a request id, whatever the sign
// the generation in the high bits gives the id.
uint32_t PositionOf(uint32_t requestId) {
  return requestId & 0xFFFFu;
}

// Generations run 1..65535 and then start over at 1: 0 marks a slot never
// used, and a request id with generation 0 could be 0.
uint32_t NextGeneration(uint32_t generation) {
  return generation >= SlotTable::kMaxGeneration ? 1 : generation + 1;
}

// memoryInUse is a 32-bit count of client-supplied sizes, which may add up
// past its range. It wraps rather than overflow (undefined behaviour), and
// subtracting the same sizes later undoes the wrap exactly.
int32_t Wrap(int64_t value) {
  return static_cast<int32_t>(static_cast<uint32_t>(value));
}

using Index = std::unordered_map<PrimaryKey, uint32_t, SeededKeyHash>;

bool UsedGeneration(uint32_t generation) {
  return generation >= 1 && generation <= SlotTable::kMaxGeneration;
}

std::string Broken(const char* what, uint32_t position) {
  return std::string(what) + " (slot " + std::to_string(position) + ")";
}

std::string CheckFreeSlot(const CacheSlot& slot, uint32_t position, const Index& index) {
  if (slot.cacheable || !slot.waiting.empty())
    return Broken("a free slot holds something", position);
  const bool blank = slot.generation == 0 && slot.index == 0xFFFFFFFF && slot.key.length == 0;
  if (!blank && !(UsedGeneration(slot.generation) && slot.index == position)) {
    return Broken("a free slot has a wrong generation or position", position);
  }
  // A freed slot keeps its last key, which may since have gone to another slot.
  const auto found = index.find(slot.key);
  if (found != index.end() && PositionOf(found->second) == position) {
    return Broken("a free slot is still indexed", position);
  }
  return {};
}

std::string CheckIndexedSlot(const CacheSlot& slot, uint32_t position, const Index& index) {
  if (slot.state != SlotState::InMemory && slot.state != SlotState::Reading &&
      slot.state != SlotState::Generating && slot.state != SlotState::TierLookup) {
    return Broken("an indexed slot is neither in memory nor pending", position);
  }
  if (slot.index != position || !UsedGeneration(slot.generation)) {
    return Broken("an indexed slot has a wrong generation or position", position);
  }
  const auto found = index.find(slot.key);
  if (found == index.end() || found->second != static_cast<uint32_t>(slot.requestId())) {
    return Broken("an indexed slot's key does not lead to its current id", position);
  }
  if (bool(slot.cacheable) != (slot.state == SlotState::InMemory)) {
    return Broken("a slot's object does not match its state", position);
  }
  if (slot.cacheable && !(*slot.lruPosition == slot.key)) {
    return Broken("a slot's LRU position holds another key", position);
  }
  if (slot.state == SlotState::InMemory && !slot.waiting.empty()) {
    return Broken("an in-memory slot has receivers waiting", position);
  }
  for (const PendingReceiver& pending : slot.waiting) {
    if (pending.requestId != slot.requestId() || !(pending.key == slot.key) || !pending.receiver) {
      return Broken("a waiting receiver carries another id or key", position);
    }
  }
  return {};
}

}  // namespace

SlotTable::SlotTable(int32_t memoryTarget, int32_t memorySlack)
    : memoryTarget_(memoryTarget), memorySlack_(memorySlack) {
  slots_.reserve(8192);
  freeSlots_.reserve(8192);
}

int32_t SlotTable::allocate(const PrimaryKey& key, int& evicted) {
  assert(index_.find(key) == index_.end());
  if (freeSlots_.empty() && slots_.size() < kMaxSlots) appendBlankSlot();
  // Every slot is taken: evict least recently used in-memory objects. A slot
  // with a read or a generation in progress cannot be taken from its key.
  while (freeSlots_.empty()) {
    if (lru_.empty()) {
      throw Pt::Exception(Pt::ExReason{kSlotTableFullMessage, kSlotTableFull.where, 1});
    }
    evictLeastRecentlyUsed();
    ++evicted;
  }

  const uint32_t position = freeSlots_.back();
  CacheSlot& slot = slots_[position];
  const uint32_t generation = NextGeneration(slot.generation);
  const uint32_t requestId = generation * 65536u + position;
  // The only step below that can fail; the slot stays Free and on the stack
  // until it has succeeded.
  index_.emplace(key, requestId);
  freeSlots_.pop_back();
  slot.key = key;
  slot.index = position;
  slot.generation = generation;
  slot.state = SlotState::Allocated;
  return static_cast<int32_t>(requestId);
}

void SlotTable::appendBlankSlot() {
  // release() pushes onto freeSlots_ and must not fail for want of memory,
  // so the stack always has room for every slot there is.
  if (freeSlots_.capacity() <= slots_.size()) {
    freeSlots_.reserve(std::min<size_t>(2 * freeSlots_.capacity(), kMaxSlots));
  }
  slots_.emplace_back();
  freeSlots_.push_back(static_cast<uint32_t>(slots_.size() - 1));
}

CacheSlot* SlotTable::find(const PrimaryKey& key) {
  const auto found = index_.find(key);
  if (found == index_.end()) return nullptr;
  return slotAt(static_cast<int32_t>(found->second));
}

CacheSlot* SlotTable::slotAt(int32_t requestId) {
  const uint32_t position = PositionOf(static_cast<uint32_t>(requestId));
  return position < slots_.size() ? &slots_[position] : nullptr;
}

SlotTable::Released SlotTable::release(const PrimaryKey& key, PendingList& out) {
  const auto found = index_.find(key);
  if (found == index_.end()) return {};
  const uint32_t position = PositionOf(found->second);
  CacheSlot& slot = slots_[position];
  const Released released{true, slot.state, slot.requestId()};

  // The only step that can fail, so it goes first.
  out.insert(out.end(), std::make_move_iterator(slot.waiting.begin()),
             std::make_move_iterator(slot.waiting.end()));
  slot.waiting.clear();
  // Take the object out (the move clears the field) but keep it alive until
  // the bookkeeping is done: dropping the last reference runs client code.
  Pt::SmartPointer<Cacheable> cacheable = std::move(slot.cacheable);
  slot.state = SlotState::Free;
  index_.erase(found);
  freeSlots_.push_back(position);
  if (cacheable) {
    lru_.erase(slot.lruPosition);
    memoryInUse_ = Wrap(int64_t{memoryInUse_} - slot.size);
  }
  checkAfterChange();
  return released;
}

void SlotTable::store(CacheSlot& slot, const Pt::SmartPointer<Cacheable>& cacheable) {
  assert(slot.state != SlotState::Free && slot.state != SlotState::InMemory);
  assert(!slot.cacheable && slot.waiting.empty() && cacheable);
  // Ask the size and grow the list before changing anything, since either
  // may throw.
  const int32_t size = cacheable->size();
  lru_.push_back(slot.key);
  slot.cacheable = cacheable;
  slot.size = size;
  slot.lruPosition = std::prev(lru_.end());
  memoryInUse_ = Wrap(int64_t{memoryInUse_} + size);
  slot.state = SlotState::InMemory;
  checkAfterChange();
}

void SlotTable::touch(CacheSlot& slot) {
  assert(slot.cacheable);
  // A slot without an object has no place in the order to move.
  if (!slot.cacheable) return;
  // Relinking the node keeps lruPosition valid and cannot fail.
  lru_.splice(lru_.end(), lru_, slot.lruPosition);
}

int SlotTable::trim() {
  if (!overBound()) return 0;
  int evicted = 0;
  // Once started, go down to the target (not target + slack), so that the
  // next few inserts do not each evict again.
  while (memoryInUse_ > memoryTarget_ && !lru_.empty()) {
    evictLeastRecentlyUsed();
    ++evicted;
  }
  return evicted;
}

bool SlotTable::overBound() const {
  // In 64 bits: a large target plus a large slack must not wrap negative and
  // make everything look over the bound.
  const int64_t bound = int64_t{memoryTarget_} + memorySlack_;
  return memoryInUse_ > bound && memoryInUse_ > memoryTarget_;
}

void SlotTable::evictLeastRecentlyUsed() {
  const PrimaryKey key = lru_.front();
  PendingList none;
  [[maybe_unused]] const Released released = release(key, none);
  assert(released.found && released.state == SlotState::InMemory);
  // An in-memory object has nobody waiting on it, so nobody is left uncalled.
  assert(none.empty());
}

bool SlotTable::anyKey(PrimaryKey& key) const {
  if (index_.empty()) return false;
  key = index_.begin()->first;
  return true;
}

std::string SlotTable::checkInvariants() const {
  if (slots_.size() > kMaxSlots || freeSlots_.capacity() < slots_.size()) {
    return "more slots than the table allows, or no room to free them all";
  }
  size_t freeCount = 0;
  size_t heldCount = 0;
  int64_t memory = 0;
  for (uint32_t position = 0; position < slots_.size(); ++position) {
    const CacheSlot& slot = slots_[position];
    const bool isFree = slot.state == SlotState::Free;
    std::string broken =
        isFree ? CheckFreeSlot(slot, position, index_) : CheckIndexedSlot(slot, position, index_);
    if (!broken.empty()) return broken;
    freeCount += isFree;
    if (slot.cacheable) {
      ++heldCount;
      memory += slot.size;
    }
  }
  // Each indexed slot found its own entry, so equal counts leave no stray one.
  if (index_.size() + freeCount != slots_.size() || freeSlots_.size() != freeCount) {
    return "the index, the free stack and the free slots do not add up";
  }
  std::vector<bool> stacked(slots_.size());
  for (const uint32_t position : freeSlots_) {
    if (position >= slots_.size() || slots_[position].state != SlotState::Free) {
      return Broken("the free stack holds a slot in use", position);
    }
    if (stacked[position]) return Broken("the free stack holds a slot twice", position);
    stacked[position] = true;
  }
  if (lru_.size() != heldCount) return "the LRU list and the objects in memory differ in number";
  if (Wrap(memory) != memoryInUse_) {
    return "memoryInUse is " + std::to_string(memoryInUse_) + ", the objects hold " +
           std::to_string(memory);
  }
  for (const PrimaryKey& key : lru_) {
    const auto found = index_.find(key);
    if (found == index_.end()) return "the LRU list holds a key that is not indexed";
    if (&*slots_[PositionOf(found->second)].lruPosition != &key) {
      return Broken("a slot's LRU position is not its key's node", PositionOf(found->second));
    }
  }
  return {};
}

// A full walk after every change would make each change O(n); one walk per
// as many changes as there are slots keeps it O(1) amortised and still checks
// small tables, as tests build them, after every change.
void SlotTable::checkAfterChange() {
#ifndef NDEBUG
  if (++changesSinceCheck_ < slots_.size()) return;
  changesSinceCheck_ = 0;
  const std::string broken = checkInvariants();
  if (!broken.empty()) std::fprintf(stderr, "SlotTable: %s\n", broken.c_str());
  assert(broken.empty());
#endif
}

}  // namespace Tarn
