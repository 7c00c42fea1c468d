// The ordering rules of the file store that keep the file right after a
// crash, each forced with the device's hold-back seam: a dependent write is
// not issued while the write it depends on is held, and is issued once it is
// released. Also: what a failed write leaves behind, and what commit() waits
// for.
#include <chrono>
#include <future>
#include <map>
#include <memory>
#include <thread>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "platform/IoTrace.h"
#include "pt/Platform.h"
#include "store/FileManager.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/Exceptions.h"

namespace {

using Pt::IoFaultInjection;
using Tarn::FileManager;
using Tarn::PrimaryKey;

constexpr uint32_t kSlot0 = 816, kData0 = 262'960;
constexpr int kHeader = 64;

const auto Key = [](const std::string& key) { return PrimaryKey::FromString(key); };

// Waits, with a generous bound, for a state the store reports.
template <class Predicate>
bool Eventually(Predicate predicate) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!predicate()) {
    if (std::chrono::steady_clock::now() > deadline) return false;
    std::this_thread::yield();
  }
  return true;
}

class FileManagerDurabilityTest : public testing::TestWithParam<bool> {
 protected:
  void SetUp() override {
    Pt::PlatformInit(Pt::Config{.asyncFileIo = true});
    store_ = open();
  }
  void TearDown() override {
    IoFaultInjection::Clear();
    store_.reset();
    Pt::PlatformUninit();
  }
  bool relaxed() const { return GetParam(); }
  std::unique_ptr<FileManager> open(int32_t budget = 0) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = true;
    config.fileBudget = budget;
    config.relaxedOrdering = relaxed();
    return std::make_unique<FileManager>(dir_.wfile("c.tarn").c_str(), nullptr, config,
                                         TarnTest::FactoriesFor({"tile"}));
  }
  // As the cache manager writes: room first (no lock held), then the write.
  void write(const std::string& key, size_t length, uint8_t fill = 0xAB,
             const std::string& secondary = "s") {
    store_->awaitRoom(static_cast<uint32_t>(length));
    const std::vector<uint8_t> data(length, fill);
    store_->write(Key(key), Tarn::SecondaryKey::FromString(secondary), "tile",
                  static_cast<int32_t>(length), data.data());
  }
  void reopen() { store_ = nullptr, store_ = open(); }
  std::vector<uint8_t> file() { return TarnTest::ReadFileBytes(dir_.file("c.tarn")); }
  static int Hold(int length, int count = -1) {
    return IoFaultInjection::Add(
        {.action = IoFaultInjection::Action::HoldBack, .length = length, .count = count});
  }
  FileManager::Stage stageOf(const std::string& key) {
    Pt::MutexLock guard(store_->lock());
    const auto entry = store_->entries().find(Key(key));
    return entry == nullptr ? FileManager::Stage::Settled : entry->stage;
  }
  FileManager::EntryInfo entry(const std::string& key) {
    Pt::MutexLock guard(store_->lock());
    return store_->entries().at(Key(key));
  }

  TarnTest::TempDir dir_;
  TarnTest::PostedExceptions posted_;
  std::unique_ptr<FileManager> store_;
};

// With durable ordering, the header is issued only after a group sync that
// began after the data completed; relaxed ordering syncs nothing.
TEST_P(FileManagerDurabilityTest, HeaderIsIssuedOnlyAfterItsDataIsSynced) {
  Hold(kHeader);
  write("a", 10);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_EQ(store_->groupSyncs(), relaxed() ? 0u : 1u);
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + kHeader));
  IoFaultInjection::Clear();
  store_->commit();
  EXPECT_EQ(TarnTest::U32At(file(), kSlot0 + 52), kData0);
}

// Seen through the device's trace: commit() ends with a flush that covers
// every write before it, and (durable ordering) every header is written only
// after a flush that covers its entry's data.
TEST_P(FileManagerDurabilityTest, CommitFlushesAndHeadersFollowAFlushOfTheirData) {
  Pt::IoTrace::Start();
  for (int i = 0; i < 20; ++i) write("k" + std::to_string(i), 100 + 50 * i);
  store_->commit();
  const std::vector<Pt::IoTrace::Event> events = Pt::IoTrace::Stop();
  ASSERT_FALSE(events.empty());
  size_t writes = 0, coveredByLastFlush = 0;
  std::map<uint32_t, size_t> dataWriteAt;  // data offset -> index among the writes
  for (const Pt::IoTrace::Event& event : events) {
    if (event.type == Pt::IoTrace::Type::FlushEnd) coveredByLastFlush = event.writesCovered;
    if (event.type != Pt::IoTrace::Type::Write) continue;
    if (event.bytes.size() == kHeader && event.offset < kData0) {
      const uint32_t data = TarnTest::U32At(event.bytes, Tarn::EntryHeader::kDataOffsetAt);
      ASSERT_EQ(dataWriteAt.count(data), 1u);
      if (!relaxed()) {
        EXPECT_GT(coveredByLastFlush, dataWriteAt[data]) << "header before a sync";
      }
    } else {
      dataWriteAt[static_cast<uint32_t>(event.offset)] = writes;
    }
    ++writes;
  }
  EXPECT_EQ(events.back().type, Pt::IoTrace::Type::FlushEnd);
  EXPECT_EQ(events.back().writesCovered, writes);  // commit's flush covers everything
}

