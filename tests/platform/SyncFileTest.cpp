// The synchronous file seam: its calls, their errors, and the fault-injection
// rules that fail, shorten, interrupt or hold them.
#include "platform/SyncFile.h"

#include <cerrno>
#include <filesystem>
#include <functional>
#include <future>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"

namespace {

using Pt::IoFaultInjection;
using Pt::SyncFile;
using Kind = IoFaultInjection::Kind;
using Action = IoFaultInjection::Action;
using Bytes = std::vector<uint8_t>;

constexpr Pt::ExWhere kHere{"test", 7};

// The errno of the Pt::ExSystem that `call` throws at kHere; 0 when none.
int ErrorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.where().line, kHere.line);
    return error.code();
  }
  return 0;
}

class SyncFileTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(TarnTest::WriteFileBytes(path, kContent)); }
  void TearDown() override { IoFaultInjection::Clear(); }

  SyncFile open(SyncFile::Mode mode = SyncFile::Mode::ReadWrite) {
    return SyncFile::Open(path, mode, kHere);
  }

  const Bytes kContent = Bytes{1, 2, 3, 4, 5, 6, 7, 8, 9, 10};
  TarnTest::TempDir dir;
  const std::string path = dir.file("file");
  const std::string other = dir.file("other");
};

// What the system says arrives as Pt::ExSystem with its errno.
TEST_F(SyncFileTest, SystemErrorsCarryTheirErrnoAndTheCallersSite) {
  Bytes buffer(4);
  SyncFile readOnly = open(SyncFile::Mode::ReadOnly);
  EXPECT_EQ(ErrorOf([&] { open(SyncFile::Mode::ReadOnly).readAt(buffer.data(), 4, 8, kHere); }),
            EIO);  // the file ends first
  EXPECT_EQ(ErrorOf([&] { readOnly.writeAt(buffer.data(), 4, 0, kHere); }), EBADF);
  EXPECT_EQ(ErrorOf([&] { SyncFile::Open(dir.file("missing"), SyncFile::Mode::ReadOnly, kHere); }),
            ENOENT);
  EXPECT_EQ(ErrorOf([&] { Pt::UnlinkFile(dir.file("missing"), kHere); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { Pt::UnlinkFile(dir.path().string(), kHere); }), EISDIR);
  EXPECT_EQ(ErrorOf([&] { Pt::RenameFile(dir.file("missing"), other, kHere); }), ENOENT);
  EXPECT_EQ(ErrorOf([&] { Pt::SyncParentDirectory(dir.file("no/such/x"), kHere); }), ENOENT);

  SyncFile first = open();
  first.lockExclusive(kHere);
  SyncFile second = open();
  EXPECT_EQ(ErrorOf([&] { second.lockExclusive(kHere); }), EWOULDBLOCK);
  first.close(kHere);  // drops the lock
  EXPECT_EQ(ErrorOf([&] { second.lockExclusive(kHere); }), 0);
}

TEST_F(SyncFileTest, CallsDoWhatTheySay) {
  SyncFile file = open();
  const Bytes patch{0xAA, 0xBB};
  file.writeAt(patch.data(), patch.size(), 9, kHere);
  file.sync(kHere);
  EXPECT_EQ(file.length(kHere), 11u);
  Bytes read(3);
  file.readAt(read.data(), 3, 8, kHere);
  EXPECT_EQ(read, (Bytes{9, 0xAA, 0xBB}));
  file.truncate(4, kHere);
  EXPECT_EQ(TarnTest::ReadFileBytes(path), (Bytes{1, 2, 3, 4}));

  SyncFile created = SyncFile::Open(other, SyncFile::Mode::Create, kHere);
  created.writeAt(patch.data(), patch.size(), 0, kHere);
  created.close(kHere);
  Pt::SyncParentDirectory(other, kHere);
  EXPECT_TRUE(Pt::FileExists(other));
  Pt::RenameFile(other, path, kHere);
  EXPECT_EQ(TarnTest::ReadFileBytes(path), patch);
  Pt::UnlinkFile(path, kHere);
  EXPECT_FALSE(Pt::FileExists(path));
}

// Every kind of call can be failed; it then throws the chosen errno at the
// caller's site and leaves the files as they were.
TEST_F(SyncFileTest, EveryKindOfCallCanBeFailed) {
  Bytes buffer(4);
  const std::vector<std::pair<Kind, std::function<void()>>> kCalls = {
      {Kind::SyncOpen, [&] { open(); }},
      {Kind::SyncCreate, [&] { SyncFile::Open(other, SyncFile::Mode::Create, kHere); }},
      {Kind::SyncRead, [&] { open().readAt(buffer.data(), 4, 0, kHere); }},
      {Kind::SyncWrite, [&] { open().writeAt(buffer.data(), 4, 0, kHere); }},
      {Kind::SyncLength, [&] { open().length(kHere); }},
      {Kind::Sync, [&] { open().sync(kHere); }},
      {Kind::SyncTruncate, [&] { open().truncate(0, kHere); }},
      {Kind::Lock, [&] { open().lockExclusive(kHere); }},
      {Kind::Unlink, [&] { Pt::UnlinkFile(path, kHere); }},
      {Kind::Rename, [&] { Pt::RenameFile(path, other, kHere); }},
      {Kind::SyncDir, [&] { Pt::SyncParentDirectory(path, kHere); }},
  };
  for (const auto& [kind, call] : kCalls) {
    SCOPED_TRACE(static_cast<int>(kind));
    const int rule = IoFaultInjection::Add({.kind = kind, .error = ENOSPC});
    EXPECT_EQ(ErrorOf(call), ENOSPC);
    EXPECT_EQ(IoFaultInjection::Fired(rule), 1);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), kContent);
    EXPECT_FALSE(Pt::FileExists(other));
    EXPECT_EQ(ErrorOf(call), 0);  // the rule fired once; the call is real again
    IoFaultInjection::Clear();
    ASSERT_TRUE(TarnTest::WriteFileBytes(path, kContent));
    std::filesystem::remove(other);
  }
}

