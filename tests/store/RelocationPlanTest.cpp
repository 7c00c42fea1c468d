// The plan of a relocation at close: which entries at the end of the file
// move where, checked against hand-drawn layouts, and its invariants over
// random layouts.
#include "store/RelocationPlan.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <ostream>
#include <random>
#include <vector>

namespace Tarn {

void PrintTo(const RelocationPlan::Move& move, std::ostream* out) {
  *out << "entry " << move.id << " [" << move.from.offset << ", " << move.from.end() << ") -> ["
       << move.to.offset << ", " << move.to.end() << ")";
}

namespace {

using Items = std::vector<RelocationPlan::Item>;
using Moves = std::vector<RelocationPlan::Move>;
using Ranges = std::vector<FileRange>;

constexpr uint32_t kMin = 16;  // minimum allocation of every case

struct PlanCase {
  const char* what;
  Items items;
  Ranges free;
  uint32_t fixedEnd;
  uint64_t maxBytes;
  Moves moves;
  uint64_t endAfter;
  bool clearsRoom;
};

const PlanCase kPlans[] = {
    {"no gap: nothing moves", {{0, {100, 50}}, {1, {150, 50}}}, {}, 100, 1000, {}, 200, false},
    {"the last entry into the gap below it",
     {{0, {100, 50}}, {1, {200, 50}}, {2, {300, 50}}},
     {{150, 50}, {250, 50}},
     100,
     1000,
     {{2, {300, 50}, {150, 50}}},
     250,
     false},
    {"the two last entries, each into the best fit below it",
     {{0, {100, 32}}, {1, {200, 32}}, {2, {232, 32}}},
     {{132, 68}},
     100,
     1000,
     // Entry 2 splits the gap; entry 1 takes the rest whole (4 bytes over).
     {{1, {200, 32}, {164, 36}}, {2, {232, 32}, {132, 32}}},
     200,
     false},
    {"an entry picked again moves once, to its last place",
     {{0, {1000, 32}}, {1, {2000, 32}}},
     {{100, 32}, {1500, 32}},
     100,
     1000,
     {{1, {2000, 32}, {100, 32}}},
     1032,
     false},
    {"a range one move leaves is not another's destination",
     {{0, {100, 32}}, {1, {200, 32}}, {2, {300, 32}}},
     {{132, 32}},
     100,
     1000,
     {{2, {300, 32}, {132, 32}}},
     232,
     false},
    {"nothing moves behind the fixed structures",
     {{0, {100, 32}}, {1, {600, 32}}},
     {{132, 100}},
     1000,
     1000,
     {},
     1000,
     false},
    {"the bound stops the plan before an entry it cannot copy whole",
     {{0, {100, 50}}, {1, {300, 40}}, {2, {400, 40}}},
     {{150, 150}},
     100,
     60,
     {{2, {400, 40}, {150, 40}}},
     340,
     false},
    {"a surplus of up to the minimum allocation goes along",
     {{0, {100, 32}}, {1, {200, 32}}},
     {{132, 48}},
     100,
     1000,
     {{1, {200, 32}, {132, 48}}},
     180,
     false},
    {"no gap fits the last entry: the cheapest window is cleared for it",
     // Entry 2 (96 bytes) fits no gap. Windows: [50, 164) holding entry 0
     // (42 bytes to move), [132, 260) holding entry 1 (32), [196, 300)
     // holding entry 3 (40). Entry 1 leaves for the gap at 50.
     {{0, {90, 42}}, {1, {164, 32}}, {2, {300, 96}}, {3, {260, 40}}},
     {{50, 40}, {132, 32}, {196, 64}},
     50,
     1000,
     {{1, {164, 32}, {50, 40}}},
     396,
     true},
    {"no window's entries fit elsewhere: nothing moves",
     // The window [132, 260) holds entry 1, which has nowhere else to go;
     // [260, 300) is claimed by nothing the plan may move.
     {{0, {100, 32}}, {1, {164, 32}}, {2, {300, 96}}},
     {{132, 32}, {196, 64}},
     100,
     1000,
     {},
     396,
     false},
};

TEST(RelocationPlan, MovesTheLastEntriesIntoGapsBelowThem) {
  for (const PlanCase& test : kPlans) {
    FreeSpace free(kMin);
    for (const FileRange& range : test.free) ASSERT_TRUE(free.add(range.offset, range.length));
    const FreeSpace before = free;
    const RelocationPlan plan =
        RelocationPlan::Make(test.items, test.fixedEnd, free, test.maxBytes);
    EXPECT_EQ(plan.moves(), test.moves) << test.what;
    EXPECT_EQ(plan.endAfter(), test.endAfter) << test.what;
    EXPECT_EQ(plan.clearsRoom(), test.clearsRoom) << test.what;
    EXPECT_EQ(plan.check(test.items, before, kMin, test.maxBytes), "") << test.what;
    EXPECT_EQ(free.checkInvariants(), "") << test.what;
  }
}

// A plan whose destinations overlap, or that moves an entry into space that
// was not free, is caught by check().
TEST(RelocationPlan, CheckCatchesABrokenPlan) {
  const Items items{{0, {100, 32}}, {1, {200, 32}}, {2, {300, 32}}};
  FreeSpace free(kMin);
  ASSERT_TRUE(free.add(132, 68));
  ASSERT_TRUE(free.add(232, 68));
  const FreeSpace before = free;
  const RelocationPlan plan = RelocationPlan::Make(items, 100, free, 1000);
  ASSERT_EQ(plan.check(items, before, kMin, 1000), "");
  ASSERT_FALSE(plan.moves().empty());
  FreeSpace lessFree(kMin);
  ASSERT_TRUE(lessFree.add(232, 68));
  EXPECT_NE(plan.check(items, lessFree, kMin, 1000), "");
  EXPECT_NE(plan.check(items, before, kMin, 16), "");
  const Items otherRanges{{0, {100, 32}}, {1, {200, 32}}, {2, {304, 32}}};
  EXPECT_NE(plan.check(otherRanges, before, kMin, 1000), "");
}

// Random layouts: every plan keeps its invariants, lowers the end or leaves
// it, and, carried out, leaves a layout with no two ranges overlapping.
TEST(RelocationPlan, RandomLayoutsKeepTheInvariants) {
  std::mt19937 random(7);
  for (int round = 0; round < 300; ++round) {
    Items items;
    FreeSpace free(kMin);
    uint32_t at = 1000;
    uint32_t lastEnd = at;
    const int count = 1 + static_cast<int>(random() % 40);
    for (int i = 0; i < count; ++i) {
      const uint32_t gap = random() % 3 == 0 ? 16 * (1 + random() % 20) : 0;
      if (gap != 0) {
        ASSERT_TRUE(free.add(at, gap));
      }
      at += gap;
      const uint32_t length = 16 * (1 + random() % 30);
      items.push_back({static_cast<uint32_t>(i), {at, length}});
      at += length;
      lastEnd = at;
    }
    const FreeSpace before = free;
    const uint64_t maxBytes = 16 * (1 + random() % 200);
    const RelocationPlan plan = RelocationPlan::Make(items, 1000, free, maxBytes);
    ASSERT_EQ(plan.check(items, before, kMin, maxBytes), "") << "round " << round;
    ASSERT_LE(plan.endAfter(), lastEnd) << "round " << round;
    ASSERT_EQ(free.checkInvariants(), "") << "round " << round;
    // The destinations left the free space; the sources did not join it.
    uint64_t taken = 0;
    for (const auto& move : plan.moves()) taken += move.to.length;
    ASSERT_EQ(before.totalBytes() - free.totalBytes(), taken) << "round " << round;
  }
}

}  // namespace
}  // namespace Tarn