// Erase and insert again while the first header is in flight: the new header
// waits (parked) until the old one is written and then durably deleted, so
// the file never holds two live headers for the key.
TEST_P(FileManagerDurabilityTest, ReplacementHeaderWaitsUntilTheOldHeaderIsDeleted) {
  Hold(kHeader, 1);
  write("a", 10, 0x01);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));  // the first header is held
  EXPECT_TRUE(store_->erase(Key("a")));
  write("a", 20, 0x02);
  ASSERT_TRUE(Eventually([&] { return stageOf("a") == FileManager::Stage::Parked; }));
  EXPECT_EQ(IoFaultInjection::HeldCount(), 1u);  // the new header was not issued
  const uint32_t newSlot = entry("a").headerOffset;
  IoFaultInjection::ReleaseHeld();
  store_->commit();
  const auto bytes = file();
  EXPECT_TRUE(TarnTest::AllZero(bytes, kSlot0, kSlot0 + kHeader));
  EXPECT_EQ(TarnTest::U32At(bytes, newSlot + 56), 20u);
  reopen();
  EXPECT_EQ(store_->entryCount(), 1);
  EXPECT_EQ(entry("a").header.dataLength, 20u);
}

// An erase of a parked entry frees it at once: no header of it is on disk.
TEST_P(FileManagerDurabilityTest, EraseOfAParkedEntryWritesNothing) {
  Hold(kHeader, 1);
  write("a", 10);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  store_->erase(Key("a"));
  write("a", 10);
  ASSERT_TRUE(Eventually([&] { return stageOf("a") == FileManager::Stage::Parked; }));
  EXPECT_TRUE(store_->erase(Key("a")));
  IoFaultInjection::ReleaseHeld();
  store_->commit();
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 2 * kHeader));
  EXPECT_TRUE(store_->checkInvariants());
  reopen();
  EXPECT_EQ(store_->entryCount(), 0);
}

// commit() waits for the operations issued before it, here a held write.
TEST_P(FileManagerDurabilityTest, CommitWaitsForAnEarlierWriteHeldBack) {
  Hold(1008);
  write("a", 1000);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  auto committed = std::async(std::launch::async, [&] { store_->commit(); });
  EXPECT_EQ(committed.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  IoFaultInjection::ReleaseHeld();
  EXPECT_EQ(committed.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(TarnTest::U32At(file(), kSlot0 + 56), 1000u);
}

// A failed data write or header write takes the entry out of the tables:
// nothing reads back the unwritten range, and it is gone after a reopen.
TEST_P(FileManagerDurabilityTest, FailedWriteLeavesNoEntryBehind) {
  for (const int length : {256, kHeader}) {
    IoFaultInjection::Add({.length = length});
    write("k", 10);
    store_->commit();
    EXPECT_FALSE(store_->contains(Key("k")));
    IoFaultInjection::Clear();
  }
  ASSERT_TRUE(posted_.waitFor(2));  // each failure posted once, at its own site
  EXPECT_EQ(dynamic_cast<Tarn::ExFileWriteEntry&>(*posted_.at(0)).where().line,
            Tarn::kWriteEntryFailed.where.line);
  EXPECT_EQ(dynamic_cast<Tarn::ExFileWriteEntryHeader&>(*posted_.at(1)).where().line,
            Tarn::kWriteEntryHeaderFailed.where.line);
  EXPECT_EQ(store_->writeFailures(), 2);
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 2 * kHeader));
  write("k", 10);  // the freed slot and range serve the next entry
  store_->commit();
  EXPECT_EQ(entry("k").header.dataOffset, kData0);
  EXPECT_TRUE(store_->checkInvariants());
  reopen();
  EXPECT_EQ(store_->entryCount(), 1);
}

