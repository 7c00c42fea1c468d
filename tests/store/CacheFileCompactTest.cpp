// Offline compaction: the live entries of a fragmented file, and nothing
// else, in a new file that replaces the destination whole or not at all.
#include <cerrno>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "store/FileFormat.h"
#include "store/FileManager.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace {

namespace fs = std::filesystem;
using Pt::IoFaultInjection;
using Kind = IoFaultInjection::Kind;
using Bytes = std::vector<uint8_t>;

class CacheFileCompactTest : public testing::Test {
 protected:
  // A close leaves its file fragmented, so that the compaction has gaps to
  // close.
  void SetUp() override { Tarn::FileManager::SetRelocationTrigger(1e9); }
  void TearDown() override {
    IoFaultInjection::Clear();
    Tarn::FileManager::SetRelocationTrigger(trigger_);
  }

  std::unique_ptr<Tarn::Cache> open(const std::string& name) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = true;
    return std::make_unique<Tarn::Cache>(
        dir.wfile(name).c_str(), config,
        std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{factory});
  }

  static Bytes Content(int i) {
    Bytes bytes(static_cast<size_t>(37 * i % 5000 + i % 3 + 1), 0);
    for (size_t b = 0; b < bytes.size(); ++b) bytes[b] = static_cast<uint8_t>(i + b);
    return bytes;
  }
  static Tarn::PrimaryKey Key(int i) {
    return Tarn::PrimaryKey::FromString("k" + std::to_string(i));
  }

  // `count` entries of assorted sizes, then every entry but each `keepEvery`th
  // erased, so the file is full of gaps; returns the live entries' bytes.
  std::map<int, Bytes> writeFragmented(const std::string& name, int count, int keepEvery) {
    auto cache = open(name);
    std::map<int, Bytes> live;
    for (int i = 0; i < count; ++i) {
      const Bytes bytes = Content(i);
      const auto object = Tarn::Cacheable::Create(
          "tile", Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
      cache->insert(Key(i), Tarn::SecondaryKey::FromString(i % 2 ? "odd" : "even"), object.get());
      live[i] = bytes;
    }
    for (int i = 0; i < count; ++i) {
      if (i % keepEvery == 0) continue;
      cache->erase(Key(i));
      live.erase(i);
    }
    cache->commit();
    return live;
  }

  // Every entry of `live` reads back exact from the cache file `name`, under
  // its secondary key, and the file holds nothing else.
  void expectHolds(const std::string& name, const std::map<int, Bytes>& live) {
    auto cache = open(name);
    Tarn::Statistics statistics;
    EXPECT_EQ(cache->statistics(statistics).fileEntries, static_cast<int32_t>(live.size()));
    Tarn::Serialize reader(cache.get());
    std::vector<Tarn::PrimaryKey> odd;
    cache->findPrimaryKeys(Tarn::SecondaryKey::FromString("odd"), odd);
    size_t oddCount = 0;
    for (const auto& [i, bytes] : live) {
      const Pt::SmartPointer<Tarn::Cacheable>& found = reader.find(Key(i));
      ASSERT_TRUE(found) << i;
      const auto data = found->encode(false);
      EXPECT_EQ(Bytes(data->bytes(), data->bytes() + data->length()), bytes) << i;
      oddCount += i % 2;
    }
    EXPECT_EQ(odd.size(), oddCount);
  }

  std::vector<std::string> folder() {
    std::vector<std::string> names;
    for (const auto& item : fs::directory_iterator(dir.path())) {
      names.push_back(item.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
  }

  TarnTest::TempDir dir;
  Pt::SmartPointer<TarnTest::NamedFactory> factory{new TarnTest::NamedFactory("tile")};
  const double trigger_ = Tarn::FileManager::RelocationTrigger();
};

// The new file is the header, the type table, the extents the entries need
// and their allocations, nothing more.
TEST_F(CacheFileCompactTest, FragmentedFileShrinksToItsLiveEntries) {
  const struct { int count, keepEvery; } kCases[] = {{300, 3}, {9000, 2}, {50, 1000}};
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.count);
    fs::remove(dir.file("source.tarn"));
    const auto live = writeFragmented("source.tarn", c.count, c.keepEvery);
    const uint64_t before = fs::file_size(dir.file("source.tarn"));
    Tarn::CompactCacheFile(dir.wfile("source.tarn").c_str(), dir.wfile("compact.tarn").c_str());
    uint64_t expected = 800 + Tarn::kExtentBlockSize * ((live.size() + 4095) / 4096);
    for (const auto& [i, bytes] : live) {
      expected += Tarn::AllocatedLengthFor(static_cast<uint32_t>(bytes.size()), 256);
    }
    EXPECT_EQ(fs::file_size(dir.file("compact.tarn")), expected);
    EXPECT_LT(expected, before);
    EXPECT_EQ(fs::file_size(dir.file("source.tarn")), before);  // the source is only read
    expectHolds("compact.tarn", live);
    EXPECT_EQ(folder(), (std::vector<std::string>{"compact.tarn", "source.tarn"}));
  }
}

