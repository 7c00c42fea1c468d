// EntryTable: the file store's entries by primary key, with their recency.
//
// The entries live in one flat array, in no particular order; an
// open-addressing hash index (linear probing, at most half full) finds a
// key's place in the array, and an intrusive doubly linked list through the
// array, by position, orders the entries from least to most recently used.
// So a lookup costs a hash and a short probe, and an insert, an erase or a
// touch allocates nothing once the table has grown to its size (reserve()
// does that up front for an open; an open appends every entry and then
// builds the index in one pass). An erase moves the last entry into the
// hole, so positions change on every erase and on nothing else.
//
// The hash mixes a key's significant bytes with a seed drawn once per
// process. Keys that hash alike (by chance, or made to) only lengthen the
// probes: a lookup always ends at an empty index slot, and the index is
// never more than half full, so every operation stays correct.
//
// Invariants (checkInvariants() walks them; debug builds check after each
// change while the table is small):
// - the index's capacity is a power of two, at least twice size(), and
//   every entry's position appears in exactly one index slot, tagged with
//   the low bits of its key's hash, and reachable by linear probing from
//   the key's home slot without crossing an empty slot;
// - no two entries have equal keys;
// - the recency list, followed from leastRecent() through next(), visits
//   every entry exactly once, and prev() mirrors next().
//
// Not thread-safe: the file store's lock guards it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/LargeArrayAllocator.h"
#include "store/FileEntryInfo.h"
#include "tarn/CacheKey.h"

namespace Tarn {

class EntryTable {
 public:
  static constexpr uint32_t kNone = UINT32_MAX;
  struct Entry {
    PrimaryKey key;
    FileEntryInfo info;
    uint32_t prev = kNone;  // towards the least recent
    uint32_t next = kNone;  // towards the most recent
  };

  // A replacement for the seeded hash, for tests that need keys to collide.
  using KeyHash = uint64_t (*)(const PrimaryKey& key);

  EntryTable();
  explicit EntryTable(KeyHash hash);

  size_t size() const { return entries_.size(); }
  bool empty() const { return entries_.empty(); }
  // Makes room for `count` entries, so that inserting up to that many
  // allocates nothing.
  void reserve(size_t count);

  // The position of `key`, or kNone.
  uint32_t position(const PrimaryKey& key) const;
  // The info of `key`, or null. Valid until the next insert or erase.
  FileEntryInfo* find(const PrimaryKey& key);
  const FileEntryInfo* find(const PrimaryKey& key) const;
  bool contains(const PrimaryKey& key) const { return position(key) != kNone; }
  // The info of `key`; throws std::out_of_range when absent.
  FileEntryInfo& at(const PrimaryKey& key);
  const FileEntryInfo& at(const PrimaryKey& key) const;

  Entry& operator[](uint32_t position) { return entries_[position]; }
  const Entry& operator[](uint32_t position) const { return entries_[position]; }

  // Adds `key` as the most recent entry and returns its position; when the
  // key is there already, changes nothing and returns kNone.
  uint32_t insert(const PrimaryKey& key, const FileEntryInfo& info);
  // The load of a file: appends the entry as the most recent without
  // indexing it. Between the first append and indexAppended() no other
  // member may be called; the invariants hold again after it.
  void append(const PrimaryKey& key, const FileEntryInfo& info);
  // Indexes every entry, prefetching index slots a few entries ahead so
  // that the cache misses of a large table overlap. Throws
  // std::invalid_argument when two appended entries have equal keys (the
  // table is then left empty).
  void indexAppended();
  // Removes the entry at `position`; the last entry takes its place.
  void eraseAt(uint32_t position);
  // Removes `key`; false when absent.
  bool erase(const PrimaryKey& key);
  // Makes the entry at `position` the most recent.
  void touch(uint32_t position);
  // The least recent entry's position, or kNone when empty.
  uint32_t leastRecent() const { return head_; }
  uint32_t mostRecent() const { return tail_; }

  // The entries in no particular order.
  Pt::LargeArray<Entry>::const_iterator begin() const { return entries_.begin(); }
  Pt::LargeArray<Entry>::const_iterator end() const { return entries_.end(); }

  // Whether every invariant above holds; never throws, changes nothing.
  bool checkInvariants() const;

 private:
  struct IndexSlot {
    uint32_t position = kNone;
    uint32_t tag = 0;  // the low 32 bits of the key's hash
  };

  uint64_t hashOf(const PrimaryKey& key) const;
  // The index slot that holds `position` (whose key hashes to `hash`).
  size_t slotOf(uint32_t position, uint64_t hash) const;
  void placeInIndex(uint32_t position, uint64_t hash);
  bool placeUnique(uint32_t position, uint64_t hash);
  void removeFromIndex(size_t slot);
  void rebuildIndex(size_t capacity);
  void unlink(uint32_t position);
  void linkAsMostRecent(uint32_t position);
  void renumber(uint32_t from, uint32_t to);
  void debugCheck() const;

  const uint64_t seed_;
  const KeyHash hash_ = nullptr;  // the seeded hash when null
  Pt::LargeArray<Entry> entries_;
  Pt::LargeArray<IndexSlot> index_;
  size_t mask_ = 0;
  uint32_t head_ = kNone;
  uint32_t tail_ = kNone;
};

}  // namespace Tarn
