#include "store/FreeSpace.h"

#include <algorithm>
#include <iterator>

namespace Tarn {

namespace {

// Offsets are ordered as signed 32-bit numbers, as everywhere the file store
// sorts or compares them; files stay below 2 GiB, where both orders agree.
bool Before(uint32_t a, uint32_t b) {
  return static_cast<int32_t>(a) < static_cast<int32_t>(b);
}

// The walk of AddRange from the first range, whose offset lies before
// `offset`: it stops at the first range that ends where the new one starts,
// or at the first range (after the one it is on) that does not start before
// it. On a list that is not in offset order it may stop early; that is
// accepted, the next open merges whatever stayed split.
void InsertAfterFirst(uint32_t offset, uint32_t length, std::list<FileRange>& list) {
  auto range = list.begin();
  for (;;) {
    if (range->end() == offset) {
      range->length += length;
      const auto next = std::next(range);
      if (next != list.end() && range->end() == next->offset) {
        range->length += next->length;
        list.erase(next);
      }
      return;
    }
    if (++range == list.end()) {
      list.push_back({offset, length});
      return;
    }
    if (Before(range->offset, offset)) continue;
    if (offset + length == range->offset) {
      *range = {offset, range->length + length};
    } else {
      list.insert(range, {offset, length});
    }
    return;
  }
}

}  // namespace

void AddRange(uint32_t offset, uint32_t length, std::list<FileRange>& list) {
  if (list.empty()) {
    list.push_back({offset, length});
    return;
  }
  FileRange& first = list.front();
  // Only the first range is checked for a repeat: the open may offer the
  // range that starts the list again, and it must not be counted twice.
  if (offset == first.offset) return;
  if (Before(offset, first.offset)) {
    if (offset + length == first.offset) {
      first = {offset, first.length + length};
    } else {
      list.push_front({offset, length});
    }
    return;
  }
  InsertAfterFirst(offset, length, list);
}

void FreeSpace::add(uint32_t offset, uint32_t length) {
  AddRange(offset, length, ranges_);
  bySize_ = false;
}

std::optional<FileRange> FreeSpace::take(uint32_t want) {
  if (!bySize_) {
    // std::list::sort is stable: equally long ranges keep their order, so
    // the first of them in the list is the one taken.
    ranges_.sort([](const FileRange& a, const FileRange& b) { return a.length < b.length; });
    bySize_ = true;
  }
  const auto fit = std::lower_bound(
      ranges_.begin(), ranges_.end(), want,
      [](const FileRange& range, uint32_t length) { return range.length < length; });
  if (fit == ranges_.end()) return std::nullopt;
  const FileRange found = *fit;
  ranges_.erase(fit);
  // A tail no longer than minAllocation is not worth a list entry; it goes
  // with the allocation unrecorded until the next open finds it as a gap.
  if (uint64_t{want} + minAllocation_ < found.length) add(found.offset + want, found.length - want);
  return FileRange{found.offset, want};
}

uint64_t FreeSpace::totalBytes() const {
  uint64_t total = 0;
  for (const FileRange& range : ranges_) total += range.length;
  return total;
}

}  // namespace Tarn
