#include "tarn/CacheFile.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <string>

#include "pt/Exception.h"
#include "store/FileFormat.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"

namespace Tarn {
namespace {

namespace fs = std::filesystem;
using TarnTest::ReadFileBytes;

// The Pt::ExSystem that `call` throws; a failure when it throws none.
Pt::ExSystem SystemErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Pt::ExSystem& error) {
    return error;
  }
  ADD_FAILURE() << "no Pt::ExSystem was thrown";
  return Pt::ExSystem(0, Pt::ExWhere{});
}

void ExpectRaisedAt(const Pt::ExSystem& error, int code, int line) {
  EXPECT_EQ(error.code(), code) << error.what();
  EXPECT_STREQ(error.where().file, "shared/tarn/cache/TarnFileManager");
  EXPECT_EQ(error.where().line, line);
}

class CacheFile : public ::testing::Test {
 protected:
  bool folderIsEmpty() const { return fs::is_empty(dir.path()); }

  TarnTest::TempDir dir;
};

TEST_F(CacheFile, CreateWritesTheEmptyCacheFile) {
  CreateCacheFile(dir.wfile("cache.tarn").c_str());
  const std::vector<uint8_t> bytes = ReadFileBytes(dir.file("cache.tarn"));
  EXPECT_EQ(bytes.size(), 262'960u);
  EXPECT_TRUE(bytes == InitialFileImage());
}

TEST_F(CacheFile, CreateTwiceLeavesOneEmptyFile) {
  CreateCacheFile(dir.wfile("cache.tarn").c_str());
  CreateCacheFile(dir.wfile("cache.tarn").c_str());
  EXPECT_TRUE(ReadFileBytes(dir.file("cache.tarn")) == InitialFileImage());
}

TEST_F(CacheFile, CreateReplacesALargerFile) {
  ASSERT_TRUE(
      TarnTest::WriteFileBytes(dir.file("cache.tarn"), std::vector<uint8_t>(600'000, 0xAB)));
  CreateCacheFile(dir.wfile("cache.tarn").c_str());
  EXPECT_TRUE(ReadFileBytes(dir.file("cache.tarn")) == InitialFileImage());
}

TEST_F(CacheFile, CreateAcceptsNonAsciiPaths) {
  const std::wstring wide = dir.path().wstring() + L"/cach\u00e9-\u30d5\u30a1.tarn";
  CreateCacheFile(wide.c_str());
  const std::string utf8 = dir.file("cach\xc3\xa9-\xe3\x83\x95\xe3\x82\xa1.tarn");
  EXPECT_EQ(fs::file_size(utf8), 262'960u);
  DestroyCacheFile(wide.c_str());
  EXPECT_TRUE(folderIsEmpty());
}

TEST_F(CacheFile, CreateRejectsNullAndInvalidPathsCreatingNothing) {
  ExpectRaisedAt(SystemErrorOf([] { CreateCacheFile(nullptr); }), EINVAL, 129);
  // A lone surrogate is no Unicode character and has no UTF-8 form.
  const std::wstring invalid = dir.path().wstring() + L"/bad" + wchar_t(0xD800);
  ExpectRaisedAt(SystemErrorOf([&] { CreateCacheFile(invalid.c_str()); }), EINVAL, 129);
  EXPECT_TRUE(folderIsEmpty());
}

TEST_F(CacheFile, CreateInAMissingFolderFailsCreatingNothing) {
  const std::wstring path = dir.wfile("missing/cache.tarn");
  ExpectRaisedAt(SystemErrorOf([&] { CreateCacheFile(path.c_str()); }), ENOENT, 129);
  EXPECT_TRUE(folderIsEmpty());
}

TEST_F(CacheFile, CreateOnAFolderFailsAndLeavesItAlone) {
  fs::create_directory(dir.file("folder"));
  const std::wstring path = dir.wfile("folder");
  ExpectRaisedAt(SystemErrorOf([&] { CreateCacheFile(path.c_str()); }), EISDIR, 129);
  EXPECT_TRUE(fs::is_directory(dir.file("folder")));
}

TEST_F(CacheFile, CreateThatCannotWriteRemovesThePartialFile) {
  // /dev/full accepts the open and fails every write with ENOSPC. Writing
  // through a link keeps the removal of the partial "file" to the link.
  if (!fs::exists("/dev/full")) GTEST_SKIP() << "no /dev/full";
  fs::create_symlink("/dev/full", dir.file("full.tarn"));
  const std::wstring path = dir.wfile("full.tarn");
  ExpectRaisedAt(SystemErrorOf([&] { CreateCacheFile(path.c_str()); }), ENOSPC, 142);
  EXPECT_FALSE(fs::is_symlink(dir.file("full.tarn")));
  EXPECT_TRUE(fs::exists("/dev/full"));
}

TEST_F(CacheFile, DestroyFailuresReportTheirCause) {
  const std::wstring missing = dir.wfile("missing.tarn");
  ExpectRaisedAt(SystemErrorOf([&] { DestroyCacheFile(missing.c_str()); }), ENOENT, 158);
  ExpectRaisedAt(SystemErrorOf([] { DestroyCacheFile(nullptr); }), EINVAL, 158);
  // Even an empty folder is not a cache file and stays.
  fs::create_directory(dir.file("folder"));
  const std::wstring folder = dir.wfile("folder");
  ExpectRaisedAt(SystemErrorOf([&] { DestroyCacheFile(folder.c_str()); }), EISDIR, 158);
  EXPECT_TRUE(fs::is_directory(dir.file("folder")));
}

}  // namespace
}  // namespace Tarn
