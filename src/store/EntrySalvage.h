// Which live entries of a cache file can be trusted, and where its free space
// lies.
//
// The loader hands over the file's skeleton (the ranges of its header, type
// table, extent headers and slot arrays, which must not overlap) and its
// live-looking slots in chain and slot order. Damage confined to entries
// drops those entries only; the rest of the file stays usable:
// - an entry is checked on its own first (DropReason below, in that order);
// - of the entries that pass, every entry whose data range overlaps the
//   skeleton or another entry's range is dropped, all parties of an
//   overlap alike: neither can tell whose bytes the range holds;
// - of two or more remaining entries with one primary key, the first in chain
//   and slot order is kept and the others are dropped.
// A dropped entry claims nothing: its slot is free and its range is free
// unless another record claims it.
//
// Thread-safety: none needed; one object serves one load.
#pragma once

#include <algorithm>
#include <cstdint>
#include <optional>
#include <vector>

#include "platform/LargeArrayAllocator.h"
#include "store/FileFormat.h"
#include "store/FreeSpace.h"

namespace Tarn {

// Why an entry was dropped.
enum class DropReason : uint8_t {
  KeyDamaged,      // a key length beyond its capacity, or key bytes behind it
  UnknownType,     // type id 0 or one the type table lacks
  LengthsDamaged,  // dataLength > allocatedLength, allocatedLength 0 or >= 2 GiB
  DataPastEnd,     // the data range reaches past the end of the file
  DataOverlap,     // the data range overlaps a table or another entry's range
  DuplicateKey,    // an earlier entry in chain order has the same primary key
};

// A short name of `reason`, as the inspector prints it.
const char* DropReasonName(DropReason reason);

// The checks of one entry alone, against a file of `fileLength` bytes with
// type ids 1..`typeCount`; nullopt when it passes.
std::optional<DropReason> CheckEntry(const EntryHeader& entry, uint32_t typeCount,
                                     uint64_t fileLength);

class EntrySalvage {
 public:
  struct Slot {
    uint32_t offset = 0;
    EntryHeader header;
    std::optional<DropReason> dropped;
  };

  explicit EntrySalvage(uint64_t fileLength) : fileLength_(fileLength) {}

  // A range of the skeleton; an empty one claims nothing.
  void addSkeleton(uint32_t offset, uint64_t length) {
    if (length > 0) skeleton_.push_back({offset, offset + length, -1});
  }
  // Room for `count` more slots, so that the adds of an extent do not
  // reallocate one by one.
  void reserveSlots(size_t count) {
    if (slots_.capacity() - slots_.size() < count) {
      slots_.reserve(std::max(2 * slots_.capacity(), slots_.size() + count));
    }
  }
  // A live-looking slot, in chain and slot order; `dropped` when it already
  // failed CheckEntry.
  void addSlot(uint32_t offset, const EntryHeader& header, std::optional<DropReason> dropped) {
    slots_.push_back({offset, header, dropped});
  }

  // Checks the skeleton (returns false when two of its ranges overlap), then
  // drops entries by overlap and by key. Call once, after every add.
  bool settle();
  // The free ranges between the claimed ones, in offset order, and the bytes
  // behind the last claimed range. After settle().
  std::vector<FileRange> gaps(uint64_t& trailingBytes) const;

  const Pt::LargeArray<Slot>& slots() const { return slots_; }

 private:
  struct Claim {
    uint64_t begin = 0;
    uint64_t end = 0;
    int64_t slot = -1;  // index into slots_, -1 for the skeleton
  };
  static bool ByRange(const Claim& a, const Claim& b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end < b.end;
  }
  // Whether `claim` still claims its range: the skeleton's always do, an
  // entry's while the entry is kept.
  bool claims(const Claim& claim) const {
    return claim.slot < 0 || !slots_[static_cast<size_t>(claim.slot)].dropped;
  }

  bool dropOverlaps();
  void dropDuplicates();
  void drop(int64_t slot, DropReason reason);

  const uint64_t fileLength_;
  std::vector<Claim> skeleton_;
  Pt::LargeArray<Slot> slots_;
  // The skeleton's and the entries' claims in range order, as settle() found
  // them; gaps() reads them again, skipping the entries dropped since.
  Pt::LargeArray<Claim> claims_;
};

}  // namespace Tarn
