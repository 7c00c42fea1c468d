#include "store/EntryTable.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <list>
#include <map>
#include <random>
#include <stdexcept>
#include <string>
#include <vector>

namespace Tarn {
namespace {

PrimaryKey Key(uint32_t n) {
  return PrimaryKey::FromString("key-" + std::to_string(n));
}

FileEntryInfo Info(uint32_t serial) {
  FileEntryInfo info;
  info.serial = serial;
  return info;
}

// Every key in one home slot: every probe walks the whole run.
uint64_t OneHome(const PrimaryKey&) {
  return 7;
}

// Keys collide on their first byte only: runs of many lengths that overlap.
uint64_t FirstByte(const PrimaryKey& key) {
  return key.length > 0 ? key.data[0] : 0;
}

// The reference: a map for the contents and a list for the recency.
class Model {
 public:
  void insert(const PrimaryKey& key, uint32_t serial) {
    if (serials_.emplace(key, serial).second) recency_.push_back(key);
  }
  void erase(const PrimaryKey& key) {
    if (serials_.erase(key) != 0) recency_.remove(key);
  }
  void touch(const PrimaryKey& key) {
    recency_.remove(key);
    recency_.push_back(key);
  }
  const std::map<PrimaryKey, uint32_t>& serials() const { return serials_; }
  const std::list<PrimaryKey>& recency() const { return recency_; }

