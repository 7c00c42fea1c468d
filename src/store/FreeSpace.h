// The free data ranges of a cache file.
//
// Nothing on disk records free space: the open works it out as the gaps
// between the ranges that records claim, and the file store keeps it here
// while the cache runs. Every released range is merged at once with a free
// range that ends where it starts and one that starts where it ends, so free
// space never stays split, whatever order ranges come back in.
//
// Allocation is best fit: take() hands out the smallest free range that is
// at least as long as the request; of equally long ones, the one with the
// lowest offset. A range longer than the request by more than minAllocation
// is split and its tail stays free; a shorter surplus is not worth a range
// of its own, so the whole range is handed out and the caller records (and
// later releases) all of it.
//
// Each range is held twice: `byOffset_` maps offset to length (the order in
// which neighbours are found) and `bySize_` holds (length, offset) pairs (the
// order of best fit and its tie rule).
//
// Invariants (checkInvariants() walks the whole structure; the mutators
// call it in debug builds):
// - `byOffset_` and `bySize_` hold the same ranges, each once;
// - no range is empty, and every range ends at or below kEndLimit, so a
//   merged length always fits 32 bits;
// - no two ranges overlap or touch: between two free ranges there is at
//   least one byte that is not free (a released range has been merged);
// - `totalBytes_` is the sum of the lengths.
//
// Cost: add() and take() are O(log n) in the number of free ranges (a few
// lookups, erasures and insertions in each tree); totalBytes() and
// rangeCount() are O(1); ranges() and checkInvariants() are O(n). In debug
// builds the mutators walk the whole structure once per as many changes as
// it holds ranges, which keeps them O(log n) amortised.
//
// Not thread-safe: the file store's lock guards it.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace Tarn {

struct FileRange {
  uint32_t offset = 0;
  uint32_t length = 0;
  uint32_t end() const { return offset + length; }
  friend bool operator==(const FileRange&, const FileRange&) = default;
};

class FreeSpace {
 public:
  // No free range ends past this offset (files stay far below it).
  static constexpr uint64_t kEndLimit = 0xFFFFFFFFu;

  // `minAllocation` is the smallest allocation (a positive number of bytes).
  explicit FreeSpace(uint32_t minAllocation) : minAllocation_(minAllocation) {}

  // Makes [offset, offset + length) free, merged with the free ranges on
  // either side. Returns false and changes nothing when the range is empty,
  // ends past kEndLimit or overlaps free space (a range released twice).
  bool add(uint32_t offset, uint32_t length);

  // Takes room for `want` bytes (already rounded, at least minAllocation)
  // from the best fit described above, or returns nullopt and changes
  // nothing when no range fits or `want` is 0. The result starts at the
  // range's offset; its length is `want`, or the whole range's length when
  // the surplus is no more than minAllocation.
  std::optional<FileRange> take(uint32_t want);
  // As take(), but only from free ranges that end at or below `bound`: the
  // best fit among the ranges wholly below it (used to move data towards
  // the start of the file). O(k log n), k being the ranges at least `want`
  // long that lie above the bound and fit better.
  std::optional<FileRange> takeBelow(uint32_t bound, uint32_t want);

  // Takes the whole free range that starts at `offset`; nullopt (nothing
  // changes) when no free range starts there.
  std::optional<FileRange> takeAt(uint32_t offset);

  // The free ranges in offset order (a copy, for checks and tests).
  std::vector<FileRange> ranges() const;
  size_t rangeCount() const { return byOffset_.size(); }
  uint64_t totalBytes() const { return totalBytes_; }
  // The length of the longest free range (0 when there is none).
  uint32_t largest() const { return bySize_.empty() ? 0 : bySize_.rbegin()->first; }

  // Walks the whole structure. Returns an empty string when every invariant
  // above holds, else a description of the first one broken. Works in every
  // build, so stress tests can call it in release builds too.
  std::string checkInvariants() const;

 private:
  friend struct FreeSpaceTestAccess;  // lets a test break the structure

  using OffsetMap = std::map<uint32_t, uint32_t>;             // offset -> length
  using SizeIndex = std::set<std::pair<uint32_t, uint32_t>>;  // (length, offset)

  void insertRange(OffsetMap::const_iterator hint, uint32_t offset, uint32_t length);
  void eraseRange(OffsetMap::iterator range);
  // Gives `range` a new start and length; the new start must keep the
  // range's place in offset order.
  void reshape(OffsetMap::iterator range, uint32_t offset, uint32_t length);
  void checkAfterChange();
  FileRange takeFrom(SizeIndex::iterator fit, uint32_t want);

  uint32_t minAllocation_;
  OffsetMap byOffset_;
  SizeIndex bySize_;
  uint64_t totalBytes_ = 0;
  [[maybe_unused]] size_t changesSinceCheck_ = 0;  // drives the debug builds' periodic walk
};

}  // namespace Tarn
