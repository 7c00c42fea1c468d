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
  table.checkInvariants();
}

TEST(SlotTable, TheLastFreedSlotIsReusedFirst) {
  SlotTable table(1000, 0);
  PendingList none;
  for (const char* key : {"a", "b", "c"}) Start(table, Key(key), SlotState::Reading);
  table.release(Key("a"), none);
  table.release(Key("c"), none);
  EXPECT_EQ(Start(table, Key("d"), SlotState::Reading), 2 * 65536 + 2);
  EXPECT_EQ(Start(table, Key("e"), SlotState::Reading), 2 * 65536 + 0);
  EXPECT_EQ(Start(table, Key("f"), SlotState::Reading), 1 * 65536 + 3) << "a new slot";
  EXPECT_EQ(table.find(Key("a")), nullptr);
  EXPECT_EQ(table.find(Key("d"))->key, Key("d"));
  table.checkInvariants();
}

// One step of a memory scenario: insert an object (size > 0) or touch a key
// (size 0), and the number of objects the step evicts.
struct Step {
  const char* key;
  int size;
  int evicted;
};

struct MemoryCase {
  const char* what;
  int32_t target;
  int32_t slack;
  std::vector<Step> steps;
  std::vector<const char*> resident;
};

const MemoryCase kMemoryCases[] = {
    {"eviction waits for target + slack, then goes down to the target",
     100,
     50,
     {{"a", 40, 0}, {"b", 40, 0}, {"c", 40, 0}, {"d", 40, 2}},
     {"c", "d"}},
    {"a negative slack evicts as soon as memory exceeds the target",
     100,
     -50,
     {{"a", 40, 0}, {"b", 40, 0}, {"c", 40, 1}},
     {"b", "c"}},
    {"a lone large object stays until the next insert goes over",
     100,
     50,
     {{"big", 120, 0}, {"a", 40, 1}},
     {"a"}},
    {"an object over target + slack evicts everything older, then itself",
     100,
     50,
     {{"a", 30, 0}, {"b", 30, 0}, {"huge", 200, 3}},
     {}},
    {"a touch makes an object the most recently used",
     100,
     50,
     {{"a", 40, 0}, {"b", 40, 0}, {"c", 40, 0}, {"a", 0, 0}, {"d", 40, 2}},
     {"a", "d"}},
    {"target + slack does not wrap around", 100, INT_MAX, {{"a", 1000, 0}}, {"a"}},
};

TEST(SlotTable, MemoryIsBoundedWithHysteresis) {
  for (const MemoryCase& test : kMemoryCases) {
    SCOPED_TRACE(test.what);
    SlotTable table(test.target, test.slack);
    std::map<std::string, Pt::SmartPointer<Cacheable>> objects;
    for (const Step& step : test.steps) {
      if (step.size == 0) {
        table.touch(*table.find(Key(step.key)));
        continue;
      }
      Pt::SmartPointer<Cacheable> object(new Sized(step.size));
      objects[step.key] = object;
      table.store(*table.slotAt(Start(table, Key(step.key), SlotState::Reading)), object);
      EXPECT_EQ(table.trim(), step.evicted) << "inserting " << step.key;
      table.checkInvariants();
    }
    int32_t memory = 0;
    for (const char* key : test.resident) {
      ASSERT_NE(table.find(Key(key)), nullptr) << key;
      EXPECT_EQ(table.find(Key(key))->state, SlotState::InMemory) << key;
      memory += objects[key]->size();
    }
    EXPECT_EQ(table.indexedCount(), test.resident.size()) << "evicted keys leave the index";
    EXPECT_EQ(table.inMemoryCount(), test.resident.size());
    EXPECT_EQ(table.memoryInUse(), memory);
    // Evicting drops the table's reference; only ours is left.
    for (const auto& [key, object] : objects) {
      EXPECT_EQ(object->refCount(), table.find(Key(key)) ? 2 : 1) << key;
    }
  }
}

// A table whose 65,536 slots all have a read or a generation in progress,
// except the in-memory keys named.
class FullTable : public ::testing::Test {
 protected:
  void Fill(const std::vector<uint32_t>& inMemory) {
    for (uint32_t n = 0; n < SlotTable::kMaxSlots; ++n) {
      Start(table_, Key(n), n % 2 ? SlotState::Reading : SlotState::Generating);
    }
    for (uint32_t n : inMemory) table_.store(*table_.find(Key(n)), new Sized(10));
  }

  SlotTable table_{1 << 30, 0};
};

TEST_F(FullTable, AllocateEvictsTheLeastRecentlyUsedObject) {
  Fill({7, 8, 9});
  table_.touch(*table_.find(Key(7)));
  const int32_t oldId = table_.find(Key(8))->requestId();
  int evicted = 0;
  const int32_t id = table_.allocate(Key("new"), evicted);
  EXPECT_EQ(evicted, 1);
  EXPECT_EQ(table_.find(Key(8)), nullptr);
  EXPECT_EQ(id, oldId + 65536) << "the evicted object's slot, next generation";
  EXPECT_EQ(table_.slotCount(), SlotTable::kMaxSlots);
  EXPECT_EQ(table_.inMemoryCount(), 2u);
  EXPECT_EQ(table_.memoryInUse(), 20);
  table_.slotAt(id)->state = SlotState::Reading;
  table_.checkInvariants();
}

TEST_F(FullTable, AllocateThrowsAndChangesNothingWhenNothingCanBeEvicted) {
  Fill({});
  int evicted = 0;
  try {
    table_.allocate(Key("new"), evicted);
    FAIL() << "no exception";
  } catch (const Pt::Exception& error) {
    EXPECT_EQ(error.message(), kSlotTableFullMessage);
    EXPECT_STREQ(error.where().file, kSlotTableFull.where.file);
    EXPECT_EQ(error.where().line, kSlotTableFull.where.line);
  }
  EXPECT_EQ(evicted, 0);
  EXPECT_EQ(table_.find(Key("new")), nullptr);
  EXPECT_EQ(table_.indexedCount(), SlotTable::kMaxSlots);
  EXPECT_EQ(table_.slotCount(), SlotTable::kMaxSlots);
  table_.checkInvariants();

  // Once a request ends, its slot is the one taken.
  PendingList none;
  const int32_t freed = table_.find(Key(1234u))->requestId();
  table_.release(Key(1234u), none);
  EXPECT_EQ(Start(table_, Key("new"), SlotState::Reading), freed + 65536);
  table_.checkInvariants();
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
  EXPECT_EQ(released.state, SlotState::Generating);
  EXPECT_EQ(released.requestId, id);
  ASSERT_EQ(out.size(), 3u);
  EXPECT_EQ(out[0].receiver, earlier);
  EXPECT_EQ(out[1].receiver, first);
  EXPECT_EQ(out[2].receiver, second);
  EXPECT_EQ(out[2].requestId, id);
  EXPECT_TRUE(table.slotAt(id)->waiting.empty());
  EXPECT_EQ(table.slotAt(id)->generation, 1u) << "changes only at the next use";
  EXPECT_FALSE(table.release(Key("k"), out).found);
  EXPECT_EQ(out.size(), 3u);
  table.checkInvariants();
}

}  // namespace
}  // namespace Tarn
