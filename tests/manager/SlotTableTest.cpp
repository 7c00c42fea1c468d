#include "manager/SlotTable.h"

#include <gtest/gtest.h>

#include <climits>
#include <map>
#include <string>
#include <vector>

#include "core/RaiseSites.h"

namespace Tarn {
namespace {

// An object with a fixed cost, so that memory arithmetic is visible.
class Sized : public Cacheable {
 public:
  explicit Sized(int size) : Cacheable("sized"), size_(size) {}
  int size() override { return size_; }

 private:
  int size_;
};

class NullReceiver : public CacheableReceiver {
 public:
  void found(int, const PrimaryKey&, const Pt::SmartPointer<Cacheable>&) override {}
  void cancelled(int, const PrimaryKey&) override {}
  void failed(int, const PrimaryKey&, const Pt::Exception&) override {}
};

PrimaryKey Key(const std::string& name) {
  return PrimaryKey::FromString(name);
}
PrimaryKey Key(uint32_t n) {
  return PrimaryKey::FromBytes(&n, sizeof n);
}

// Takes a slot for `key` and puts it in `state`, as the cache manager does
// before it lets go of its lock.
int32_t Start(SlotTable& table, const PrimaryKey& key, SlotState state) {
  int evicted = 0;
  const int32_t id = table.allocate(key, evicted);
  EXPECT_EQ(evicted, 0);
  table.slotAt(id)->state = state;
  return id;
}

TEST(SlotTable, RequestIdsNameOneUseOfOneSlot) {
  SlotTable table(1000, 0);
  PendingList none;
  EXPECT_EQ(Start(table, Key("a"), SlotState::Reading), 65536);  // generation 1, slot 0
  table.release(Key("a"), none);
  EXPECT_EQ(Start(table, Key("b"), SlotState::Reading), 131072);  // the same slot, used again
  table.release(Key("b"), none);

  // Generations 3 .. 65535 of slot 0; past 32767 the id is negative and must
  // still lead back to its slot.
  int32_t id = 0;
  for (uint32_t generation = 3; generation <= SlotTable::kMaxGeneration; ++generation) {
    id = Start(table, Key("c"), SlotState::Generating);
    table.release(Key("c"), none);
  }
  EXPECT_EQ(static_cast<uint32_t>(id), 0xFFFF0000u);
  EXPECT_EQ(table.slotAt(id), table.slotAt(65536));
  EXPECT_EQ(Start(table, Key("d"), SlotState::Reading), 65536) << "generation 0 is skipped";
  EXPECT_EQ(table.slotCount(), 1u);
  EXPECT_EQ(table.slotAt(65536 + 1), nullptr) << "beyond the table";
  EXPECT_EQ(table.checkInvariants(), "");
}

// A memory scenario: each step inserts an object (size > 0) or touches a key
// (size 0) and evicts the given number of objects; `resident` is what stays.
struct Step {
  char key;
  int size, evicted;
};
struct MemoryCase {
  const char* what;
  int32_t target, slack;
  std::vector<Step> steps;
  std::string resident;
};

const MemoryCase kMemoryCases[] = {
    {"evicts past target + slack, down to target",
     100,
     50,
     {{'a', 40, 0}, {'b', 40, 0}, {'c', 40, 0}, {'d', 40, 2}},
     "cd"},
    {"negative slack", 100, -50, {{'a', 40, 0}, {'b', 40, 0}, {'c', 40, 1}}, "bc"},
    {"a lone large object stays", 100, 50, {{'B', 120, 0}, {'a', 40, 1}}, "a"},
    {"a huge object evicts all, then itself",
     100,
     50,
     {{'a', 30, 0}, {'b', 30, 0}, {'H', 200, 3}},
     ""},
    {"touch", 100, 50, {{'a', 40, 0}, {'b', 40, 0}, {'c', 40, 0}, {'a', 0, 0}, {'d', 40, 2}}, "ad"},
    {"target + slack does not wrap", 100, INT_MAX, {{'a', 1000, 0}}, "a"},
    // The bounds themselves: nothing is evicted at target + slack, one byte
    // more starts eviction, and it stops exactly at the target.
    {"one below target + slack", 100, 50, {{'a', 100, 0}, {'b', 49, 0}}, "ab"},
    {"exactly target + slack", 100, 50, {{'a', 100, 0}, {'b', 50, 0}}, "ab"},
    {"one above target + slack", 100, 50, {{'a', 100, 0}, {'b', 51, 1}}, "b"},
    {"eviction stops exactly at target", 100, 50, {{'a', 51, 0}, {'b', 50, 0}, {'c', 50, 1}}, "bc"},
    {"eviction stops one below target", 100, 50, {{'a', 52, 0}, {'b', 49, 0}, {'c', 50, 1}}, "bc"},
    {"zero slack: exactly target stays", 100, 0, {{'a', 60, 0}, {'b', 40, 0}, {'c', 1, 1}}, "bc"},
};

TEST(SlotTable, MemoryIsBoundedWithHysteresis) {
  for (const MemoryCase& test : kMemoryCases) {
    SCOPED_TRACE(test.what);
    SlotTable table(test.target, test.slack);
    std::map<char, Pt::SmartPointer<Cacheable>> objects;
    for (const Step& step : test.steps) {
      const PrimaryKey key = Key(std::string(1, step.key));
      if (step.size == 0) {
        table.touch(*table.find(key));
        continue;
      }
      objects[step.key] = new Sized(step.size);
      table.store(*table.slotAt(Start(table, key, SlotState::Reading)), objects[step.key]);
      EXPECT_EQ(table.trim(), step.evicted) << "inserting " << step.key;
      EXPECT_EQ(table.checkInvariants(), "");
    }
    int32_t memory = 0;
    for (char key : test.resident) {
      ASSERT_NE(table.find(Key(std::string(1, key))), nullptr) << key;
      memory += objects[key]->size();
    }
    EXPECT_EQ(table.indexedCount(), test.resident.size()) << "evicted keys leave the index";
    EXPECT_EQ(table.memoryInUse(), memory);
    // Evicting drops the table's reference; only ours is left.
    for (const auto& [key, object] : objects) {
      EXPECT_EQ(object->refCount(), 1 + (test.resident.find(key) != std::string::npos)) << key;
    }
  }
}

// With all 65,536 slots busy, allocate throws and changes nothing; once
// objects are in memory, it evicts the least recently used one instead.
TEST(SlotTable, FullTableEvictsOrThrowsUnchanged) {
  SlotTable table(1 << 30, 0);
  for (uint32_t n = 0; n < SlotTable::kMaxSlots; ++n) {
    Start(table, Key(n), n % 2 ? SlotState::Reading : SlotState::Generating);
  }
  int evicted = 0;
  try {
    table.allocate(Key("new"), evicted);
    FAIL() << "no exception";
  } catch (const Pt::Exception& error) {
    EXPECT_EQ(error.message(), kSlotTableFullMessage);
    EXPECT_STREQ(error.where().file, kSlotTableFull.where.file);
    EXPECT_EQ(error.where().line, kSlotTableFull.where.line);
  }
  EXPECT_EQ(evicted, 0);
  EXPECT_EQ(table.find(Key("new")), nullptr);
  EXPECT_EQ(table.indexedCount(), SlotTable::kMaxSlots);
  EXPECT_EQ(table.checkInvariants(), "");

  for (uint32_t n : {7, 8, 9}) table.store(*table.find(Key(n)), new Sized(10));
  table.touch(*table.find(Key(7u)));
  const int32_t oldId = table.find(Key(8u))->requestId();
  const int32_t id = table.allocate(Key("new"), evicted);
  EXPECT_EQ(evicted, 1);
  EXPECT_EQ(table.find(Key(8u)), nullptr);
  EXPECT_EQ(id, oldId + 65536) << "the evicted object's slot, next generation";
  EXPECT_EQ(table.memoryInUse(), 20);
  table.slotAt(id)->state = SlotState::Reading;
  EXPECT_EQ(table.checkInvariants(), "");
}

TEST(SlotTable, ReleaseHandsOverWaitingReceiversInOrder) {
  SlotTable table(1000, 0);
  Pt::SmartPointer<CacheableReceiver> first(new NullReceiver), second(new NullReceiver);
  Pt::SmartPointer<CacheableReceiver> earlier(new NullReceiver);
  const int32_t id = Start(table, Key("k"), SlotState::Generating);
  table.slotAt(id)->waiting = {{id, Key("k"), first}, {id, Key("k"), second}};
  PendingList out{{7, Key("other"), earlier}};

  const SlotTable::Released released = table.release(Key("k"), out);
  EXPECT_TRUE(released.found);
  EXPECT_EQ(released.requestId, id);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].receiver, earlier);
  EXPECT_EQ(out[1].receiver, first);
  EXPECT_EQ(out[2].receiver, second);
  EXPECT_EQ(table.slotAt(id)->generation, 1u) << "changes only at the next use";
  EXPECT_FALSE(table.release(Key("k"), out).found);
  EXPECT_EQ(out.size(), 3u);
  EXPECT_EQ(table.checkInvariants(), "");
}

}  // namespace
}  // namespace Tarn