// Rules match by offset and length; a device rule (Any) never matches a
// blocking call; a shortened or interrupted transfer is carried on.
TEST_F(SyncFileTest, RulesMatchTheirCallsAndShortTransfersContinue) {
  SyncFile file = open();
  Bytes read(4);
  IoFaultInjection::Add({.count = -1});  // Any: the device's requests only
  IoFaultInjection::Add({.kind = Kind::SyncRead, .offset = 2, .count = -1});
  IoFaultInjection::Add({.kind = Kind::SyncWrite, .length = 3, .count = -1});
  EXPECT_EQ(ErrorOf([&] { file.readAt(read.data(), 4, 0, kHere); }), 0);
  EXPECT_EQ(ErrorOf([&] { file.readAt(read.data(), 4, 2, kHere); }), EIO);
  EXPECT_EQ(ErrorOf([&] { file.writeAt(read.data(), 2, 0, kHere); }), 0);
  EXPECT_EQ(ErrorOf([&] { file.writeAt(read.data(), 3, 0, kHere); }), EIO);
  IoFaultInjection::Clear();

  const int shortened = IoFaultInjection::Add(
      {.action = Action::Shorten, .kind = Kind::SyncWrite, .count = -1, .shortBytes = 1});
  const int interrupted = IoFaultInjection::Add(
      {.action = Action::Transient, .kind = Kind::SyncRead, .transientCount = 3});
  const Bytes patch{0xA, 0xB, 0xC};
  file.writeAt(patch.data(), patch.size(), 1, kHere);
  file.readAt(read.data(), 4, 0, kHere);
  EXPECT_EQ(read, (Bytes{1, 0xA, 0xB, 0xC}));
  EXPECT_EQ(IoFaultInjection::Fired(shortened), 1);
  EXPECT_EQ(IoFaultInjection::Fired(interrupted), 1);
}

// A held call has not happened until the test releases it.
TEST_F(SyncFileTest, HeldCallWaitsForItsRelease) {
  IoFaultInjection::Add({.action = Action::HoldBack, .kind = Kind::Unlink});
  auto unlinked = std::async(std::launch::async, [&] { Pt::UnlinkFile(path, kHere); });
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_TRUE(Pt::FileExists(path));
  IoFaultInjection::ReleaseHeld(1);
  unlinked.get();
  EXPECT_FALSE(Pt::FileExists(path));
  EXPECT_EQ(IoFaultInjection::HeldCount(), 0u);
}

}  // namespace