// An erased settled entry's slot and data serve the next write, and the
// other entry under its secondary key stays listed, also once reopened.
TEST_P(FileManagerDurabilityTest, EraseOfASettledEntryFreesItsSlotForTheNextWrite) {
  write("a", 10, 0xAB, "shared");
  write("b", 10, 0xAB, "shared");
  store_->commit();
  EXPECT_TRUE(store_->erase(Key("a")));
  std::vector<PrimaryKey> keys;
  store_->findPrimaryKeys(Tarn::SecondaryKey::FromString("shared"), keys);
  EXPECT_EQ(keys, std::vector{Key("b")});
  store_->commit();
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + kHeader));
  reopen();  // the reopened store builds its index from the file
  write("c", 10, 0xAB, "shared");
  store_->erase(Key("b"));
  store_->findPrimaryKeys(Tarn::SecondaryKey::FromString("shared"), keys = {});
  EXPECT_EQ(keys, std::vector{Key("c")});
  EXPECT_EQ(entry("c").headerOffset, kSlot0);
  EXPECT_EQ(entry("c").header.dataOffset, kData0);
}

TEST_P(FileManagerDurabilityTest, BadWritesReserveNothing) {
  write("a", 10);
  const std::vector<uint8_t> data(10);
  Tarn::SecondaryKey tooLong{};
  tooLong.length = 17;
  EXPECT_THROW(store_->write(Key("b"), {}, "nope", 10, data.data()), Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(store_->write(Key("a"), {}, "tile", 10, data.data()), std::invalid_argument);
  EXPECT_THROW(store_->write(Key("b"), tooLong, "tile", 10, data.data()), std::invalid_argument);
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->freeEntryHeaders().front(), kSlot0 + kHeader);
  EXPECT_EQ(store_->fileEnd(), kData0 + 256);
}

// A sync that fails may have lost any write it was to cover: with durable
// ordering the entry waiting on it is dropped and counted; in relaxed
// ordering the only sync is commit's own, which throws.
TEST_P(FileManagerDurabilityTest, FailedSyncIsAFailedWrite) {
  IoFaultInjection::Add({.kind = IoFaultInjection::Kind::DeviceSync, .error = ENOSPC});
  write("a", 10);
  if (relaxed()) {
    EXPECT_THROW(store_->commit(), Pt::ExSystem);
    store_->commit();
    EXPECT_TRUE(store_->contains(Key("a")));
    return;
  }
  store_->commit();
  EXPECT_FALSE(store_->contains(Key("a")));
  EXPECT_EQ(store_->writeFailures(), 1);
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + kHeader));
}

// A failed delete header leaves the old header on disk: the key's next header
// is never written while the store is open, so the file keeps one header.
TEST_P(FileManagerDurabilityTest, FailedDeleteKeepsTheKeyOutOfTheFile) {
  write("a", 10, 0x01);
  store_->commit();
  IoFaultInjection::Add({.length = kHeader});
  store_->erase(Key("a"));
  store_->commit();
  IoFaultInjection::Clear();
  write("a", 30, 0x02);
  store_->commit();
  EXPECT_FALSE(store_->contains(Key("a")));
  EXPECT_EQ(store_->writeFailures(), 2);  // the delete, then the header not written
  reopen();
  EXPECT_EQ(entry("a").header.dataLength, 10u);
  EXPECT_EQ(store_->entryCount(), 1);
}

// The first extent's slots run out; the next extent is linked only after its
// block is on disk. When the block fails, its slots are not handed out and
// the entry placed there is dropped; the next entry tries a new extent.
TEST_P(FileManagerDurabilityTest, ExtentIsLinkedAfterItsBlockAndAFailedOneIsGivenUp) {
  for (uint32_t i = 0; i < Tarn::kEntriesPerExtent; ++i) write("k" + std::to_string(i), 1);
  store_->commit();
  const int64_t firstEnd = store_->fileEnd();
  IoFaultInjection::Add({.length = static_cast<int>(Tarn::kExtentBlockSize)});
  write("lost", 1);
  store_->commit();
  EXPECT_FALSE(store_->contains(Key("lost")));
  IoFaultInjection::Clear();
  EXPECT_EQ(TarnTest::U32At(file(), Tarn::kFirstExtentOffset + 12), 0u);  // not linked

  Hold(static_cast<int>(Tarn::kExtentBlockSize));
  write("kept", 1);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  const uint32_t location = entry("kept").headerOffset - Tarn::kExtentHeaderSize;
  EXPECT_GT(location, firstEnd);  // a new block, not the given-up one
  EXPECT_EQ(TarnTest::U32At(file(), Tarn::kFirstExtentOffset + 12), 0u);
  IoFaultInjection::ReleaseHeld();
  store_->commit();
  EXPECT_EQ(TarnTest::U32At(file(), Tarn::kFirstExtentOffset + 12), location);
  EXPECT_TRUE(store_->checkInvariants());
  reopen();
  EXPECT_TRUE(store_->contains(Key("kept")));
  EXPECT_FALSE(store_->contains(Key("lost")));
  EXPECT_EQ(store_->entryCount(), static_cast<int32_t>(Tarn::kEntriesPerExtent) + 1);
}

