// Relocation at close: the entries at the end of the file move into the gaps
// nearer its start and the file is cut back, with every entry exact after a
// reopen; a write or flush that fails on the way loses nothing.
#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "platform/SyncFile.h"
#include "pt/Platform.h"
#include "store/CacheFileLoader.h"
#include "store/FileManager.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"

namespace {

using Bytes = std::vector<uint8_t>;
using Pt::IoFaultInjection;

constexpr int kEntries = 40;
constexpr uint32_t kEntryBytes = 16 * 1024;

// The bytes of entry `i`: its number, then a pattern of it.
Bytes Payload(int i) {
  Bytes bytes(kEntryBytes);
  for (uint32_t k = 0; k < kEntryBytes; ++k) bytes[k] = static_cast<uint8_t>(i * 7 + k / 3);
  bytes[0] = static_cast<uint8_t>(i);
  return bytes;
}

Tarn::PrimaryKey KeyOf(int i) {
  return Tarn::PrimaryKey::FromString("key-" + std::to_string(i));
}

// What the loader reads from the file: each entry's header and bytes.
struct Loaded {
  std::map<std::string, std::pair<Tarn::EntryHeader, Bytes>> entries;
  uint64_t fileLength = 0;
  uint64_t trailingBytes = 0;
};

class Collector : public Tarn::CacheFileLoader::Visitor {
 public:
  void onEntry(uint32_t, const Tarn::EntryHeader& header) override { headers.push_back(header); }
  std::vector<Tarn::EntryHeader> headers;
};

class FileManagerRelocateTest : public testing::Test {
 protected:
  void SetUp() override { Pt::PlatformInit(Pt::Config{.asyncFileIo = true}); }
  void TearDown() override {
    IoFaultInjection::Clear();
    Tarn::FileManager::SetRelocationTrigger(trigger_);
    Pt::PlatformUninit();
  }

  std::unique_ptr<Tarn::FileManager> open() {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = true;
    return std::make_unique<Tarn::FileManager>(dir_.wfile("c.tarn").c_str(), nullptr, config,
                                               TarnTest::FactoriesFor({"tile"}));
  }

  // kEntries entries back to back, then every entry in the first half
  // erased: a gap as long as the second half below it.
  void writeThenEraseTheFirstHalf() {
    auto store = open();
    for (int i = 0; i < kEntries; ++i) {
      const Bytes bytes = Payload(i);
      store->write(KeyOf(i), Tarn::SecondaryKey::FromString("s"), "tile",
                   static_cast<int32_t>(bytes.size()), bytes.data());
    }
    store->commit();
    for (int i = 0; i < kEntries / 2; ++i) store->erase(KeyOf(i));
    store->commit();
    lengthBeforeClose_ = static_cast<uint64_t>(store->fileEnd());
    store_ = std::move(store);
  }

  Loaded load() {
    const std::string path = dir_.file("c.tarn");
    const Pt::SyncFile file =
        Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, Tarn::kOpenFile.where);
    Collector collector;
    const auto summary = Tarn::CacheFileLoader::Load(file, collector);
    const Bytes image = TarnTest::ReadFileBytes(path);
    Loaded loaded;
    loaded.fileLength = summary.fileLength;
    loaded.trailingBytes = summary.trailingBytes;
    for (const Tarn::EntryHeader& header : collector.headers) {
      const auto at = image.begin() + header.dataOffset;
      loaded.entries[std::string(header.primaryKeyValue().view())] = {
          header, Bytes(at, at + header.dataLength)};
    }
    return loaded;
  }

  // Every entry of the second half is in the file with its exact bytes, and
  // none of the first half is.
  void expectSecondHalfExact(const Loaded& loaded) {
    EXPECT_EQ(loaded.entries.size(), static_cast<size_t>(kEntries / 2));
    for (int i = kEntries / 2; i < kEntries; ++i) {
      const auto entry = loaded.entries.find(std::string(KeyOf(i).view()));
      ASSERT_NE(entry, loaded.entries.end()) << "entry " << i << " is lost";
      EXPECT_TRUE(entry->second.second == Payload(i)) << "entry " << i << " has wrong bytes";
    }
  }

