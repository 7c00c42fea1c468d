#include "store/EntrySalvage.h"

#include <algorithm>
#include <numeric>

namespace Tarn {
namespace {

// Offsets and lengths travel as signed 32-bit values beyond the open.
constexpr uint64_t kLengthLimit = uint64_t{1} << 31;

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
// that did). Two skeleton claims that overlap reject the file.
bool EntrySalvage::dropOverlaps() {
  std::vector<Claim> claims = skeleton_;
  claims.reserve(skeleton_.size() + slots_.size());
  for (size_t i = 0; i < slots_.size(); ++i) {
    const Slot& slot = slots_[i];
    if (slot.dropped) continue;
    const uint64_t begin = slot.header.dataOffset;
    claims.push_back({begin, begin + slot.header.allocatedLength, static_cast<int64_t>(i)});
  }
  std::sort(claims.begin(), claims.end(), [](const Claim& a, const Claim& b) {
    return a.begin != b.begin ? a.begin < b.begin : a.end < b.end;
  });
  const Claim* reach = nullptr;
  for (const Claim& claim : claims) {
    if (reach != nullptr && claim.begin < reach->end) {
      if (claim.slot < 0 && reach->slot < 0) return false;
      drop(claim.slot, DropReason::DataOverlap);
      drop(reach->slot, DropReason::DataOverlap);
    }
    if (reach == nullptr || claim.end > reach->end) reach = &claim;
  }
  return true;
}

// Sorts the surviving entries by key and, for equal keys, by chain order;
// each run of one key keeps its first.
void EntrySalvage::dropDuplicates() {
  std::vector<uint32_t> order;
  for (size_t i = 0; i < slots_.size(); ++i) {
    if (!slots_[i].dropped) order.push_back(static_cast<uint32_t>(i));
  }
  std::vector<PrimaryKey> keys(slots_.size());
  for (const uint32_t i : order) keys[i] = slots_[i].header.primaryKeyValue();
  std::sort(order.begin(), order.end(), [&](uint32_t a, uint32_t b) {
    if (keys[a] < keys[b]) return true;
    if (keys[b] < keys[a]) return false;
    return a < b;
  });
  for (size_t i = 1; i < order.size(); ++i) {
    if (!(keys[order[i - 1]] < keys[order[i]])) drop(order[i], DropReason::DuplicateKey);
  }
}

std::vector<FileRange> EntrySalvage::gaps(uint64_t& trailingBytes) const {
  std::vector<Claim> claims = skeleton_;
  for (const Slot& slot : slots_) {
    if (slot.dropped) continue;
    const uint64_t begin = slot.header.dataOffset;
    claims.push_back({begin, begin + slot.header.allocatedLength, -1});
  }
  std::sort(claims.begin(), claims.end(),
            [](const Claim& a, const Claim& b) { return a.begin < b.begin; });
  std::vector<FileRange> gaps;
  uint64_t reach = 0;  // the end of the claims so far; they no longer overlap
  for (const Claim& claim : claims) {
    if (claim.begin > reach) {
      gaps.push_back({static_cast<uint32_t>(reach), static_cast<uint32_t>(claim.begin - reach)});
    }
    reach = std::max(reach, claim.end);
  }
  trailingBytes = fileLength_ > reach ? fileLength_ - reach : 0;
  return gaps;
}

}  // namespace Tarn
