// The file store: open and type registration, one owner per file, the index,
// and the allocation of slots and data space, checked against the file's bytes.
#include "store/FileManager.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "store/FileDeleteEntryReceiver.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "tarn/CacheFile.h"
#include "tarn/Exceptions.h"

namespace {

using Tarn::EntryHeader;
using Tarn::FileManager;
using Tarn::FileRange;
using TarnTest::FactoriesFor;
using TarnTest::ReadFileBytes;
using TarnTest::U32At;

constexpr uint32_t kFirstDataOffset = Tarn::kInitialFileSize;  // 262,960

class FileManagerTest : public testing::Test {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    Pt::PlatformInit(config);
  }
  void TearDown() override {
    Pt::IoFaultInjection::Clear();
    Pt::PlatformUninit();
  }

  std::unique_ptr<FileManager> open(const std::vector<std::string>& types, bool create = true) {
    Tarn::Config config{};
    config.createIfMissing = create;
    return std::make_unique<FileManager>(wpath_.c_str(), nullptr, config, FactoriesFor(types));
  }

  // A cache file holding live entries in the first slots, with their data
  // ranges zero-filled behind the initial file.
  void writeFileWithEntries(const std::vector<EntryHeader>& headers) {
    std::vector<uint8_t> image = Tarn::InitialFileImage();
    const auto record = Tarn::TypeRecord::ForType(1, "tile").encode();
    std::copy(record.begin(), record.end(), image.begin() + Tarn::kTypeTableOffset);
    for (size_t i = 0; i < headers.size(); ++i) {
      const auto bytes = headers[i].encode();
      std::copy(bytes.begin(), bytes.end(), image.begin() + Tarn::kFirstEntriesOffset + 64 * i);
      image.resize(
          std::max<size_t>(image.size(), headers[i].dataOffset + headers[i].allocatedLength));
    }
    ASSERT_TRUE(TarnTest::WriteFileBytes(path_, image));
  }

  static EntryHeader Entry(const std::string& key, uint32_t dataOffset, uint32_t allocated) {
    return EntryHeader::ForEntry(1, Tarn::PrimaryKey::FromString(key),
                                 Tarn::SecondaryKey::FromString("s"), dataOffset, 10, allocated);
  }

  TarnTest::TempDir dir_;
  std::string path_ = dir_.file("cache.tarn");
  std::wstring wpath_ = dir_.wfile("cache.tarn");
};

template <class Exception>
int RaiseLine(const std::function<void()>& action) {
  try {
    action();
  } catch (const Exception& error) {
    return error.where().line;
  }
  return 0;
}

// ---- open and type registration ------------------------------------------

TEST_F(FileManagerTest, MissingFileIsCreatedWithTheFactoriesTypes) {
  auto store = open({"tile", "doc"});
  EXPECT_EQ(store->entryCount(), 0);
  EXPECT_FALSE(store->contains(Tarn::PrimaryKey::FromString("a")));
  EXPECT_EQ(store->fileEnd(), Tarn::kInitialFileSize);
  EXPECT_EQ(store->typeId("tile"), 1u);
  EXPECT_EQ(store->typeName(2), "doc");
  {
    Pt::MutexLock guard(store->lock());
    ASSERT_EQ(store->freeEntryHeaders().size(), 4096u);
    EXPECT_EQ(store->freeEntryHeaders().front(), 816u);
    EXPECT_EQ(store->freeEntryHeaders()[1], 880u);
    EXPECT_TRUE(store->freeSpace().ranges().empty());
  }
  const auto bytes = ReadFileBytes(path_);
  const auto types = Tarn::DecodeTypeTable(
      std::span<const uint8_t, Tarn::kTypeTableSize>(bytes.data() + 32, Tarn::kTypeTableSize));
  ASSERT_EQ(types.size(), 2u);
  EXPECT_EQ(types[0].typeName(), "tile");
  EXPECT_EQ(types[1].id, 2);
}

TEST_F(FileManagerTest, MissingFileWithoutCreateFailsAndCreatesNothing) {
  EXPECT_EQ(RaiseLine<Pt::ExSystem>([&] { open({"tile"}, false); }), 279);
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
}

TEST_F(FileManagerTest, ReopeningRegistersOnlyNewTypesAndKeepsIds) {
  open({"tile", "doc"}).reset();
  const auto before = ReadFileBytes(path_);
  open({"doc", "tile"}).reset();  // same types, other order: nothing written
  EXPECT_EQ(ReadFileBytes(path_), before);

  auto store = open({"doc", "map", "tile"});
  EXPECT_EQ(store->typeId("tile"), 1u);
  EXPECT_EQ(store->typeId("doc"), 2u);
  EXPECT_EQ(store->typeId("map"), 3u);
  EXPECT_EQ(U32At(ReadFileBytes(path_), 32 + 2 * 48) & 0xFFFF, 3u);
}

