#include "store/FreeSpace.h"

#include <gtest/gtest.h>

#include <optional>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "store/FileFormat.h"

namespace Tarn {

void PrintTo(const FileRange& range, std::ostream* out) {
  *out << "[" << range.offset << ", " << uint64_t{range.offset} + range.length << ")";
}

// Reaches into a FreeSpace to break it the ways checkInvariants() must notice.
struct FreeSpaceTestAccess {
  static void put(FreeSpace& space, uint32_t offset, uint32_t length) {
    space.byOffset_[offset] = length;
    space.bySize_.insert({length, offset});
    space.totalBytes_ += length;
  }
  static void putInOffsetMapOnly(FreeSpace& space, uint32_t offset, uint32_t length) {
    space.byOffset_[offset] = length;
    space.totalBytes_ += length;
  }
  static void dropFromSizeIndex(FreeSpace& space, uint32_t offset) {
    space.bySize_.erase({space.byOffset_.at(offset), offset});
  }
  static void miscount(FreeSpace& space) { ++space.totalBytes_; }
};

namespace {

using Ranges = std::vector<FileRange>;

FreeSpace Holding(const Ranges& ranges, uint32_t minAllocation = 256) {
  FreeSpace space(minAllocation);
  for (const FileRange& range : ranges) EXPECT_TRUE(space.add(range.offset, range.length));
  return space;
}

// ---- single operations ------------------------------------------------------

struct AddCase {
  const char* what;
  Ranges before;
  FileRange added;
  bool accepted;
  Ranges after;
};

const AddCase kAdds[] = {
    {"merged with its predecessor",
     {{100, 50}, {300, 50}},
     {150, 50},
     true,
     {{100, 100}, {300, 50}}},
    {"merged with its successor", {{100, 50}, {300, 50}}, {250, 50}, true, {{100, 50}, {250, 100}}},
    {"merged with both into one", {{100, 50}, {200, 50}}, {150, 50}, true, {{100, 150}}},
    {"between ranges it does not touch",
     {{100, 50}, {300, 50}},
     {160, 10},
     true,
     {{100, 50}, {160, 10}, {300, 50}}},
    {"at offset 0, before the first", {{100, 50}}, {0, 100}, true, {{0, 150}}},
    {"ending at the limit", {}, {0xFFFFFF00, 0xFF}, true, {{0xFFFFFF00, 0xFF}}},
    {"past the limit: refused", {}, {0xFFFFFF00, 0x100}, false, {}},
    {"empty: refused", {{100, 50}}, {150, 0}, false, {{100, 50}}},
    {"at a free range's offset: refused",
     {{100, 50}, {300, 50}},
     {300, 10},
     false,
     {{100, 50}, {300, 50}}},
    {"overlapping a free range's end: refused", {{100, 50}}, {149, 10}, false, {{100, 50}}},
    {"overlapping a free range's start: refused", {{100, 50}}, {90, 11}, false, {{100, 50}}},
    {"covering a free range: refused",
     {{100, 50}, {300, 50}},
     {200, 200},
     false,
     {{100, 50}, {300, 50}}},
};

TEST(FreeSpace, AddMergesWithBothNeighboursAndRefusesFreeBytes) {
  for (const AddCase& test : kAdds) {
    FreeSpace space = Holding(test.before);
    EXPECT_EQ(space.add(test.added.offset, test.added.length), test.accepted) << test.what;
    EXPECT_EQ(space.ranges(), test.after) << test.what;
    EXPECT_EQ(space.checkInvariants(), "") << test.what;
  }
}

struct TakeCase {
  const char* what;
  Ranges free;  // added in this order
  uint32_t want;
  std::optional<FileRange> taken;
  Ranges left;
};

const TakeCase kTakes[] = {
    {"the gap a fresh file's open finds after one entry",
     {{263'216, 256}},
     256,
     FileRange{263'216, 256},
     {}},
    {"the smallest fit, whole when the surplus is small",
     {{1000, 512}, {2000, 300}},
     256,
     FileRange{2000, 300},
     {{1000, 512}}},
    {"split, the tail stays free", {{4000, 1024}}, 256, FileRange{4000, 256}, {{4256, 768}}},
    {"a surplus of exactly minAllocation is taken along",
     {{4000, 512}},
     256,
     FileRange{4000, 512},
     {}},
    {"one byte more is split off", {{4000, 513}}, 256, FileRange{4000, 256}, {{4256, 257}}},
    {"an exact fit", {{1000, 256}, {2000, 4096}}, 256, FileRange{1000, 256}, {{2000, 4096}}},
    {"of equally long ranges the lowest offset, whatever the order of release",
     {{3000, 300}, {2000, 300}, {1000, 400}},
     256,
     FileRange{2000, 300},
     {{1000, 400}, {3000, 300}}},
    {"nothing fits", {{1000, 100}, {2000, 200}}, 256, std::nullopt, {{1000, 100}, {2000, 200}}},
    {"nothing is wanted", {{1000, 100}}, 0, std::nullopt, {{1000, 100}}},
};

TEST(FreeSpace, TakeIsBestFitAndKeepsOnlyALargeTail) {
  for (const TakeCase& test : kTakes) {
    FreeSpace space = Holding(test.free);
    EXPECT_EQ(space.take(test.want), test.taken) << test.what;
    EXPECT_EQ(space.ranges(), test.left) << test.what;
    EXPECT_EQ(space.checkInvariants(), "") << test.what;
  }
}

struct TakeBelowCase {
  const char* what;
  Ranges free;
  uint32_t bound;
  uint32_t want;
  std::optional<FileRange> taken;
  Ranges left;
};

const TakeBelowCase kTakesBelow[] = {
    {"the best fit below the bound, not the better one above it",
     {{1000, 1024}, {5000, 256}},
     5000,
     256,
     FileRange{1000, 256},
     {{1256, 768}, {5000, 256}}},
    {"a range ending exactly at the bound counts",
     {{1000, 1024}, {4744, 256}},
     5000,
     256,
     FileRange{4744, 256},
     {{1000, 1024}}},
    {"a range crossing the bound does not",
     {{4800, 4096}},
     5000,
     256,
     std::nullopt,
     {{4800, 4096}}},
    {"nothing below the bound is long enough",
     {{1000, 100}, {6000, 4096}},
     5000,
     256,
     std::nullopt,
     {{1000, 100}, {6000, 4096}}},
};

TEST(FreeSpace, TakeBelowIsBestFitAmongTheRangesUnderTheBound) {
  for (const TakeBelowCase& test : kTakesBelow) {
    FreeSpace space = Holding(test.free);
    EXPECT_EQ(space.takeBelow(test.bound, test.want), test.taken) << test.what;
    EXPECT_EQ(space.ranges(), test.left) << test.what;
    EXPECT_EQ(space.checkInvariants(), "") << test.what;
  }
}

TEST(FreeSpace, TakeAtTakesOnlyAWholeRangeStartingThere) {
  FreeSpace space = Holding({{1000, 100}, {2000, 300}});
  EXPECT_EQ(space.takeAt(1050), std::nullopt);
  EXPECT_EQ(space.takeAt(2000), (FileRange{2000, 300}));
  EXPECT_EQ(space.ranges(), (Ranges{{1000, 100}}));
  EXPECT_EQ(space.totalBytes(), 100u);
  EXPECT_EQ(space.checkInvariants(), "");
}

// ---- against a reference model ------------------------------------------------

// The same rules written as plainly as possible: an offset-ordered vector,
// searched and merged by linear walks.
class ReferenceFreeSpace {
 public:
  explicit ReferenceFreeSpace(uint32_t minAllocation) : minAllocation_(minAllocation) {}

  bool add(uint32_t offset, uint32_t length) {
    const uint64_t end = uint64_t{offset} + length;
    if (length == 0 || end > FreeSpace::kEndLimit) return false;
    for (const FileRange& range : free_) {
      if (range.offset < end && offset < uint64_t{range.offset} + range.length) return false;
    }
    size_t at = 0;
    while (at < free_.size() && free_[at].offset < offset) ++at;
    free_.insert(free_.begin() + static_cast<ptrdiff_t>(at), FileRange{offset, length});
    if (at + 1 < free_.size() && free_[at].end() == free_[at + 1].offset) {
      free_[at].length += free_[at + 1].length;
      free_.erase(free_.begin() + static_cast<ptrdiff_t>(at + 1));
    }
    if (at > 0 && free_[at - 1].end() == free_[at].offset) {
      free_[at - 1].length += free_[at].length;
      free_.erase(free_.begin() + static_cast<ptrdiff_t>(at));
    }
    return true;
  }

  std::optional<FileRange> take(uint32_t want) {
    size_t best = free_.size();
    for (size_t i = 0; i < free_.size(); ++i) {
      const bool fits = want > 0 && free_[i].length >= want;
      if (fits && (best == free_.size() || free_[i].length < free_[best].length)) best = i;
    }
    if (best == free_.size()) return std::nullopt;
    FileRange& range = free_[best];
    if (uint64_t{want} + minAllocation_ < range.length) {
      const FileRange taken{range.offset, want};
      range = {range.offset + want, range.length - want};
      return taken;
    }
    const FileRange taken = range;
    free_.erase(free_.begin() + static_cast<ptrdiff_t>(best));
    return taken;
  }

  const Ranges& ranges() const { return free_; }

 private:
  uint32_t minAllocation_;
  Ranges free_;
};

constexpr uint32_t kFirstData = 262'960;  // where a fresh file's data starts

struct Workload {
  const char* what;
  uint32_t seed;
  uint32_t minAllocation;
  uint32_t largest;  // entry lengths are uniform in [0, largest]
  int filled;        // allocations made before the first release
  int releasePercent;
  int steps;
};

const Workload kWorkloads[] = {
    {"entries near the minimum: fits are exact or whole", 1, 256, 300, 400, 50, 3000},
    {"50 B to 64 KiB, as under churn", 2, 256, 65'536, 400, 50, 3000},
    {"small minAllocation: most fits split", 3, 16, 4096, 400, 50, 3000},
    {"mostly releases: long runs of merging", 4, 256, 2000, 1500, 70, 3000},
};

class Churn {
 public:
  explicit Churn(const Workload& load)
      : load_(load), random_(load.seed), space_(load.minAllocation), model_(load.minAllocation) {}

  // One random step; false once the two disagree (the failure is recorded).
  bool step() {
    if (++steps_ > load_.filled && !held_.empty() && Percent() < load_.releasePercent) {
      release(std::uniform_int_distribution<size_t>(0, held_.size() - 1)(random_));
    } else {
      allocate();
    }
    if (Percent() < 10) releaseFreeBytesAgain();
    EXPECT_EQ(space_.ranges(), model_.ranges());
    EXPECT_EQ(space_.checkInvariants(), "");
    return !::testing::Test::HasFailure();
  }

  // Gives everything back in random order; the file's data area must then
  // be one free range, whatever was split and merged before.
  void releaseAll() {
    while (!held_.empty()) {
      release(std::uniform_int_distribution<size_t>(0, held_.size() - 1)(random_));
    }
    const Ranges whole{{kFirstData, fileEnd_ - kFirstData}};
    EXPECT_EQ(space_.ranges(), fileEnd_ > kFirstData ? whole : Ranges{});
    EXPECT_EQ(space_.totalBytes(), fileEnd_ - kFirstData);
  }

 private:
  int Percent() { return std::uniform_int_distribution<int>(0, 99)(random_); }

  void allocate() {
    const uint32_t length = std::uniform_int_distribution<uint32_t>(0, load_.largest)(random_);
    const auto want = static_cast<uint32_t>(AllocatedLengthFor(length, load_.minAllocation));
    const std::optional<FileRange> taken = space_.take(want);
    EXPECT_EQ(taken, model_.take(want)) << "want " << want;
    if (taken) {
      held_.push_back(*taken);
    } else {  // the file grows, as the file store does when nothing fits
      held_.push_back({fileEnd_, want});
      fileEnd_ += want;
    }
  }

  void release(size_t index) {
    std::swap(held_[index], held_.back());
    const FileRange range = held_.back();
    held_.pop_back();
    EXPECT_TRUE(space_.add(range.offset, range.length));
    EXPECT_TRUE(model_.add(range.offset, range.length));
  }

  // A release of bytes that are already free must be refused.
  void releaseFreeBytesAgain() {
    const Ranges free = model_.ranges();
    if (free.empty()) return;
    const FileRange range =
        free[std::uniform_int_distribution<size_t>(0, free.size() - 1)(random_)];
    const uint32_t skip = std::uniform_int_distribution<uint32_t>(0, range.length - 1)(random_);
    EXPECT_FALSE(space_.add(range.offset + skip, 1 + skip % 64));
  }

  const Workload& load_;
  std::mt19937 random_;
  FreeSpace space_;
  ReferenceFreeSpace model_;
  std::vector<FileRange> held_;
  uint32_t fileEnd_ = kFirstData;
  int steps_ = 0;
};

TEST(FreeSpace, LongRandomSequencesAgreeWithAReferenceModel) {
  for (const Workload& load : kWorkloads) {
    SCOPED_TRACE(std::string(load.what) + ", seed " + std::to_string(load.seed));
    Churn churn(load);
    int step = 0;
    const int steps = load.filled + load.steps;
    while (step < steps && churn.step()) ++step;
    ASSERT_EQ(step, steps) << "the first disagreement is at this step";
    churn.releaseAll();
  }
}

// ---- the checker ----------------------------------------------------------------

struct BreakCase {
  const char* what;
  void (*breakIt)(FreeSpace&);
  const char* reported;
};

const BreakCase kBreaks[] = {
    {"two touching ranges", [](FreeSpace& s) { FreeSpaceTestAccess::put(s, 150, 10); },
     "overlaps or touches"},
    {"two overlapping ranges", [](FreeSpace& s) { FreeSpaceTestAccess::put(s, 120, 100); },
     "overlaps or touches"},
    {"an empty range", [](FreeSpace& s) { FreeSpaceTestAccess::put(s, 500, 0); }, "empty"},
    {"a range past the limit", [](FreeSpace& s) { FreeSpaceTestAccess::put(s, 0xFFFFFF00, 0x100); },
     "limit"},
    {"a range the size index lacks",
     [](FreeSpace& s) { FreeSpaceTestAccess::dropFromSizeIndex(s, 300); }, "size index 1"},
    {"a length the size index does not know",
     [](FreeSpace& s) { FreeSpaceTestAccess::putInOffsetMapOnly(s, 300, 60); },
     "missing from the size index"},
    {"a wrong total", [](FreeSpace& s) { FreeSpaceTestAccess::miscount(s); }, "the total says"},
};

TEST(FreeSpace, CheckInvariantsCatchesABrokenStructure) {
  for (const BreakCase& test : kBreaks) {
    FreeSpace space = Holding({{100, 50}, {300, 50}});
    ASSERT_EQ(space.checkInvariants(), "") << test.what;
    test.breakIt(space);
    EXPECT_NE(space.checkInvariants().find(test.reported), std::string::npos)
        << test.what << ": " << space.checkInvariants();
  }
}

}  // namespace
}  // namespace Tarn