 private:
  std::map<PrimaryKey, uint32_t> serials_;
  std::list<PrimaryKey> recency_;
};

void ExpectSame(const EntryTable& table, const Model& model) {
  ASSERT_TRUE(table.checkInvariants());
  ASSERT_EQ(table.size(), model.serials().size());
  for (const auto& [key, serial] : model.serials()) {
    const FileEntryInfo* info = table.find(key);
    ASSERT_NE(info, nullptr) << key.view();
    EXPECT_EQ(info->serial, serial);
  }
  auto expected = model.recency().begin();
  for (uint32_t at = table.leastRecent(); at != EntryTable::kNone; at = table[at].next) {
    ASSERT_NE(expected, model.recency().end());
    EXPECT_EQ(table[at].key, *expected++);
  }
  EXPECT_EQ(expected, model.recency().end());
}

// Long random sequences against the reference, with the seed printed so a
// failure can be replayed.
void RunAgainstModel(EntryTable& table, uint32_t keySpace, int steps) {
  const uint32_t seed = std::random_device{}();
  std::printf("EntryTable model seed %u\n", seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 random(seed);
  Model model;
  for (int step = 0; step < steps; ++step) {
    const PrimaryKey key = Key(random() % keySpace);
    const uint32_t serial = static_cast<uint32_t>(step);
    switch (random() % 4) {
      case 0:
      case 1: {
        const bool absent = !table.contains(key);
        EXPECT_EQ(table.insert(key, Info(serial)) != EntryTable::kNone, absent);
        model.insert(key, serial);
        break;
      }
      case 2:
        EXPECT_EQ(table.erase(key), model.serials().count(key) != 0);
        model.erase(key);
        break;
      case 3:
        if (const uint32_t at = table.position(key); at != EntryTable::kNone) {
          table.touch(at);
          model.touch(key);
        }
        break;
    }
    if (step % 97 == 0) {
      ASSERT_NO_FATAL_FAILURE(ExpectSame(table, model));
    }
  }
  ASSERT_NO_FATAL_FAILURE(ExpectSame(table, model));
}

TEST(EntryTable, MatchesAMapAndAListOverLongRandomSequences) {
  EntryTable table;
  RunAgainstModel(table, 3000, 60000);
}

TEST(EntryTable, MatchesTheModelWhenEveryKeyCollides) {
  EntryTable table(&OneHome);
  RunAgainstModel(table, 200, 20000);
}

TEST(EntryTable, MatchesTheModelWhenKeysCollideOnTheirFirstByte) {
  EntryTable table(&FirstByte);
  RunAgainstModel(table, 2000, 30000);
}

TEST(EntryTable, EraseOfTheOnlyTheLastAndTheLeastRecentEntry) {
  EntryTable table;
  ASSERT_EQ(table.insert(Key(1), Info(1)), 0u);
  EXPECT_TRUE(table.erase(Key(1)));
  EXPECT_TRUE(table.empty());
  EXPECT_EQ(table.leastRecent(), EntryTable::kNone);
  EXPECT_EQ(table.mostRecent(), EntryTable::kNone);
  EXPECT_FALSE(table.erase(Key(1)));

  for (uint32_t n = 1; n <= 3; ++n) table.insert(Key(n), Info(n));
  table.eraseAt(2);  // the last position, the most recent
  EXPECT_EQ(table[table.mostRecent()].key, Key(2));
  table.eraseAt(table.leastRecent());  // key 1: key 2 moves into its place
  ASSERT_EQ(table.size(), 1u);
  EXPECT_EQ(table.position(Key(2)), 0u);
  EXPECT_EQ(table.leastRecent(), 0u);
  EXPECT_EQ(table.mostRecent(), 0u);
  EXPECT_TRUE(table.checkInvariants());
}

TEST(EntryTable, ReinsertAfterEraseIsTheMostRecentWithItsNewInfo) {
  EntryTable table;
  for (uint32_t n = 1; n <= 3; ++n) table.insert(Key(n), Info(n));
  EXPECT_EQ(table.insert(Key(1), Info(99)), EntryTable::kNone);  // present: unchanged
  EXPECT_EQ(table.at(Key(1)).serial, 1u);
  ASSERT_TRUE(table.erase(Key(1)));
  EXPECT_THROW(table.at(Key(1)), std::out_of_range);
  ASSERT_NE(table.insert(Key(1), Info(7)), EntryTable::kNone);
  EXPECT_EQ(table.at(Key(1)).serial, 7u);
  EXPECT_EQ(table[table.mostRecent()].key, Key(1));
  EXPECT_EQ(table[table.leastRecent()].key, Key(2));
  EXPECT_TRUE(table.checkInvariants());
}

TEST(EntryTable, OnlySignificantBytesTellKeysApart) {
  EntryTable table;
  PrimaryKey a = PrimaryKey::FromString("same");
  PrimaryKey b = a;
  b.data[20] = 0x5a;  // behind the length: not part of the key
  table.insert(a, Info(1));
  EXPECT_EQ(table.position(b), 0u);
  // Keys that share every byte but the last, and a shorter prefix.
  PrimaryKey c = PrimaryKey::FromString("samf");
  PrimaryKey d = PrimaryKey::FromString("sam");
  table.insert(c, Info(2));
  table.insert(d, Info(3));
  EXPECT_EQ(table.at(a).serial, 1u);
  EXPECT_EQ(table.at(c).serial, 2u);
  EXPECT_EQ(table.at(d).serial, 3u);
}

TEST(EntryTable, GrowsFromEmptyAndAfterReserveKeepsEveryEntry) {
  for (const size_t reserved : {size_t{0}, size_t{5000}}) {
    EntryTable table;
    table.reserve(reserved);
    for (uint32_t n = 0; n < 5000; ++n) ASSERT_NE(table.insert(Key(n), Info(n)), EntryTable::kNone);
    ASSERT_TRUE(table.checkInvariants());
    for (uint32_t n = 0; n < 5000; n += 2) ASSERT_TRUE(table.erase(Key(n)));
    ASSERT_TRUE(table.checkInvariants());
    EXPECT_EQ(table.size(), 2500u);
    for (uint32_t n = 0; n < 5000; ++n) {
      EXPECT_EQ(table.contains(Key(n)), n % 2 == 1) << n;
    }
    uint32_t expected = 1;  // the survivors keep their insertion order
    for (uint32_t at = table.leastRecent(); at != EntryTable::kNone; at = table[at].next) {
      EXPECT_EQ(table[at].info.serial, expected);
      expected += 2;
    }
  }
}

// The load's path: appended entries, indexed in one pass, are found and keep
// their order, with and without colliding hashes; a key appended twice is
// refused and leaves an empty, usable table.
TEST(EntryTable, AppendedEntriesIndexedInOnePass) {
  for (const EntryTable::KeyHash hash : {EntryTable::KeyHash{nullptr}, &OneHome}) {
    EntryTable table = hash == nullptr ? EntryTable() : EntryTable(hash);
    const uint32_t count = hash == nullptr ? 20'000 : 300;
    table.reserve(count);
    for (uint32_t n = 0; n < count; ++n) table.append(Key(n), Info(n));
    table.indexAppended();
    ASSERT_TRUE(table.checkInvariants());
    for (uint32_t n = 0; n < count; ++n) ASSERT_EQ(table.at(Key(n)).serial, n);
    EXPECT_EQ(table[table.leastRecent()].info.serial, 0u);
    EXPECT_EQ(table[table.mostRecent()].info.serial, count - 1);

    EntryTable twice = hash == nullptr ? EntryTable() : EntryTable(hash);
    for (uint32_t n = 0; n < 40; ++n) twice.append(Key(n % 39), Info(n));
    EXPECT_THROW(twice.indexAppended(), std::invalid_argument);
    EXPECT_TRUE(twice.empty());
    EXPECT_TRUE(twice.checkInvariants());
    EXPECT_NE(twice.insert(Key(1), Info(1)), EntryTable::kNone);
  }
}

}  // namespace
}  // namespace Tarn