  TarnTest::TempDir dir_;
  std::unique_ptr<Tarn::FileManager> store_;
  uint64_t lengthBeforeClose_ = 0;
  const double trigger_ = Tarn::FileManager::RelocationTrigger();
};

TEST_F(FileManagerRelocateTest, CloseMovesTheLastEntriesDownAndCutsTheFile) {
  writeThenEraseTheFirstHalf();
  const uint64_t movedBefore = Tarn::FileManager::RelocatedEntries();
  store_.reset();
  EXPECT_EQ(Tarn::FileManager::RelocatedEntries() - movedBefore, uint64_t{kEntries / 2});
  const Loaded loaded = load();
  expectSecondHalfExact(loaded);
  // The second half now fills the gap: the file ends behind it.
  const uint64_t live = uint64_t{kEntries / 2} * kEntryBytes;
  EXPECT_EQ(loaded.fileLength, Tarn::kInitialFileSize + live);
  EXPECT_EQ(loaded.trailingBytes, 0u);
  EXPECT_LT(loaded.fileLength, lengthBeforeClose_);
  for (const auto& [key, entry] : loaded.entries) {
    EXPECT_LT(entry.first.dataOffset, Tarn::kInitialFileSize + live) << key;
  }
  // A second close finds nothing to do; the entries stay where they are.
  auto reopened = open();
  EXPECT_EQ(reopened->entryCount(), kEntries / 2);
  reopened.reset();
  EXPECT_EQ(load().entries, loaded.entries);
}

TEST_F(FileManagerRelocateTest, FileBelowTheTriggerIsLeftAsItIs) {
  Tarn::FileManager::SetRelocationTrigger(2.0);  // the gap makes it about 1.6
  writeThenEraseTheFirstHalf();
  const uint64_t movedBefore = Tarn::FileManager::RelocatedEntries();
  store_.reset();
  EXPECT_EQ(Tarn::FileManager::RelocatedEntries(), movedBefore);
  const Loaded loaded = load();
  expectSecondHalfExact(loaded);
  EXPECT_EQ(loaded.fileLength, lengthBeforeClose_);
}

struct FailureCase {
  const char* what;
  IoFaultInjection::Kind kind;
  int skip;  // matching requests let through first
};

// The close's device flush comes first, then one round: the data copies,
// their flush, the header rewrites, their flush.
const FailureCase kFailures[] = {
    {"the flush before the relocation", IoFaultInjection::Kind::DeviceSync, 0},
    {"a data copy", IoFaultInjection::Kind::Write, 3},
    {"the flush of the copies", IoFaultInjection::Kind::DeviceSync, 1},
    {"a header rewrite", IoFaultInjection::Kind::Write, kEntries / 2 + 5},
    {"the flush of the headers", IoFaultInjection::Kind::DeviceSync, 2},
};

// Whatever step fails, every entry is in the file with its bytes after the
// reopen, the failure is posted, and the file is not cut.
TEST_F(FileManagerRelocateTest, FailureAtAnyStepLosesNothing) {
  for (const FailureCase& test : kFailures) {
    SCOPED_TRACE(test.what);
    std::remove(dir_.file("c.tarn").c_str());
    writeThenEraseTheFirstHalf();
    TarnTest::PostedExceptions posted;
    const int rule = IoFaultInjection::Add({.kind = test.kind, .skip = test.skip});
    store_.reset();
    EXPECT_EQ(IoFaultInjection::Fired(rule), 1);
    IoFaultInjection::Clear();
    EXPECT_GE(posted.count(), 1u);
    const Loaded loaded = load();
    expectSecondHalfExact(loaded);
    EXPECT_EQ(loaded.fileLength, lengthBeforeClose_);
    // The next close, with nothing failing, relocates as usual.
    auto reopened = open();
    EXPECT_EQ(reopened->entryCount(), kEntries / 2);
    reopened.reset();
    expectSecondHalfExact(load());
    EXPECT_LT(load().fileLength, lengthBeforeClose_);
  }
}

}  // namespace