TEST_F(FileManagerTest, TypesWithoutFactoryOrServedTwiceAreRefused) {
  open({"tile", "doc"}).reset();
  const auto before = ReadFileBytes(path_);
  const std::vector<std::vector<std::string>> refused = {{"tile"}, {}, {"tile", "doc", "doc"}};
  for (const auto& types : refused) {
    EXPECT_EQ(RaiseLine<Tarn::ExFactoryClassNotFound>([&] { open(types); }), 210);
  }
  EXPECT_EQ(ReadFileBytes(path_), before);
  open({"tile", "doc"});  // a failed open leaves the file unlocked
}

TEST_F(FileManagerTest, TypeNameTooLongIsRefusedBeforeAnythingIsWritten) {
  EXPECT_EQ(RaiseLine<Pt::ExSystem>([&] { open({std::string(45, 'x')}); }), 205);
  EXPECT_NE(access(path_.c_str(), F_OK), 0);
  open({std::string(44, 'x')});
}

TEST_F(FileManagerTest, UnsupportedFileIsRejectedUntouched) {
  Tarn::CreateCacheFile(wpath_.c_str());
  auto bytes = ReadFileBytes(path_);
  bytes[0] = 1;  // version 1
  ASSERT_TRUE(TarnTest::WriteFileBytes(path_, bytes));
  EXPECT_EQ(RaiseLine<Tarn::ExUnsupportedFileVersion>([&] { open({"tile"}); }), 292);
  EXPECT_EQ(ReadFileBytes(path_), bytes);
}

// ---- one owner per file ---------------------------------------------------

TEST_F(FileManagerTest, SecondOpenOfTheSameFileFailsAndChangesNothing) {
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
  first.reset();
  EXPECT_NO_THROW(open({"tile"}));
}

TEST_F(FileManagerTest, AnotherProcessCannotOpenALockedFile) {
  auto store = open({"tile"});
  const pid_t child = fork();
  if (child == 0) {
    const int fd = ::open(path_.c_str(), O_RDWR);
    _exit(flock(fd, LOCK_EX | LOCK_NB) == 0 ? 0 : 1);
  }
  int status = 0;
  waitpid(child, &status, 0);
  EXPECT_EQ(WEXITSTATUS(status), 1);
}

// ---- the index after an open ----------------------------------------------