TEST_F(CacheFileCompactTest, FileIsCompactedInPlace) {
  const auto live = writeFragmented("cache.tarn", 500, 4);
  const std::wstring path = dir.wfile("cache.tarn");
  Tarn::CompactCacheFile(path.c_str(), path.c_str());
  expectHolds("cache.tarn", live);
  EXPECT_EQ(folder(), std::vector<std::string>{"cache.tarn"});
}

// A file that a cache holds open is neither read nor replaced.
TEST_F(CacheFileCompactTest, FilesOpenInACacheAreRefused) {
  writeFragmented("source.tarn", 10, 2);
  Tarn::CreateCacheFile(dir.wfile("other.tarn").c_str());
  for (const char* held : {"source.tarn", "other.tarn"}) {
    SCOPED_TRACE(held);
    auto cache = open(held);
    const Bytes before = TarnTest::ReadFileBytes(dir.file("other.tarn"));
    try {
      Tarn::CompactCacheFile(dir.wfile("source.tarn").c_str(), dir.wfile("other.tarn").c_str());
      ADD_FAILURE() << "not refused";
    } catch (const Pt::ExSystem& error) {
      EXPECT_EQ(error.code(), EWOULDBLOCK);
    }
    EXPECT_EQ(TarnTest::ReadFileBytes(dir.file("other.tarn")), before);
  }
  EXPECT_EQ(folder(), (std::vector<std::string>{"other.tarn", "source.tarn"}));
}

// A failure at any step leaves no temporary file behind and the destination
// as it was; only after the rename (a failed folder sync) does it hold the
// new file, which then has the same entries.
TEST_F(CacheFileCompactTest, FailureAtAnyStepLeavesTheDestinationWhole) {
  const struct {
    const char* name;
    IoFaultInjection::Rule rule;
    Tarn::RaiseSite site;
    bool replaced;
  } kCases[] = {
      {"create", {.kind = Kind::SyncCreate}, Tarn::kCompactWrite, false},
      {"first write", {.kind = Kind::SyncWrite}, Tarn::kCompactWrite, false},
      {"later write",
       {.kind = Kind::SyncWrite, .skip = 1, .error = ENOSPC},
       Tarn::kCompactWrite,
       false},
      {"read", {.kind = Kind::SyncRead, .skip = 40}, Tarn::kCompactRead, false},
      {"sync", {.kind = Kind::Sync}, Tarn::kCompactWrite, false},
      {"rename", {.kind = Kind::Rename, .error = EXDEV}, Tarn::kCompactReplace, false},
      {"folder sync", {.kind = Kind::SyncDir}, Tarn::kCompactReplace, true},
  };
  const auto live = writeFragmented("source.tarn", 300, 3);
  for (const bool inPlace : {false, true}) {
    for (const auto& c : kCases) {
      SCOPED_TRACE(std::string(c.name) + (inPlace ? " in place" : ""));
      const std::string target = inPlace ? "source.tarn" : "old.tarn";
      if (!inPlace) Tarn::CreateCacheFile(dir.wfile(target).c_str());
      const Bytes before = TarnTest::ReadFileBytes(dir.file(target));
      IoFaultInjection::Add(c.rule);
      try {
        Tarn::CompactCacheFile(dir.wfile("source.tarn").c_str(), dir.wfile(target).c_str());
        ADD_FAILURE() << "no failure";
      } catch (const Pt::ExSystem& error) {
        EXPECT_EQ(error.where().line, c.site.where.line);
      }
      IoFaultInjection::Clear();
      if (c.replaced) {
        expectHolds(target, live);
      } else {
        EXPECT_EQ(TarnTest::ReadFileBytes(dir.file(target)), before);
      }
      EXPECT_EQ(folder(), (std::vector<std::string>{"old.tarn", "source.tarn"}));
    }
  }
}

}  // namespace