// Writers never stop, and every commit() still returns: it waits only for
// what was issued before it.
TEST_P(FileManagerDurabilityTest, CommitReturnsWhileOtherThreadsKeepWriting) {
  std::atomic<bool> stop{false};
  std::vector<std::jthread> writers;
  for (int t = 0; t < 8; ++t) {
    writers.emplace_back([&, t] {
      for (int i = 0; !stop; ++i) {
        const std::string key = std::to_string(t) + "/" + std::to_string(i % 200);
        if (!store_->erase(Key(key))) write(key, 100 + i % 900);
      }
    });
  }
  for (int round = 0; round < 3; ++round) {
    auto committed = std::async(std::launch::async, [&] { store_->commit(); });
    ASSERT_EQ(committed.wait_for(std::chrono::seconds(20)), std::future_status::ready);
  }
  stop = true;
  writers.clear();
  store_->commit();
  EXPECT_TRUE(store_->checkInvariants());
  EXPECT_EQ(store_->openOperations(), 0u);
}

// The checker sees a slot and a range handed back while an entry still owns
// them, the double release a wrong ordering would cause.
TEST_P(FileManagerDurabilityTest, CheckerCatchesSpaceReleasedWhileOwned) {
  write("a", 10);
  store_->commit();
  EXPECT_TRUE(store_->checkInvariants());
  const FileManager::EntryInfo owned = entry("a");
  {
    Pt::MutexLock guard(store_->lock());
    store_->releaseSpace(owned.headerOffset, owned.header.dataOffset + 1024, 256);
  }
  EXPECT_FALSE(store_->checkInvariants());  // the slot is free and owned
}

// With a budget, a write that would grow the file past it first erases the
// least recently used entries (after a reopen: the first in the file) and
// reuses their space once their delete headers are done.
TEST_P(FileManagerDurabilityTest, BudgetEvictsTheLeastRecentlyUsedEntries) {
  constexpr int32_t kBudget = Tarn::kInitialFileSize + 64 * 1024;
  store_ = nullptr;
  store_ = open(kBudget);
  for (int i = 0; i < 8; ++i) write("k" + std::to_string(i), 8000);  // 64,000 bytes
  store_->commit();
  EXPECT_EQ(store_->budgetEvictions(), 0);
  store_ = nullptr;
  store_ = open(kBudget);  // entries rank in file order: k0 is the least recent
  for (int i = 0; i < 3; ++i) write("n" + std::to_string(i), 8000);
  store_->commit();
  EXPECT_LE(store_->fileEnd(), kBudget);
  EXPECT_GE(store_->budgetEvictions(), 3);
  EXPECT_FALSE(store_->contains(Key("k0")));
  EXPECT_TRUE(store_->contains(Key("k7")));
  EXPECT_TRUE(store_->contains(Key("n2")));
  EXPECT_TRUE(store_->checkInvariants());
  reopen();
  EXPECT_TRUE(store_->contains(Key("n2")));
  EXPECT_FALSE(store_->contains(Key("k0")));
}

INSTANTIATE_TEST_SUITE_P(Ordering, FileManagerDurabilityTest, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Relaxed" : "Durable"; });

TEST(FileOperationsTest, WaitThroughWaitsForEarlierOperationsOnly) {
  Tarn::FileOperations operations;
  auto first = operations.begin();
  auto second = operations.begin();
  const uint64_t upTo = first->ticket();
  auto waited = std::async(std::launch::async, [&] { operations.waitThrough(upTo); });
  EXPECT_EQ(waited.wait_for(std::chrono::milliseconds(50)), std::future_status::timeout);
  first.reset();  // the later operation stays open
  EXPECT_EQ(waited.wait_for(std::chrono::seconds(10)), std::future_status::ready);
  EXPECT_EQ(operations.openCount(), 1u);
  second.reset();
  operations.waitAll();
}

}  // namespace
