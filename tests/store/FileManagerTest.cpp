// The file store: open and type registration, one owner per file, the index,
// and the allocation of slots and data space, checked against the file's bytes.
#include "store/FileManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/CacheFile.h"
#include "tarn/Exceptions.h"

namespace {

using TarnTest::ReadFileBytes;
using TarnTest::U32At;

class FileManagerTest : public testing::Test {
 protected:
  void SetUp() override { Pt::PlatformInit(Pt::Config{.asyncFileIo = true}); }
  void TearDown() override {
    Pt::IoFaultInjection::Clear();
    Pt::PlatformUninit();
  }

  std::unique_ptr<Tarn::FileManager> open(const std::vector<std::string>& types,
                                          bool create = true) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = create;
    return std::make_unique<Tarn::FileManager>(wpath_.c_str(), nullptr, config,
                                               TarnTest::FactoriesFor(types));
  }

  // A cache file of type "tile" with live entries (key, data offset; 256
  // bytes each, zero-filled) in the first slots.
  void writeFileWithEntries(const std::vector<std::pair<const char*, uint32_t>>& entries) {
    std::vector<uint8_t> image = Tarn::InitialFileImage();
    const auto record = Tarn::TypeRecord::ForType(1, "tile").encode();
    std::copy(record.begin(), record.end(), image.begin() + Tarn::kTypeTableOffset);
    for (size_t i = 0; i < entries.size(); ++i) {
      const auto bytes = Tarn::EntryHeader::ForEntry(
                             1, Tarn::PrimaryKey::FromString(entries[i].first),
                             Tarn::SecondaryKey::FromString("s"), entries[i].second, 10, 256)
                             .encode();
      std::copy(bytes.begin(), bytes.end(), image.begin() + Tarn::kFirstEntriesOffset + 64 * i);
      image.resize(std::max<size_t>(image.size(), entries[i].second + 256));
    }
    ASSERT_TRUE(TarnTest::WriteFileBytes(path_, image));
  }

  TarnTest::TempDir dir_;
  std::string path_ = dir_.file("cache.tarn");
  std::wstring wpath_ = dir_.wfile("cache.tarn");
};

template <class Exception, class Action>
int RaiseLine(Action&& action) {
  try {
    action();
  } catch (const Exception& error) {
    return error.where().line;
  }
  return 0;
}

// ---- open and type registration ------------------------------------------

// A missing file is created only when asked, never with a type name that is
// empty or over 44 bytes; a reopen registers only new types, and a reopen whose factories miss
// a registered type or serve one twice is refused with the file unchanged.
TEST_F(FileManagerTest, CreationAndTypeRegistrationAcrossReopens) {
  EXPECT_EQ(RaiseLine<Pt::ExSystem>([&] { open({"tile"}, false); }), 279);
  EXPECT_EQ(RaiseLine<Tarn::ExInvalidTypeName>([&] { open({"tile", std::string(45, 'x')}); }), 205);
  EXPECT_EQ(RaiseLine<Tarn::ExInvalidTypeName>([&] { open({"tile", ""}); }), 205);
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  {
    auto store = open({"tile", "doc"});
    EXPECT_EQ(store->fileEnd(), Tarn::kInitialFileSize);
    Pt::MutexLock guard(store->lock());
    ASSERT_EQ(store->freeEntryHeaders().size(), 4096u);
    EXPECT_EQ(store->freeEntryHeaders().front(), 816u);
  }
  const auto before = ReadFileBytes(path_);
  open({"doc", "tile"}).reset();  // same types, other order: nothing written
  for (const auto& types :
       std::vector<std::vector<std::string>>{{"tile"}, {}, {"tile", "doc", "doc"}}) {
    EXPECT_EQ(RaiseLine<Tarn::ExFactoryClassNotFound>([&] { open(types); }), 210);
  }
  EXPECT_EQ(ReadFileBytes(path_), before);
  auto store = open({"doc", std::string(44, 'x'), "tile"});
  EXPECT_EQ(store->typeId("tile"), 1u);
  EXPECT_EQ(store->typeId(std::string(44, 'x')), 3u);
  EXPECT_EQ(U32At(ReadFileBytes(path_), 32 + 2 * 48) & 0xFFFF, 3u);
}