TEST_F(FileManagerTest, GapsBetweenEntriesBecomeFreeSpace) {
  writeFileWithEntries({Entry("a", 262'960, 256), Entry("b", 263'472, 256)});
  auto store = open({"tile"});
  EXPECT_EQ(store->entryCount(), 2);
  Pt::MutexLock guard(store->lock());
  EXPECT_EQ(store->freeSpace().ranges(), (std::list<FileRange>{{263'216, 256}}));
  EXPECT_EQ(store->freeEntryHeaders().front(), 816u + 2 * 64);
}

TEST_F(FileManagerTest, DuplicateKeyIsIndexedOnceAndKeepsItsSlotAndSpace) {
  writeFileWithEntries({Entry("a", 262'960, 256), Entry("a", 263'216, 256)});
  auto store = open({"tile"});
  EXPECT_EQ(store->entryCount(), 1);
  std::vector<Tarn::PrimaryKey> keys;
  store->findPrimaryKeys(Tarn::SecondaryKey::FromString("s"), keys);
  EXPECT_EQ(keys.size(), 2u);
  Pt::MutexLock guard(store->lock());
  EXPECT_EQ(store->entries().begin()->second.headerOffset, 816u);
  EXPECT_EQ(store->freeEntryHeaders().front(), 816u + 2 * 64);
  EXPECT_TRUE(store->freeSpace().ranges().empty());
}

// ---- allocation -----------------------------------------------------------

TEST_F(FileManagerTest, FirstAllocationsOfANewFile) {
  auto store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  uint32_t offset = 0, allocated = 0;
  EXPECT_EQ(store->allocateEntryHeader(), 816u);
  store->allocateData(10, offset, allocated);
  EXPECT_EQ(offset, kFirstDataOffset);
  EXPECT_EQ(allocated, 256u);
  EXPECT_EQ(store->fileEnd(), 263'216);
  EXPECT_EQ(store->allocateEntryHeader(), 880u);
  store->allocateData(300, offset, allocated);
  EXPECT_EQ(offset, 263'216u);
  EXPECT_EQ(allocated, 304u);
  store->allocateData(0, offset, allocated);
  EXPECT_EQ(allocated, 256u);
}

TEST_F(FileManagerTest, ReleasedSlotAndRangeAreReusedFirst) {
  auto store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  uint32_t offset = 0, allocated = 0;
  const uint32_t slot = store->allocateEntryHeader();
  store->allocateData(1000, offset, allocated);
  store->allocateEntryHeader();
  uint32_t second = 0;
  store->allocateData(10, second, allocated);
  store->releaseEntry(slot, offset, 1008);
  EXPECT_EQ(store->allocateEntryHeader(), slot);
  uint32_t again = 0;
  store->allocateData(1000, again, allocated);
  EXPECT_EQ(again, offset);
  store->checkInvariants();
}

TEST_F(FileManagerTest, DeleteHeaderCompletionReleasesTheEntry) {
  auto store = open({"tile"});
  uint32_t slot, offset, allocated;
  {
    Pt::MutexLock guard(store->lock());
    slot = store->allocateEntryHeader();
    store->allocateData(100, offset, allocated);
    store->allocateEntryHeader();
  }
  {
    // The request holds the receiver's only reference, as in the store.
    auto request = Pt::IoRequest::Create(
        new Tarn::FileDeleteEntryReceiver(slot, offset, allocated, store.get()), 64,
        Pt::IoRequest::Normal);
    std::memset(request->data(), 0, 64);
    request->setOffset(slot);
    store->device()->write(request);
  }
  store->commit();
  Pt::MutexLock guard(store->lock());
  EXPECT_EQ(store->freeEntryHeaders().front(), slot);
  EXPECT_EQ(store->freeSpace().ranges(), (std::list<FileRange>{{offset, allocated}}));
}

// When the first extent's slots run out, a new extent is appended at the end
// of the file, its first slot handed out at once, and the first extent is
// relinked on disk only once the new block has been written.
TEST_F(FileManagerTest, ExhaustedSlotsAppendAndLinkAnExtent) {
  auto store = open({"tile"});
  uint32_t slot = 0;
  int64_t location = 0;
  {
    Pt::MutexLock guard(store->lock());
    for (int i = 0; i < 4096; ++i) store->allocateEntryHeader();
    location = store->fileEnd();
    slot = store->allocateEntryHeader();
    EXPECT_EQ(store->allocateEntryHeader(), location + 80);
    EXPECT_EQ(store->extents().size(), 2u);
  }
  EXPECT_EQ(slot, location + 16);
  EXPECT_EQ(store->fileEnd(), location + Tarn::kExtentBlockSize);
  store->commit();
  const auto bytes = ReadFileBytes(path_);
  ASSERT_EQ(bytes.size(), static_cast<size_t>(location + Tarn::kExtentBlockSize));
  EXPECT_EQ(U32At(bytes, 800 + 12), location);  // relinked
  EXPECT_EQ(U32At(bytes, location), 64u);
  EXPECT_EQ(U32At(bytes, location + 8), location + 16);
  store.reset();
  store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  EXPECT_EQ(store->extents().size(), 2u);
  EXPECT_EQ(store->freeEntryHeaders().size(), 2u * 4096);
}

TEST_F(FileManagerTest, FailedExtentWriteIsPostedAndNeverLinked) {
  auto store = open({"tile"});
  TarnTest::PostedExceptions posted;
  Pt::IoFaultInjection::Rule fail;
  fail.length = static_cast<int>(Tarn::kExtentBlockSize);
  Pt::IoFaultInjection::Add(fail);
  {
    Pt::MutexLock guard(store->lock());
    for (int i = 0; i <= 4096; ++i) store->allocateEntryHeader();
  }
  store->commit();
  ASSERT_TRUE(posted.waitFor(1));
  const auto error = posted.at(0);
  EXPECT_NE(dynamic_cast<const Tarn::ExFileWriteExtent*>(error.get()), nullptr);
  EXPECT_EQ(error->where().line, 86);
  EXPECT_EQ(U32At(ReadFileBytes(path_), 800 + 12), 0u);
}

TEST_F(FileManagerTest, GrowthToTwoGibibytesFailsAndChangesNothing) {
  Tarn::CreateCacheFile(wpath_.c_str());
  ASSERT_EQ(truncate(path_.c_str(), (int64_t{1} << 31) - 300'000), 0);  // sparse tail
  auto store = open({"tile"});
  Pt::MutexLock guard(store->lock());
  const int64_t end = store->fileEnd();
  for (int i = 0; i < 4096; ++i) store->allocateEntryHeader();
  uint32_t offset = 0, allocated = 0;
  store->allocateData(200'000, offset, allocated);  // still fits
  // The lambdas run under the guard above, which the lock analysis cannot see.
  EXPECT_EQ(RaiseLine<Pt::ExSystem>(
                [&]() PT_NO_THREAD_SAFETY_ANALYSIS { store->allocateEntryHeader(); }),
            Tarn::kGrowFileTooLarge.where.line);
  EXPECT_EQ(RaiseLine<Pt::ExSystem>([&]() PT_NO_THREAD_SAFETY_ANALYSIS {
              store->allocateData(0xFFFFFFF0u, offset, allocated);
            }),
            Tarn::kGrowFileTooLarge.where.line);
  EXPECT_EQ(store->fileEnd(), end + 200'000);
  EXPECT_EQ(store->extents().size(), 1u);
}

}  // namespace
