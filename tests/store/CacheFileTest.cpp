#include "tarn/CacheFile.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "pt/Exception.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"

namespace Tarn {
namespace {

namespace fs = std::filesystem;

// Expects `call` to throw a Pt::ExSystem with `code`, raised at `line`.
void ExpectSystemError(const std::function<void()>& call, int code, int line) {
  try {
    call();
    ADD_FAILURE() << "no Pt::ExSystem was thrown";
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.code(), code) << error.what();
    EXPECT_STREQ(error.where().file, "shared/tarn/cache/TarnFileManager");
    EXPECT_EQ(error.where().line, line);
  }
}

class CacheFile : public ::testing::Test {
 protected:
  TarnTest::TempDir dir;
};

// A new file is the header, an empty type table and one extent of free slots.
TEST_F(CacheFile, CreateWritesTheEmptyCacheFileOverAnyOldAndDestroyRemovesIt) {
  const std::string utf8 = dir.file("cach\xc3\xa9-\xe3\x83\x95.tarn");
  const std::wstring wide = dir.path().wstring() + L"/cach\u00e9-\u30d5.tarn";
  ASSERT_TRUE(TarnTest::WriteFileBytes(utf8, std::vector<uint8_t>(600'000, 0xAB)));
  for (int round = 0; round < 2; ++round) {
    CreateCacheFile(wide.c_str());
    const std::vector<uint8_t> bytes = TarnTest::ReadFileBytes(utf8);
    ASSERT_EQ(bytes.size(), 262'960u);
    const std::pair<size_t, uint32_t> kWords[] = {{0, 65536}, {4, 32},     {8, 48},   {12, 16},
                                                  {16, 32},   {20, 16},    {24, 1},   {28, 800},
                                                  {800, 64},  {804, 4096}, {808, 816}};
    for (const auto& [offset, value] : kWords)
      EXPECT_EQ(TarnTest::U32At(bytes, offset), value) << offset;
    EXPECT_TRUE(TarnTest::AllZero(bytes, 32, 800));
    EXPECT_TRUE(TarnTest::AllZero(bytes, 812, bytes.size()));
  }
  DestroyCacheFile(wide.c_str());
  EXPECT_TRUE(fs::is_empty(dir.path()));
}

TEST_F(CacheFile, BadPathsFailWithTheirCauseAndChangeNothing) {
  fs::create_directory(dir.file("folder"));
  const std::wstring invalid = dir.path().wstring() + L"/bad" + wchar_t(0xD800);  // no UTF-8
  const std::wstring missing = dir.wfile("missing/cache.tarn");
  const std::wstring folder = dir.wfile("folder");
  ExpectSystemError([] { CreateCacheFile(nullptr); }, EINVAL, 129);
  ExpectSystemError([&] { CreateCacheFile(invalid.c_str()); }, EINVAL, 129);
  ExpectSystemError([&] { CreateCacheFile(missing.c_str()); }, ENOENT, 129);
  ExpectSystemError([&] { CreateCacheFile(folder.c_str()); }, EISDIR, 129);
  ExpectSystemError([] { DestroyCacheFile(nullptr); }, EINVAL, 158);
  ExpectSystemError([&] { DestroyCacheFile(missing.c_str()); }, ENOENT, 158);
  ExpectSystemError([&] { DestroyCacheFile(folder.c_str()); }, EISDIR, 158);  // even when empty
  EXPECT_EQ(std::distance(fs::directory_iterator(dir.path()), fs::directory_iterator()), 1);
  EXPECT_TRUE(fs::is_empty(dir.file("folder")));
}

TEST_F(CacheFile, CreateThatCannotWriteRemovesThePartialFile) {
  // /dev/full accepts the open and fails every write with ENOSPC. Writing
  // through a link keeps the removal of the partial "file" to the link.
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  fs::create_symlink("/dev/full", dir.file("full.tarn"));
  ExpectSystemError([&] { CreateCacheFile(dir.wfile("full.tarn").c_str()); }, ENOSPC, 142);
  EXPECT_FALSE(fs::is_symlink(dir.file("full.tarn")));
  EXPECT_TRUE(fs::exists("/dev/full"));
}

}  // namespace
}  // namespace Tarn
