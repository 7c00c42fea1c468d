// The open of a cache file under failing file calls, and the salvage of a
// file whose damage is confined to entries, checked on the file's bytes.
#include <cerrno>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "platform/SyncFile.h"
#include "pt/Platform.h"
#include "store/FileManager.h"
#include "support/RawCacheFile.h"
#include "support/RecordingReceiver.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace {

using Pt::IoFaultInjection;
using Kind = IoFaultInjection::Kind;
using Action = IoFaultInjection::Action;
using Bytes = std::vector<uint8_t>;
using TarnTest::ReadFileBytes;

// The Pt::ExSystem that `call` throws, as {errno, line}; {0, 0} when none.
std::pair<int, int> SystemError(const std::function<void()>& call) {
  try {
    call();
  } catch (const Pt::ExSystem& error) {
    return {error.code(), error.where().line};
  }
  return {0, 0};
}

Bytes Slot(const Bytes& file, uint32_t n) {
  const auto at = file.begin() + Tarn::kFirstEntriesOffset + 64 * n;
  return Bytes(at, at + 64);
}

class OpenFaultsTest : public testing::Test {
 protected:
  void SetUp() override { Pt::PlatformInit(Pt::Config{.asyncFileIo = true}); }
  void TearDown() override {
    IoFaultInjection::Clear();
    Pt::PlatformUninit();
  }

  std::unique_ptr<Tarn::FileManager> open(const std::vector<std::string>& types) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = true;
    return std::make_unique<Tarn::FileManager>(wpath.c_str(), nullptr, config,
                                               TarnTest::FactoriesFor(types));
  }

  // A file of type "tile" holding `entries` (key, slot, data offset, data
  // length, allocated length), each entry's data bytes its slot number.
  struct Entry {
    const char* key;
    uint32_t slot, offset, length, allocated;
  };
  Bytes writeFile(const std::vector<Entry>& entries, size_t length = 266'000) {
    Bytes image = Tarn::InitialFileImage();
    const auto type = Tarn::TypeRecord::ForType(1, "tile").encode();
    std::copy(type.begin(), type.end(), image.begin() + Tarn::kTypeTableOffset);
    image.resize(length);
    for (const Entry& e : entries) {
      auto header = Tarn::EntryHeader::ForEntry(1, Tarn::PrimaryKey::FromString(e.key),
                                                Tarn::SecondaryKey::FromString("s"), e.offset,
                                                e.length, e.allocated);
      header.encodeTo(
          std::span<uint8_t, 64>(image.data() + Tarn::kFirstEntriesOffset + 64 * e.slot, 64));
      for (uint32_t i = 0; i < e.length && e.offset + i < image.size(); ++i) {
        image[e.offset + i] = static_cast<uint8_t>(e.slot);
      }
    }
    EXPECT_TRUE(TarnTest::WriteFileBytes(path, image));
    return image;
  }

  TarnTest::TempDir dir;
  const std::string path = dir.file("cache.tarn");
  const std::wstring wpath = dir.wfile("cache.tarn");
};

// ---- failed calls during the open ------------------------------------------

