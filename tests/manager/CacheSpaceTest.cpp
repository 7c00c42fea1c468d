// The cache file follows the live data: space behind the last live range is
// cut off at the open, and clear() takes the file back to its empty size,
// also when it is interrupted at any of its steps.
#include <filesystem>
#include <future>
#include <string>
#include <vector>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"
#include "support/RawCacheFile.h"

namespace {

using Pt::IoFaultInjection;
using Kind = IoFaultInjection::Kind;
using Action = IoFaultInjection::Action;
using TarnTest::RecordingReceiver;

constexpr uint64_t kEmptyFile = 262'960;
constexpr uint64_t kExtentBlock = 262'160;

class CacheSpaceTest : public TarnTest::CacheFixture {
 protected:
  uint64_t fileSize() { return std::filesystem::file_size(dir_.file("cache.tarn")); }

  // The entry's bytes as a reader gets them back; empty when it is missing.
  std::vector<uint8_t> readBack(const std::string& key) {
    Tarn::Serialize reader(cache_.get());
    const Pt::SmartPointer<Tarn::Cacheable>& found = reader.find(Key(key));
    if (!found) return {};
    const auto data = found->encode(false);
    return std::vector<uint8_t>(data->bytes(), data->bytes() + data->length());
  }

  void insertFilled(const std::string& key, size_t size) {
    cache_->insert(Key(key), Secondary("s"), Object(size, Fill(key)).get());
  }
  static uint8_t Fill(const std::string& key) {
    return static_cast<uint8_t>(std::hash<std::string>{}(key) | 1);
  }
  void expectExact(const std::string& key, size_t size) {
    EXPECT_EQ(readBack(key), std::vector<uint8_t>(size, Fill(key))) << key;
  }
};

// Before, each round appended its entries behind the previous round's, so
// the file grew by 1 MB a round for no entry at all.
TEST_F(CacheSpaceTest, RoundsOfInsertAndEraseDoNotGrowTheFile) {
  std::vector<uint64_t> afterClose;
  for (int round = 0; round < 3; ++round) {
    open();
    EXPECT_EQ(fileSize(), kEmptyFile) << round;
    EXPECT_EQ(stats().fileSize, static_cast<int32_t>(kEmptyFile)) << round;
    for (int i = 0; i < 100; ++i) insert("k" + std::to_string(i), 10'240);
    for (int i = 0; i < 100; ++i) cache_->erase(Key("k" + std::to_string(i)));
    cache_->commit();
    close();
    afterClose.push_back(fileSize());
  }
  // The close itself cuts the file behind its last live range (none here).
  EXPECT_EQ(afterClose, std::vector<uint64_t>(3, kEmptyFile));
}

// Only what lies behind the last live allocation goes; the entries in front
// of it, and the gaps between them, stay as they were.
TEST_F(CacheSpaceTest, OpenCutsOnlyBehindTheLastLiveRange) {
  open();
  insertFilled("a", 1000);  // 262,960 + 1008
  insertFilled("b", 5000);  // + 5008
  insertFilled("c", 9000);  // + 9008
  cache_->erase(Key("a"));
  cache_->erase(Key("c"));
  close();
  EXPECT_EQ(fileSize(), kEmptyFile + 1008 + 5008 + 9008);
  open();
  EXPECT_EQ(fileSize(), kEmptyFile + 1008 + 5008);
  expectExact("b", 5000);
  insertFilled("d", 1000);  // fits the gap that "a" left
  EXPECT_EQ(stats().fileSize, static_cast<int32_t>(kEmptyFile + 1008 + 5008));
  close();
  open();
  expectExact("d", 1000);
  expectExact("b", 5000);
}

// A failed cut ends the open with its own raise site; the file is intact,
// and the next open cuts it.
TEST_F(CacheSpaceTest, FailedCutAtOpenLeavesAFileThatOpens) {
  open();
  insertFilled("a", 100);
  insertFilled("b", 100);
  cache_->erase(Key("b"));
  close();
  for (const Kind kind : {Kind::SyncTruncate, Kind::Sync}) {
    IoFaultInjection::Add({.kind = kind, .error = EIO});
    try {
      open();
      ADD_FAILURE() << "the open did not fail";
    } catch (const Pt::ExSystem& error) {
      EXPECT_EQ(error.where().line, Tarn::kOpenTrimTrailing.where.line);
    }
    IoFaultInjection::Clear();
  }
  open();
  EXPECT_EQ(fileSize(), kEmptyFile + 256);
  expectExact("a", 100);
}

// 4,097 entries take a second extent; clear() leaves the file as a new one
// is, and the extents appended afterwards are linked from the first again.
TEST_F(CacheSpaceTest, ClearEmptiesMemoryAndFileAndTheFileGrowsAgainAfterwards) {
  open();
  constexpr int kEntries = 4097;
  for (int i = 0; i < kEntries; ++i) insert("k" + std::to_string(i), 16);
  cache_->commit();
  ASSERT_GT(fileSize(), kEmptyFile + kExtentBlock);
  cache_->clear();
  EXPECT_EQ(fileSize(), kEmptyFile);
  auto s = stats();
  EXPECT_EQ(std::tuple(s.fileEntries, s.entriesInMemory, s.erased, s.fileSize),
            std::tuple(0, 0, kEntries, static_cast<int32_t>(kEmptyFile)));
  EXPECT_FALSE(cache_->isCached(Key("k0")));
  for (int i = 0; i < kEntries; ++i) insertFilled("n" + std::to_string(i), 16);
  close();
  open();
  EXPECT_EQ(stats().fileEntries, kEntries);
  expectExact("n0", 16);
  expectExact("n4096", 16);  // in the extent appended after the clear
  EXPECT_FALSE(cache_->isCached(Key("k4096")));
}

TEST_F(CacheSpaceTest, ClearCancelsWaitingReceiversAndReleasesObjects) {
  open();
  factory_->closeGate();
  Pt::SmartPointer<RecordingReceiver> waiting(new RecordingReceiver);
  const int id = cache_->findCreate(Key("slow"), Secondary(""), "tile", waiting.get());
  ASSERT_TRUE(factory_->waitEntered(1));
  auto object = Object(10);
  cache_->insert(Key("held"), Secondary(""), object.get());
  cache_->clear();
  ASSERT_TRUE(waiting->waitFor(1));
  EXPECT_EQ(waiting->calls()[0].kind, TarnTest::ReceiverCall::Cancelled);
  EXPECT_EQ(waiting->calls()[0].requestId, id);
  EXPECT_EQ(object->refCount(), 1);  // the cache let go of it
  factory_->openGate();
  EXPECT_FALSE(cache_->isCached(Key("held")));
}

// A kill at any step of clear() leaves the file as the step found it: each
// such image opens with no entry. The steps are held one by one; the file
// is copied while the step waits, then opened as a cache of its own.
TEST_F(CacheSpaceTest, FileOpensEmptyWhereverClearIsInterrupted) {
  struct Step {
    const char* name;
    IoFaultInjection::Rule hold;
  };
  const Step kSteps[] = {
      {"sync of the zero headers", {.action = Action::HoldBack, .kind = Kind::Sync}},
      {"unlink", {.action = Action::HoldBack, .kind = Kind::SyncWrite, .offset = 800}},
      {"sync of the unlink", {.action = Action::HoldBack, .kind = Kind::Sync, .skip = 1}},
      {"truncation", {.action = Action::HoldBack, .kind = Kind::SyncTruncate}},
      {"last sync", {.action = Action::HoldBack, .kind = Kind::Sync, .skip = 2}},
  };
  const std::string image = dir_.file("image.tarn");
  const std::wstring wideImage = dir_.wfile("image.tarn");
  for (const Step& step : kSteps) {
    SCOPED_TRACE(step.name);
    open();
    for (int i = 0; i < 4100; ++i) insertFilled("k" + std::to_string(i), 16);
    cache_->commit();
    IoFaultInjection::Add(step.hold);
    auto cleared = std::async(std::launch::async, [this] { cache_->clear(); });
    ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
    std::filesystem::copy_file(dir_.file("cache.tarn"), image,
                               std::filesystem::copy_options::overwrite_existing);
    IoFaultInjection::ReleaseHeld();
    cleared.get();
    IoFaultInjection::Clear();
    EXPECT_EQ(fileSize(), kEmptyFile);
    Tarn::Cache copy(wideImage.c_str(), DefaultConfig(),
                     std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{factory_});
    Tarn::Statistics statistics;
    EXPECT_EQ(copy.statistics(statistics).fileEntries, 0);
    EXPECT_FALSE(copy.isCached(Key("k4099")));
  }
}

// A failed step of the cut is reported; what was erased stays erased, the
// cache goes on working, and entries stored afterwards survive a reopen.
TEST_F(CacheSpaceTest, FailedClearKeepsTheCacheWorking) {
  const IoFaultInjection::Rule kFaults[] = {
      {.kind = Kind::Sync},
      {.kind = Kind::SyncWrite, .offset = 800},
      {.kind = Kind::Sync, .skip = 1},
      {.kind = Kind::SyncTruncate},
      {.kind = Kind::Sync, .skip = 2},
  };
  for (const IoFaultInjection::Rule& fault : kFaults) {
    SCOPED_TRACE(static_cast<int>(fault.kind) * 10 + fault.skip);
    std::filesystem::remove(dir_.file("cache.tarn"));
    open();
    for (int i = 0; i < 4100; ++i) insert("k" + std::to_string(i), 16);
    cache_->commit();
    IoFaultInjection::Add(fault);
    try {
      cache_->clear();
      ADD_FAILURE() << "clear did not fail";
    } catch (const Pt::ExSystem& error) {
      EXPECT_EQ(error.where().line, Tarn::kClearShrink.where.line);
    }
    IoFaultInjection::Clear();
    EXPECT_EQ(stats().fileEntries, 0);
    for (int i = 0; i < 4100; ++i) insertFilled("n" + std::to_string(i), 16);
    close();
    open();
    EXPECT_EQ(stats().fileEntries, 4100);
    expectExact("n0", 16);
    expectExact("n4099", 16);
    EXPECT_FALSE(cache_->isCached(Key("k1")));
  }
}

}  // namespace
