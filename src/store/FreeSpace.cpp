#include "store/FreeSpace.h"

#include <cassert>
#include <cstdio>
#include <iterator>

namespace Tarn {

namespace {

uint64_t EndOf(uint32_t offset, uint32_t length) {
  return uint64_t{offset} + length;
}

std::string Broken(const char* what, uint32_t offset, uint32_t length) {
  return std::string(what) + ": [" + std::to_string(offset) + ", " +
         std::to_string(EndOf(offset, length)) + ")";
}

}  // namespace

bool FreeSpace::add(uint32_t offset, uint32_t length) {
  const uint64_t end = EndOf(offset, length);
  if (length == 0 || end > kEndLimit) return false;
  const auto next = byOffset_.lower_bound(offset);
  const bool hasPrevious = next != byOffset_.begin();
  const auto previous = hasPrevious ? std::prev(next) : byOffset_.end();
  // A range released twice would hand the same bytes to two entries; it
  // is refused before anything changes.
  if (next != byOffset_.end() && next->first < end) return false;
  if (hasPrevious && EndOf(previous->first, previous->second) > offset) return false;

  const bool mergesPrevious = hasPrevious && EndOf(previous->first, previous->second) == offset;
  const bool mergesNext = next != byOffset_.end() && next->first == end;
  if (mergesPrevious) {
    const uint64_t stop = mergesNext ? EndOf(next->first, next->second) : end;
    if (mergesNext) eraseRange(next);
    reshape(previous, previous->first, static_cast<uint32_t>(stop - previous->first));
  } else if (mergesNext) {
    reshape(next, offset, static_cast<uint32_t>(EndOf(next->first, next->second) - offset));
  } else {
    insertRange(next, offset, length);
  }
  totalBytes_ += length;
  checkAfterChange();
  return true;
}

std::optional<FileRange> FreeSpace::take(uint32_t want) {
  if (want == 0) return std::nullopt;
  // The first pair not less than (want, 0): the shortest range that fits,
  // and of equally short ones the lowest offset.
  const auto fit = bySize_.lower_bound({want, 0});
  if (fit == bySize_.end()) return std::nullopt;
  return takeFrom(fit, want);
}

std::optional<FileRange> FreeSpace::takeBelow(uint32_t bound, uint32_t want) {
  if (want == 0) return std::nullopt;
  for (auto fit = bySize_.lower_bound({want, 0}); fit != bySize_.end(); ++fit) {
    if (EndOf(fit->second, fit->first) <= bound) return takeFrom(fit, want);
  }
  return std::nullopt;
}

std::optional<FileRange> FreeSpace::takeAt(uint32_t offset) {
  const auto range = byOffset_.find(offset);
  if (range == byOffset_.end()) return std::nullopt;
  const FileRange taken{range->first, range->second};
  eraseRange(range);
  totalBytes_ -= taken.length;
  checkAfterChange();
  return taken;
}

// Hands out `want` bytes from the start of the range `fit` names (all of it
// when the surplus is too small to keep).
FileRange FreeSpace::takeFrom(SizeIndex::iterator fit, uint32_t want) {
  const auto [length, offset] = *fit;
  const auto range = byOffset_.find(offset);
  uint32_t taken = length;
  if (uint64_t{want} + minAllocation_ < length) {
    // The tail keeps the range's place between neighbours that were not
    // free, so it needs no merge.
    taken = want;
    reshape(range, offset + want, length - want);
  } else {
    bySize_.erase(fit);
    byOffset_.erase(range);
  }
  totalBytes_ -= taken;
  checkAfterChange();
  return FileRange{offset, taken};
}

std::vector<FileRange> FreeSpace::ranges() const {
  std::vector<FileRange> list;
  list.reserve(byOffset_.size());
  for (const auto& [offset, length] : byOffset_) list.push_back({offset, length});
  return list;
}

std::string FreeSpace::checkInvariants() const {
  if (bySize_.size() != byOffset_.size()) {
    return "the offset map holds " + std::to_string(byOffset_.size()) + " ranges, the size index " +
           std::to_string(bySize_.size());
  }
  uint64_t total = 0;
  uint64_t previousEnd = 0;
  for (const auto& [offset, length] : byOffset_) {
    if (length == 0) return Broken("an empty range", offset, length);
    if (EndOf(offset, length) > kEndLimit) return Broken("a range past the limit", offset, length);
    if (total != 0 && offset <= previousEnd) {  // total is 0 only at the first
      return Broken("a range overlaps or touches the one before it", offset, length);
    }
    // With equal sizes and every range found, the two hold the same ranges.
    if (bySize_.count({length, offset}) == 0) {
      return Broken("a range missing from the size index", offset, length);
    }
    total += length;
    previousEnd = EndOf(offset, length);
  }
  if (total != totalBytes_) {
    return "the ranges hold " + std::to_string(total) + " bytes, the total says " +
           std::to_string(totalBytes_);
  }
  return {};
}

void FreeSpace::insertRange(OffsetMap::const_iterator hint, uint32_t offset, uint32_t length) {
  byOffset_.emplace_hint(hint, offset, length);
  bySize_.emplace(length, offset);
}

void FreeSpace::eraseRange(OffsetMap::iterator range) {
  bySize_.erase({range->second, range->first});
  byOffset_.erase(range);
}

// Moves the range's nodes instead of erasing and inserting: no allocation,
// and the offset map's insertion starts from its old place.
void FreeSpace::reshape(OffsetMap::iterator range, uint32_t offset, uint32_t length) {
  auto sized = bySize_.extract({range->second, range->first});
  sized.value() = {length, offset};
  bySize_.insert(std::move(sized));
  if (range->first == offset) {
    range->second = length;
    return;
  }
  const auto next = std::next(range);
  auto placed = byOffset_.extract(range);
  placed.key() = offset;
  placed.mapped() = length;
  byOffset_.insert(next, std::move(placed));
}

// A full walk after every change would make each change O(n); one walk per
// as many changes as there are ranges costs O(1) amortised and still checks
// small structures, as tests build them, after every change.
void FreeSpace::checkAfterChange() {
#ifndef NDEBUG
  if (++changesSinceCheck_ < byOffset_.size()) return;
  changesSinceCheck_ = 0;
  const std::string broken = checkInvariants();
  if (!broken.empty()) std::fprintf(stderr, "FreeSpace: %s\n", broken.c_str());
  assert(broken.empty());
#endif
}

}  // namespace Tarn