// A failed read, type-table write or lock ends the open with a clean
// Pt::ExSystem at its site; the file is unchanged and not left locked.
TEST_F(OpenFaultsTest, FailedCallsOfTheOpenLeaveTheFileAsItWas) {
  const struct {
    const char* name;
    IoFaultInjection::Rule rule;
    Tarn::RaiseSite site;
  } kCases[] = {
      {"header read", {.kind = Kind::SyncRead, .offset = 0}, Tarn::kOpenReadHeader},
      {"slot read",
       {.kind = Kind::SyncRead, .offset = 816, .error = EIO},
       Tarn::kOpenReadEntryHeaders},
      {"type-table write",
       {.kind = Kind::SyncWrite, .offset = 32, .error = ENOSPC},
       Tarn::kOpenWriteTypeTable},
      {"lock", {.kind = Kind::Lock, .error = ENOLCK}, Tarn::kOpenFileLocked},
      {"open", {.kind = Kind::SyncOpen, .error = EACCES}, Tarn::kOpenFile},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    const Bytes before = writeFile({{"a", 0, 262'960, 10, 256}});
    IoFaultInjection::Add(c.rule);
    const auto [code, line] = SystemError([&] { open({"tile", "doc"}); });
    EXPECT_EQ(code, c.rule.error);
    EXPECT_EQ(line, c.site.where.line);
    EXPECT_EQ(ReadFileBytes(path), before);
    IoFaultInjection::Clear();
    EXPECT_EQ(open({"tile", "doc"})->typeId("doc"), 2u);  // not left locked
  }
}

// The open returns only once the new type table is durable.
TEST_F(OpenFaultsTest, TypeTableIsSyncedBeforeTheOpenReturns) {
  writeFile({});
  IoFaultInjection::Add({.action = Action::HoldBack, .kind = Kind::Sync});
  auto opened = std::async(std::launch::async, [&] { return open({"tile", "doc"}); });
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_EQ(opened.wait_for(std::chrono::seconds(0)), std::future_status::timeout);
  EXPECT_EQ(TarnTest::U32At(ReadFileBytes(path), 32 + 48) & 0xFFFF, 2u);  // written, not synced
  IoFaultInjection::ReleaseHeld();
  EXPECT_EQ(opened.get()->typeId("doc"), 2u);
}

// A create that fails at any step leaves no file; the new file is synced
// before its folder.
TEST_F(OpenFaultsTest, CreationFailsCleanlyAndSyncsFileThenFolder) {
  const std::pair<Kind, Tarn::RaiseSite> kSteps[] = {
      {Kind::SyncCreate, Tarn::kCreateFileOpen},
      {Kind::SyncWrite, Tarn::kCreateFileWrite},
      {Kind::Sync, Tarn::kCreateFileWrite},
      {Kind::SyncDir, Tarn::kCreateFileWrite},
  };
  for (const auto& [kind, site] : kSteps) {
    SCOPED_TRACE(static_cast<int>(kind));
    IoFaultInjection::Add({.kind = kind, .error = ENOSPC});
    EXPECT_EQ(SystemError([&] { open({"tile"}); }), std::make_pair(ENOSPC, site.where.line));
    EXPECT_FALSE(Pt::FileExists(path));
    IoFaultInjection::Clear();
  }
  const int folderSynced = IoFaultInjection::Add(
      {.action = Action::Transient, .kind = Kind::SyncDir, .transientCount = 0});
  IoFaultInjection::Add({.action = Action::HoldBack, .kind = Kind::Sync});
  auto created = std::async(std::launch::async, [&] { Tarn::CreateCacheFile(wpath.c_str()); });
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_EQ(IoFaultInjection::Fired(folderSynced), 0);
  IoFaultInjection::ReleaseHeld();
  created.get();
  EXPECT_EQ(IoFaultInjection::Fired(folderSynced), 1);
  EXPECT_EQ(ReadFileBytes(path), Tarn::InitialFileImage());
}

// ---- salvage ---------------------------------------------------------------

// The open drops damaged entries, clears their slots on disk and frees their
// space; the next open finds nothing to drop and the kept entries intact.
TEST_F(OpenFaultsTest, DroppedEntriesAreClearedOnDiskAndStayGone) {
  const Bytes before = writeFile({{"good", 0, 262'960, 10, 256},
                                  {"past", 1, 265'900, 10, 256},
                                  {"twice", 2, 263'216, 10, 256},
                                  {"twice", 3, 263'472, 10, 256},
                                  {"long", 4, 263'728, 300, 256},
                                  {"end", 5, 265'000, 10, 256}});
  {
    auto store = open({"tile"});
    EXPECT_EQ(store->droppedEntries(), 3u);
    EXPECT_EQ(store->entryCount(), 3);
    EXPECT_TRUE(store->contains(Tarn::PrimaryKey::FromString("twice")));
    Pt::MutexLock guard(store->lock());
    EXPECT_EQ(store->entries().at(Tarn::PrimaryKey::FromString("twice")).headerOffset, 816u + 128);
    EXPECT_EQ(store->freeEntryHeaders().front(), 816u + 64);
    EXPECT_EQ(store->freeSpace().ranges(), (std::vector<Tarn::FileRange>{{263'472, 1'528}}));
  }
  const Bytes after = ReadFileBytes(path);
  for (const uint32_t slot : {1u, 3u, 4u}) EXPECT_EQ(Slot(after, slot), Bytes(64, 0)) << slot;
  for (const uint32_t slot : {0u, 2u, 5u}) EXPECT_EQ(Slot(after, slot), Slot(before, slot)) << slot;
  EXPECT_EQ(open({"tile"})->droppedEntries(), 0u);
}

// A link to no extent is cut on disk; a later extent is linked in its place.
TEST_F(OpenFaultsTest, BrokenLinkIsCutAndReplacedByTheNextExtent) {
  Bytes image = writeFile({});
  Tarn::ExtentHeader first = Tarn::ExtentHeader::ForNewExtent(Tarn::kFirstExtentOffset);
  first.nextExtent = 900'000;
  first.encodeTo(std::span<uint8_t, 16>(image.data() + Tarn::kFirstExtentOffset, 16));
  ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
  auto store = open({"tile"});
  EXPECT_EQ(TarnTest::U32At(ReadFileBytes(path), Tarn::kFirstExtentOffset + 12), 0u);
  {
    Pt::MutexLock guard(store->lock());
    for (int i = 0; i <= 4096; ++i) store->allocateEntryHeader();
  }
  store->commit();
  // The open cut off the file's unclaimed tail, so the extent went where it began.
  EXPECT_EQ(TarnTest::U32At(ReadFileBytes(path), Tarn::kFirstExtentOffset + 12),
            Tarn::kInitialFileSize);
}

// A failed salvage write ends the open cleanly, the file unchanged.
TEST_F(OpenFaultsTest, FailedSalvageWriteEndsTheOpen) {
  const Bytes before = writeFile({{"past", 1, 265'900, 10, 256}});
  IoFaultInjection::Add({.kind = Kind::SyncWrite, .offset = 816 + 64});
  EXPECT_EQ(SystemError([&] { open({"tile"}); }),
            std::make_pair(EIO, Tarn::kOpenSalvageWrite.where.line));
  EXPECT_EQ(ReadFileBytes(path), before);
}

// Through the Cache: the count is readable, kept entries are found with
// their bytes, dropped ones are not found at all.
TEST_F(OpenFaultsTest, CacheReportsDroppedEntriesAndServesTheRest) {
  writeFile(
      {{"good", 0, 262'960, 10, 256}, {"bad", 1, 263'000, 10, 256}, {"ok", 2, 263'472, 5, 16}});
  Tarn::Config config = Tarn::ZeroedConfig();
  Tarn::Cache cache(wpath.c_str(), config, new TarnTest::NamedFactory("tile"));
  EXPECT_EQ(cache.droppedEntries(), 2);
  Tarn::Statistics statistics;
  EXPECT_EQ(cache.statistics(statistics).fileEntries, 1);
  EXPECT_EQ(cache.find(Tarn::PrimaryKey::FromString("bad"), new TarnTest::RecordingReceiver), 0);
  Pt::SmartPointer<TarnTest::RecordingReceiver> receiver(new TarnTest::RecordingReceiver);
  EXPECT_NE(cache.find(Tarn::PrimaryKey::FromString("ok"), receiver.get()), 0);
  ASSERT_TRUE(receiver->waitFor(1));
  const auto call = receiver->calls().at(0);
  ASSERT_EQ(call.kind, TarnTest::ReceiverCall::Found);
  EXPECT_EQ(call.cacheable->getData()->length(), 5);
  EXPECT_EQ(call.cacheable->getData()->bytes()[0], 2);
}

}  // namespace
