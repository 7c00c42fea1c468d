// The free data ranges of a cache file.
//
// Nothing on disk records free space: the open works it out as the gaps
// between the ranges that records claim, and the file store keeps it here
// while the cache runs. Allocation is best fit: the list is sorted by length
// before an allocation whenever an insert has disturbed that order, and the
// smallest range that fits is taken (the first of equally long ones).
//
// AddRange is the one coalescing insert, used for every range list: it walks
// the list as if it were in offset order, whatever order it is in, and merges
// the new range with a range that ends where it starts, one that starts where
// it ends, or both. On an offset-ordered list this keeps the list ordered and
// merged; on a length-ordered list it merges only the neighbours its walk
// meets, which is why freed space may stay split until the next open.
//
// Invariants: no two ranges of the list overlap; `bySize_` is true only when
// the list is in ascending length order (stable) and no insert came since.
// Not thread-safe: the file store's lock guards it.
#pragma once

#include <cstdint>
#include <list>
#include <optional>

namespace Tarn {

struct FileRange {
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t end() const { return offset + length; }
  friend bool operator==(const FileRange&, const FileRange&) = default;
};

// The coalescing insert described above. A range whose offset equals the
// first range's offset is dropped (it is already there).
void AddRange(uint32_t offset, uint32_t length, std::list<FileRange>& list);

class FreeSpace {
 public:
  // `minAllocation` is the smallest allocation (a positive number of bytes).
  explicit FreeSpace(uint32_t minAllocation) : minAllocation_(minAllocation) {}

  // Gives a range back (AddRange); the list is no longer in length order.
  void add(uint32_t offset, uint32_t length);

  // Takes room for `want` bytes (already rounded, at least minAllocation)
  // from the smallest range that fits, or nullopt when none does. A range
  // longer than `want` by more than minAllocation is split and its tail
  // stays free; a shorter surplus is taken along but not returned to the
  // caller, so it is lost until the next open finds it again.
  std::optional<FileRange> take(uint32_t want);

  const std::list<FileRange>& ranges() const { return ranges_; }
  bool bySize() const { return bySize_; }
  uint64_t totalBytes() const;

 private:
  uint32_t minAllocation_;
  std::list<FileRange> ranges_;
  bool bySize_ = false;
};

}  // namespace Tarn
