#include "store/EntrySalvage.h"

#include <algorithm>
#include <cstring>
#include <iterator>

#include "core/KeyHash.h"

namespace Tarn {
namespace {

// Offsets and lengths travel as signed 32-bit values beyond the open.
constexpr uint64_t kLengthLimit = uint64_t{1} << 31;

constexpr uint64_t kNoPlace = UINT64_MAX;  // an empty place of the key table

// A key's significant bytes; a kept entry has zeros behind its key's length,
// but only the significant bytes take part, as in a comparison of keys.
bool SameKey(const EntryHeader& a, const EntryHeader& b) {
  return a.primaryKeyLength == b.primaryKeyLength &&
         std::memcmp(a.primaryKey.data(), b.primaryKey.data(), a.primaryKeyLength) == 0;
}

uint64_t KeyHash(const EntryHeader& header) {
  return HashKey(header.primaryKey.data(), header.primaryKeyLength, header.primaryKeyLength,
                 ProcessKeySeed());
}

}  // namespace

const char* DropReasonName(DropReason reason) {
  switch (reason) {
    case DropReason::KeyDamaged:
      return "key damaged";
    case DropReason::UnknownType:
      return "unknown type";
    case DropReason::LengthsDamaged:
      return "lengths damaged";
    case DropReason::DataPastEnd:
      return "data past the end";
    case DropReason::DataOverlap:
      return "data overlaps";
    case DropReason::DuplicateKey:
      return "duplicate key";
  }
  return "damaged";
}

// A header torn by a crash usually shows here: a slot whose first bytes were
// written and whose lengths are still the zeros of a free slot claims no
// space at all, which no writer ever records.
std::optional<DropReason> CheckEntry(const EntryHeader& entry, uint32_t typeCount,
                                     uint64_t fileLength) {
  if (!entry.keysValid()) return DropReason::KeyDamaged;
  if (entry.typeId == 0 || entry.typeId > typeCount) return DropReason::UnknownType;
  if (entry.dataLength > entry.allocatedLength || entry.allocatedLength == 0 ||
      entry.allocatedLength >= kLengthLimit) {
    return DropReason::LengthsDamaged;
  }
  if (uint64_t{entry.dataOffset} + entry.allocatedLength > fileLength) {
    return DropReason::DataPastEnd;
  }
  return std::nullopt;
}

bool EntrySalvage::settle() {
  if (!dropOverlaps()) return false;
  dropDuplicates();
  return true;
}

void EntrySalvage::drop(int64_t slot, DropReason reason) {
  if (slot >= 0) {
    Slot& dropped = slots_[static_cast<size_t>(slot)];
    if (!dropped.dropped) dropped.dropped = reason;
  }
}

// Sweeps the claims in offset order, keeping the claim that reaches
// furthest: a claim that starts before that reach overlaps it. Every claim
// that overlaps any other is met this way (the one it overlaps reached at
// least as far when it was swept, or was itself overlapped by the claim
// that did). Two skeleton claims that overlap reject the file. Entries
// appended one after another already lie in range order, so their claims
// are sorted only when they are not.
bool EntrySalvage::dropOverlaps() {
  Pt::LargeArray<Claim> entries;
  entries.reserve(slots_.size());
  for (size_t i = 0; i < slots_.size(); ++i) {
    const Slot& slot = slots_[i];
    if (slot.dropped) continue;
    const uint64_t begin = slot.header.dataOffset;
    entries.push_back({begin, begin + slot.header.allocatedLength, static_cast<int64_t>(i)});
  }
  if (!std::is_sorted(entries.begin(), entries.end(), ByRange)) {
    std::sort(entries.begin(), entries.end(), ByRange);
  }
  std::sort(skeleton_.begin(), skeleton_.end(), ByRange);
  claims_.clear();
  claims_.reserve(skeleton_.size() + entries.size());
  std::merge(skeleton_.begin(), skeleton_.end(), entries.begin(), entries.end(),
             std::back_inserter(claims_), ByRange);
  const Claim* reach = nullptr;
  for (const Claim& claim : claims_) {
    if (reach != nullptr && claim.begin < reach->end) {
      if (claim.slot < 0 && reach->slot < 0) return false;
      drop(claim.slot, DropReason::DataOverlap);
      drop(reach->slot, DropReason::DataOverlap);
    }
    if (reach == nullptr || claim.end > reach->end) reach = &claim;
  }
  return true;
}

// Keeps the first entry of each primary key in chain order: the surviving
// entries go into an open-addressed table of their keys in chain order, and
// an entry whose key is already there is dropped. The hash is seeded per
// process, so that a file cannot be made to collide on purpose and turn the
// probing quadratic.
void EntrySalvage::dropDuplicates() {
  size_t capacity = 16;
  while (capacity < slots_.size() + slots_.size() / 2) capacity *= 2;
  // Each place holds a slot index and the high half of its key's hash, so
  // that a probe reads the slot's header only when the hashes agree.
  Pt::LargeArray<uint64_t> table(capacity, kNoPlace);
  for (size_t i = 0; i < slots_.size(); ++i) {
    const EntryHeader& header = slots_[i].header;
    if (slots_[i].dropped) continue;
    const uint64_t hash = KeyHash(header);
    const uint64_t place = (hash & ~uint64_t{UINT32_MAX}) | i;
    for (size_t at = hash & (capacity - 1);; at = (at + 1) & (capacity - 1)) {
      if (table[at] == kNoPlace) {
        table[at] = place;
        break;
      }
      if ((table[at] ^ place) >> 32 == 0 &&
          SameKey(slots_[table[at] & UINT32_MAX].header, header)) {
        drop(static_cast<int64_t>(i), DropReason::DuplicateKey);
        break;
      }
    }
  }
}

std::vector<FileRange> EntrySalvage::gaps(uint64_t& trailingBytes) const {
  std::vector<FileRange> gaps;
  uint64_t reach = 0;  // the end of the claims so far; they no longer overlap
  for (const Claim& claim : claims_) {
    if (!claims(claim)) continue;
    if (claim.begin > reach) {
      gaps.push_back({static_cast<uint32_t>(reach), static_cast<uint32_t>(claim.begin - reach)});
    }
    reach = std::max(reach, claim.end);
  }
  trailingBytes = fileLength_ > reach ? fileLength_ - reach : 0;
  return gaps;
}

}  // namespace Tarn