TEST_F(FileManagerTest, OneOwnerPerFile) {
  auto first = open({"tile"});
  const auto before = ReadFileBytes(path_);
  try {
    open({"tile", "doc"});
    ADD_FAILURE() << "the second open should have failed";
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.code(), EWOULDBLOCK);
    EXPECT_EQ(error.where().line, Tarn::kOpenFileLocked.where.line);
  }
  EXPECT_EQ(ReadFileBytes(path_), before);
  const pid_t child = fork();
  if (child == 0) _exit(flock(::open(path_.c_str(), O_RDWR), LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
  first.reset();
  EXPECT_NO_THROW(open({"tile"}));
}

// ---- the index after an open ----------------------------------------------

// Gaps between entries are free; of two entries with one key the first in
// chain order is indexed and the other dropped: its slot is free (first in
// the queue, in chain order) and so is its range, unless it is the last.
TEST_F(FileManagerTest, IndexBuiltFromExistingEntries) {
  const struct {
    std::vector<std::pair<const char*, uint32_t>> entries;
    int count;
    std::vector<Tarn::FileRange> free;
    uint32_t firstFreeSlot;
  } cases[] = {
      {{{"a", 262'960}, {"b", 263'472}}, 2, {{263'216, 256}}, 816 + 2 * 64},
      {{{"a", 262'960}, {"a", 263'216}}, 1, {}, 816 + 64},
      {{{"a", 262'960}, {"a", 263'216}, {"b", 263'472}}, 2, {{263'216, 256}}, 816 + 64},
  };
  for (const auto& c : cases) {
    writeFileWithEntries(c.entries);
    auto store = open({"tile"});
    EXPECT_EQ(store->entryCount(), c.count);
    EXPECT_EQ(store->droppedEntries(), c.entries.size() - static_cast<size_t>(c.count));
    Pt::MutexLock guard(store->lock());
    EXPECT_EQ(store->freeSpace().ranges(), c.free);
    EXPECT_EQ(store->entries().at(Tarn::PrimaryKey::FromString("a")).headerOffset, 816u);
    EXPECT_EQ(store->freeEntryHeaders().front(), c.firstFreeSlot);
  }
}

// ---- allocation -----------------------------------------------------------

TEST_F(FileManagerTest, FirstAllocationsAreByteExactAndReleasedSpaceIsReusedFirst) {
  auto store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  uint32_t offset = 0, allocated = 0, other = 0;
  EXPECT_EQ(store->allocateEntryHeader(), 816u);
  store->allocateData(10, offset, allocated);
  EXPECT_EQ(std::pair(offset, allocated), std::pair(262'960u, 256u));
  EXPECT_EQ(store->fileEnd(), 263'216);
  EXPECT_EQ(store->allocateEntryHeader(), 880u);
  store->allocateData(300, other, allocated);
  EXPECT_EQ(std::pair(other, allocated), std::pair(263'216u, 304u));
  store->releaseSpace(816, offset, 256);
  EXPECT_EQ(store->allocateEntryHeader(), 816u);
  store->allocateData(0, other, allocated);
  EXPECT_EQ(other, offset);
  EXPECT_TRUE(store->checkInvariants());
}

// When the first extent's slots run out, a new extent is appended at the end
// of the file, its first slot handed out at once, and the first extent is
// relinked on disk only once the new block has been written.
TEST_F(FileManagerTest, ExhaustedSlotsAppendAndLinkAnExtent) {
  auto store = open({"tile"});
  int64_t location = 0;
  {
    Pt::MutexLock guard(store->lock());
    for (int i = 0; i < 4096; ++i) store->allocateEntryHeader();
    location = store->fileEnd();
    EXPECT_EQ(store->allocateEntryHeader(), location + 16);
  }
  EXPECT_EQ(store->fileEnd(), location + Tarn::kExtentBlockSize);
  store->commit();
  const auto bytes = ReadFileBytes(path_);
  EXPECT_EQ(U32At(bytes, 800 + 12), location);           // relinked
  EXPECT_EQ(U32At(bytes, location + 8), location + 16);  // the new block's slots
  store = nullptr;
  store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  EXPECT_EQ(store->freeEntryHeaders().size(), 2u * 4096);
}

TEST_F(FileManagerTest, FailedExtentWriteIsPostedAndNeverLinked) {
  auto store = open({"tile"});
  TarnTest::PostedExceptions posted;
  Pt::IoFaultInjection::Add({.length = static_cast<int>(Tarn::kExtentBlockSize)});
  {
    Pt::MutexLock guard(store->lock());
    for (int i = 0; i <= 4096; ++i) store->allocateEntryHeader();
  }
  store->commit();
  ASSERT_TRUE(posted.waitFor(1));
  EXPECT_NE(dynamic_cast<const Tarn::ExFileWriteExtent*>(posted.at(0).get()), nullptr);
  EXPECT_EQ(posted.at(0)->where().line, 86);
  EXPECT_EQ(U32At(ReadFileBytes(path_), 800 + 12), 0u);
}

TEST_F(FileManagerTest, GrowthToTwoGibibytesFailsAndChangesNothing) {
  // A live entry whose allocation is the whole sparse tail: the open cuts
  // nothing and finds no free space.
  constexpr uint32_t kEnd = (uint32_t{1} << 31) - 300'000;
  std::vector<uint8_t> image = Tarn::InitialFileImage();
  const auto record = Tarn::TypeRecord::ForType(1, "tile").encode();
  std::copy(record.begin(), record.end(), image.begin() + Tarn::kTypeTableOffset);
  const auto last =
      Tarn::EntryHeader::ForEntry(1, Tarn::PrimaryKey::FromString("last"), Tarn::SecondaryKey{},
                                  Tarn::kInitialFileSize, 10, kEnd - Tarn::kInitialFileSize)
          .encode();
  std::copy(last.begin(), last.end(), image.begin() + Tarn::kFirstEntriesOffset);
  ASSERT_TRUE(TarnTest::WriteFileBytes(path_, image));
  ASSERT_EQ(truncate(path_.c_str(), kEnd), 0);
  auto store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  const int64_t end = store->fileEnd();
  ASSERT_EQ(end, kEnd);
  for (int i = 0; i < 4095; ++i) store->allocateEntryHeader();
  uint32_t offset = 0, allocated = 0;
  store->allocateData(200'000, offset, allocated);  // still fits
  // The lambdas run under the guard above, which the lock analysis cannot see.
  EXPECT_EQ(
      RaiseLine<Pt::ExSystem>([&]() PT_NO_THREAD_SAFETY_ANALYSIS { store->allocateEntryHeader(); }),
      Tarn::kGrowFileTooLarge.where.line);
  EXPECT_EQ(RaiseLine<Pt::ExSystem>([&]() PT_NO_THREAD_SAFETY_ANALYSIS {
              store->allocateData(0xFFFFFFF0u, offset, allocated);
            }),
            Tarn::kGrowFileTooLarge.where.line);
  EXPECT_EQ(store->fileEnd(), end + 200'000);
  EXPECT_EQ(store->extents().size(), 1u);
}

}  // namespace
