#include "store/FreeSpace.h"

#include <gtest/gtest.h>

#include <list>
#include <optional>
#include <ostream>
#include <vector>

namespace Tarn {

void PrintTo(const FileRange& range, std::ostream* out) {
  *out << "{" << range.offset << ", " << range.length << "}";
}

namespace {

using Ranges = std::vector<FileRange>;

Ranges ToVector(const std::list<FileRange>& list) {
  return Ranges(list.begin(), list.end());
}

struct AddCase {
  const char* what;
  Ranges before;
  FileRange added;
  Ranges after;
};

// Offset-ordered lists, as the open builds them: the insert keeps them
// ordered and merged.
const AddCase kOffsetOrdered[] = {
    {"merged with its predecessor", {{100, 50}, {300, 50}}, {150, 50}, {{100, 100}, {300, 50}}},
    {"merged with its successor", {{100, 50}, {300, 50}}, {250, 50}, {{100, 50}, {250, 100}}},
    {"merged with both into one", {{100, 50}, {200, 50}}, {150, 50}, {{100, 150}}},
    {"onto the end of the last", {{100, 50}}, {150, 10}, {{100, 60}}},
    {"onto the front of the first", {{100, 50}}, {80, 20}, {{80, 70}}},
    {"at the first range's offset: dropped",
     {{100, 50}, {300, 50}},
     {100, 200},
     {{100, 50}, {300, 50}}},
    // Only the first range is checked for a repeat.
    {"at a later range's offset: inserted before it",
     {{100, 50}, {300, 50}},
     {300, 10},
     {{100, 50}, {300, 10}, {300, 50}}},
    // 0x80000000 is negative as a signed offset, so it goes before the
    // first range instead of extending it.
    {"offsets compared as signed numbers",
     {{0x7fffff00, 0x100}},
     {0x80000000, 16},
     {{0x80000000, 16}, {0x7fffff00, 0x100}}},
};

// Length-ordered lists, as allocation leaves them: the walk goes as if the
// list were in offset order and stops where that order says, so a range may
// stay beside a free neighbour that an offset-ordered merge would join.
const AddCase kLengthOrdered[] = {
    {"before the first by offset, although another range ends where it starts",
     {{1000, 16}, {100, 32}, {500, 64}},
     {132, 100},
     {{132, 100}, {1000, 16}, {100, 32}, {500, 64}}},
    {"joins the first and leaves its other neighbour split",
     {{200, 16}, {600, 32}, {100, 64}},
     {164, 36},
     {{164, 52}, {600, 32}, {100, 64}}},
    {"stops at the first larger offset, before reaching its neighbour",
     {{100, 16}, {900, 32}, {300, 64}},
     {364, 36},
     {{100, 16}, {364, 36}, {900, 32}, {300, 64}}},
    {"after extending a range, merges only the next range in the list",
     {{100, 8}, {300, 16}, {112, 32}},
     {108, 4},
     {{100, 12}, {300, 16}, {112, 32}}},
};

template <size_t N>
void RunAdds(const AddCase (&cases)[N]) {
  for (const AddCase& test : cases) {
    std::list<FileRange> list(test.before.begin(), test.before.end());
    AddRange(test.added.offset, test.added.length, list);
    EXPECT_EQ(ToVector(list), test.after) << test.what;
  }
}

TEST(AddRange, MergesNeighboursAndWalksInOffsetOrder) {
  RunAdds(kOffsetOrdered);
  RunAdds(kLengthOrdered);
}

// Fills a FreeSpace with `ranges` in this order; every add goes to the end
// because offsets ascend.
FreeSpace Holding(const Ranges& ranges, uint32_t minAllocation = 256) {
  FreeSpace space(minAllocation);
  for (const FileRange& range : ranges) space.add(range.offset, range.length);
  return space;
}

struct TakeCase {
  const char* what;
  Ranges free;
  uint32_t want;
  std::optional<FileRange> taken;
  Ranges left;
};

const TakeCase kTakes[] = {
    {"the smallest fit, whole when the surplus is small",
     {{1000, 512}, {2000, 300}},
     256,
     FileRange{2000, 256},
     {{1000, 512}}},
    {"split, the tail stays free", {{4000, 1024}}, 256, FileRange{4000, 256}, {{4256, 768}}},
    {"a surplus of exactly minAllocation is not split off",
     {{4000, 512}},
     256,
     FileRange{4000, 256},
     {}},
    {"one byte more is", {{4000, 513}}, 256, FileRange{4000, 256}, {{4256, 257}}},
    {"an exact fit", {{1000, 256}, {2000, 4096}}, 256, FileRange{1000, 256}, {{2000, 4096}}},
    {"the first of equally long ranges",
     {{1000, 400}, {2000, 300}, {3000, 300}},
     256,
     FileRange{2000, 256},
     {{3000, 300}, {1000, 400}}},
    // The tail goes back through AddRange into the length-ordered list: by
    // offset it lands before the range of 5000.
    {"the tail is inserted by offset, not by length",
     {{1000, 1024}, {5000, 256}},
     512,
     FileRange{1000, 512},
     {{1512, 512}, {5000, 256}}},
    {"nothing fits", {{1000, 100}, {2000, 200}}, 256, std::nullopt, {{1000, 100}, {2000, 200}}},
};

TEST(FreeSpace, TakeIsBestFitAndGivesBackOnlyALargeTail) {
  for (const TakeCase& test : kTakes) {
    FreeSpace space = Holding(test.free);
    EXPECT_EQ(space.take(test.want), test.taken) << test.what;
    EXPECT_EQ(ToVector(space.ranges()), test.left) << test.what;
  }
}

}  // namespace
}  // namespace Tarn
