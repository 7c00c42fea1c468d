// RelocationPlan: which live entries at the end of a cache file move into
// free ranges nearer its start, so that the file can be cut back behind
// them.
//
// The file can only be cut behind its last claimed range. The plan takes the
// live entry that ends last, moves it into the best-fitting free range that
// lies wholly below it (FreeSpace::takeBelow), and repeats with whichever
// entry ends last then, until that entry lies within the fixed structures
// (header, type table, extents, which never move) or the bytes to copy
// would pass the bound. Each such move lowers the file's end.
//
// When the last entry finds no free range below it large enough, the plan
// clears room for it instead and ends: it picks the cheapest window below
// it (a free range and what directly follows it: live entries and free
// ranges, until the window is as long as the entry) whose entries all fit
// elsewhere below the last entry, and moves them out. The window is then
// one free range once the plan has been carried out, and the next plan
// moves the last entry into it.
//
// An entry may be picked again after it moved (it may still end last): its
// move then goes straight from its first range to its last one, and the
// range it would have passed through is free again. A range that a move
// leaves is not handed to another move of the same plan: its old bytes must
// stay intact until the header that pointed there has been rewritten, so it
// comes free only after the plan has been carried out.
//
// Invariants of a plan (check() walks them; the store asserts them in debug
// builds):
// - each entry moves at most once, from its own range;
// - every destination was free when the plan was made, is at least as long
//   as the entry's range (longer by at most the minimum allocation) and
//   lies wholly below the start of the range of the entry that ended last;
// - no two destinations overlap;
// - the bytes of the sources add up to at most the bound;
// - endAfter() is at least the end of every claimed range once the moves
//   are made.
//
// Values only; not thread-safe (the caller holds the store's lock).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "store/FreeSpace.h"

namespace Tarn {

class RelocationPlan {
 public:
  // A live entry: the caller's name for it and its allocated range.
  struct Item {
    uint32_t id = 0;
    FileRange range;
  };
  struct Move {
    uint32_t id = 0;
    FileRange from;
    FileRange to;
    friend bool operator==(const Move&, const Move&) = default;
  };

  // Plans the moves of `items` (ranges that overlap neither each other nor
  // `free`); `fixedEnd` is the end of the last range that cannot move. The
  // destinations are taken from `free` (the caller gives them back if it
  // does not carry the plan out); the sources are not added to it. Copies
  // at most `maxBytes` bytes.
  static RelocationPlan Make(const std::vector<Item>& items, uint32_t fixedEnd, FreeSpace& free,
                             uint64_t maxBytes);

  // The moves in the order of the items' ids.
  const std::vector<Move>& moves() const { return moves_; }
  uint64_t bytes() const { return bytes_; }
  uint64_t endAfter() const { return endAfter_; }
  // Whether the plan only clears room for the last entry (see above).
  bool clearsRoom() const { return clearsRoom_; }

  // Empty when every invariant above holds against `items` and the free
  // ranges `freeBefore` had when the plan was made; else the first broken.
  std::string check(const std::vector<Item>& items, const FreeSpace& freeBefore,
                    uint32_t minAllocation, uint64_t maxBytes) const;

 private:
  class Planner;

  std::vector<Move> moves_;
  uint64_t bytes_ = 0;
  uint64_t endAfter_ = 0;
  bool clearsRoom_ = false;
};

}  // namespace Tarn
