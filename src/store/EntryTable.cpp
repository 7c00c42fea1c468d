#include "store/EntryTable.h"

#include <stdexcept>

#include "core/KeyHash.h"
#include "platform/InvariantCheck.h"

namespace Tarn {
namespace {

constexpr size_t kMinCapacity = 16;

// The smallest power of two that keeps `count` entries at most half full.
size_t CapacityFor(size_t count) {
  size_t capacity = kMinCapacity;
  while (capacity < 2 * count) capacity *= 2;
  return capacity;
}

}  // namespace

EntryTable::EntryTable() : seed_(ProcessKeySeed()) {
  rebuildIndex(kMinCapacity);
}

EntryTable::EntryTable(KeyHash hash) : seed_(0), hash_(hash) {
  rebuildIndex(kMinCapacity);
}

void EntryTable::reserve(size_t count) {
  entries_.reserve(count);
  if (index_.size() < 2 * count) rebuildIndex(CapacityFor(count));
}

uint64_t EntryTable::hashOf(const PrimaryKey& key) const {
  return hash_ != nullptr ? hash_(key) : HashKey(key, seed_);
}

uint32_t EntryTable::position(const PrimaryKey& key) const {
  const uint64_t hash = hashOf(key);
  const auto tag = static_cast<uint32_t>(hash);
  for (size_t slot = hash & mask_;; slot = (slot + 1) & mask_) {
    const IndexSlot& at = index_[slot];
    if (at.position == kNone) return kNone;
    if (at.tag == tag && entries_[at.position].key == key) return at.position;
  }
}

FileEntryInfo* EntryTable::find(const PrimaryKey& key) {
  const uint32_t at = position(key);
  return at == kNone ? nullptr : &entries_[at].info;
}

const FileEntryInfo* EntryTable::find(const PrimaryKey& key) const {
  const uint32_t at = position(key);
  return at == kNone ? nullptr : &entries_[at].info;
}

FileEntryInfo& EntryTable::at(const PrimaryKey& key) {
  FileEntryInfo* info = find(key);
  if (info == nullptr) throw std::out_of_range("EntryTable::at: no such key");
  return *info;
}

const FileEntryInfo& EntryTable::at(const PrimaryKey& key) const {
  const FileEntryInfo* info = find(key);
  if (info == nullptr) throw std::out_of_range("EntryTable::at: no such key");
  return *info;
}

// One probe both looks for the key and finds the empty slot it takes.
uint32_t EntryTable::insert(const PrimaryKey& key, const FileEntryInfo& info) {
  if (index_.size() < 2 * (entries_.size() + 1)) rebuildIndex(CapacityFor(entries_.size() + 1));
  const uint64_t hash = hashOf(key);
  const auto tag = static_cast<uint32_t>(hash);
  size_t slot = hash & mask_;
  for (; index_[slot].position != kNone; slot = (slot + 1) & mask_) {
    if (index_[slot].tag == tag && entries_[index_[slot].position].key == key) return kNone;
  }
  const auto at = static_cast<uint32_t>(entries_.size());
  entries_.push_back(Entry{key, info, kNone, kNone});
  index_[slot] = {at, tag};
  linkAsMostRecent(at);
  debugCheck();
  return at;
}

void EntryTable::append(const PrimaryKey& key, const FileEntryInfo& info) {
  const auto at = static_cast<uint32_t>(entries_.size());
  entries_.push_back(Entry{key, info, kNone, kNone});
  linkAsMostRecent(at);
}

// Hashes run kPrefetchDistance entries ahead of the placing, and each hash
// starts the load of the index slot its entry will probe first.
void EntryTable::indexAppended() {
  constexpr uint32_t kPrefetchDistance = 16;
  index_.assign(CapacityFor(entries_.size()), IndexSlot{});
  mask_ = index_.size() - 1;
  uint64_t hashes[kPrefetchDistance];
  const auto count = static_cast<uint32_t>(entries_.size());
  for (uint32_t ahead = 0; ahead < count + kPrefetchDistance; ++ahead) {
    if (ahead >= kPrefetchDistance) {
      const uint32_t at = ahead - kPrefetchDistance;
      if (!placeUnique(at, hashes[at % kPrefetchDistance])) {
        entries_.clear();
        head_ = tail_ = kNone;
        rebuildIndex(kMinCapacity);
        throw std::invalid_argument("EntryTable: a key was appended twice");
      }
    }
    if (ahead < count) {
      const uint64_t hash = hashOf(entries_[ahead].key);
      hashes[ahead % kPrefetchDistance] = hash;
      __builtin_prefetch(&index_[hash & mask_]);
    }
  }
  debugCheck();
}

// placeInIndex, but false (and nothing placed) when the key is there.
bool EntryTable::placeUnique(uint32_t at, uint64_t hash) {
  const auto tag = static_cast<uint32_t>(hash);
  size_t slot = hash & mask_;
  for (; index_[slot].position != kNone; slot = (slot + 1) & mask_) {
    if (index_[slot].tag == tag && entries_[index_[slot].position].key == entries_[at].key) {
      return false;
    }
  }
  index_[slot] = {at, tag};
  return true;
}

void EntryTable::eraseAt(uint32_t at) {
  removeFromIndex(slotOf(at, hashOf(entries_[at].key)));
  unlink(at);
  const auto last = static_cast<uint32_t>(entries_.size() - 1);
  if (at != last) {
    renumber(last, at);
    entries_[at] = std::move(entries_[last]);
  }
  entries_.pop_back();
  debugCheck();
}

bool EntryTable::erase(const PrimaryKey& key) {
  const uint32_t at = position(key);
  if (at == kNone) return false;
  eraseAt(at);
  return true;
}

void EntryTable::touch(uint32_t at) {
  if (at == tail_) return;
  unlink(at);
  linkAsMostRecent(at);
  debugCheck();
}

size_t EntryTable::slotOf(uint32_t at, uint64_t hash) const {
  size_t slot = hash & mask_;
  while (index_[slot].position != at) slot = (slot + 1) & mask_;
  return slot;
}

void EntryTable::placeInIndex(uint32_t at, uint64_t hash) {
  size_t slot = hash & mask_;
  while (index_[slot].position != kNone) slot = (slot + 1) & mask_;
  index_[slot] = {at, static_cast<uint32_t>(hash)};
}

// Backward-shift deletion: each later slot of the run whose home lies
// cyclically at or before the hole moves into it, so no probe ever meets a
// gap before its key and no tombstones are needed.
void EntryTable::removeFromIndex(size_t hole) {
  for (size_t slot = (hole + 1) & mask_; index_[slot].position != kNone;
       slot = (slot + 1) & mask_) {
    const size_t home = index_[slot].tag & mask_;
    if (((slot - home) & mask_) >= ((slot - hole) & mask_)) {
      index_[hole] = index_[slot];
      hole = slot;
    }
  }
  index_[hole] = IndexSlot{};
}

void EntryTable::rebuildIndex(size_t capacity) {
  index_.assign(capacity, IndexSlot{});
  mask_ = capacity - 1;
  for (uint32_t at = 0; at < entries_.size(); ++at) placeInIndex(at, hashOf(entries_[at].key));
}

void EntryTable::unlink(uint32_t at) {
  Entry& entry = entries_[at];
  (entry.prev == kNone ? head_ : entries_[entry.prev].next) = entry.next;
  (entry.next == kNone ? tail_ : entries_[entry.next].prev) = entry.prev;
  entry.prev = entry.next = kNone;
}

void EntryTable::linkAsMostRecent(uint32_t at) {
  Entry& entry = entries_[at];
  entry.prev = tail_;
  entry.next = kNone;
  (tail_ == kNone ? head_ : entries_[tail_].next) = at;
  tail_ = at;
}

// Points the index slot and the neighbours of the entry at `from` to `to`,
// where it is about to move.
void EntryTable::renumber(uint32_t from, uint32_t to) {
  Entry& entry = entries_[from];
  index_[slotOf(from, hashOf(entry.key))].position = to;
  (entry.prev == kNone ? head_ : entries_[entry.prev].next) = to;
  (entry.next == kNone ? tail_ : entries_[entry.next].prev) = to;
}

void EntryTable::debugCheck() const {
  PT_DEBUG_CHECK(entries_.size(), checkInvariants());
}

bool EntryTable::checkInvariants() const {
  if (index_.size() != mask_ + 1 || (index_.size() & mask_) != 0 ||
      index_.size() < 2 * entries_.size()) {
    return false;
  }
  std::vector<uint8_t> indexed(entries_.size(), 0);
  size_t used = 0;
  for (size_t slot = 0; slot < index_.size(); ++slot) {
    const IndexSlot& at = index_[slot];
    if (at.position == kNone) continue;
    ++used;
    if (at.position >= entries_.size() || indexed[at.position]++ != 0) return false;
    const uint64_t hash = hashOf(entries_[at.position].key);
    if (at.tag != static_cast<uint32_t>(hash)) return false;
    for (size_t probe = hash & mask_; probe != slot; probe = (probe + 1) & mask_) {
      if (index_[probe].position == kNone) return false;
    }
    if (position(entries_[at.position].key) != at.position) return false;  // keys distinct
  }
  if (used != entries_.size()) return false;
  size_t visited = 0;
  uint32_t prev = kNone;
  for (uint32_t at = head_; at != kNone; prev = at, at = entries_[at].next) {
    if (at >= entries_.size() || ++visited > entries_.size() || entries_[at].prev != prev) {
      return false;
    }
  }
  return visited == entries_.size() && tail_ == prev;
}

}  // namespace Tarn
