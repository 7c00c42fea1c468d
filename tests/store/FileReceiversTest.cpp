// The file receivers through the real asynchronous device: the extent chain,
// the process-wide count that waitForAll waits on, and the failures posted.
#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "store/FileDeleteEntryReceiver.h"
#include "store/FileFormat.h"
#include "store/FileReceiverBase.h"
#include "store/FileWriteExtentHeaderReceiver.h"
#include "store/FileWriteExtentReceiver.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::IoFaultInjection;
using Pt::IoRequest;
using Pt::SmartPointer;
using Bytes = std::vector<uint8_t>;

constexpr uint8_t kOldByte = 0xEE;
// The first extent's header, and where a new extent is appended behind it.
constexpr uint32_t kPrevious = kFirstExtentOffset;
constexpr uint32_t kNew = kInitialFileSize;

const std::array<uint8_t, kExtentHeaderSize> kRelink =
    ExtentHeader{kEntryHeaderSize, kEntriesPerExtent, kFirstEntriesOffset, kNew}.encode();

Bytes ExtentBlock() {
  Bytes block(kExtentBlockSize, 0);
  const auto header = ExtentHeader::ForNewExtent(kNew).encode();
  std::copy(header.begin(), header.end(), block.begin());
  return block;
}

Bytes Slice(const Bytes& bytes, size_t offset, size_t length) {
  return length <= bytes.size() && offset <= bytes.size() - length
             ? Bytes(bytes.begin() + offset, bytes.begin() + offset + length)
             : Bytes();
}

// Calls waitForAll on a thread of its own and records that it returned and
// how many receivers were alive then: 0, unless it returned too early.
class Waiter {
 public:
  Waiter()
      : thread_([this] {
          FileReceiverBase::waitForAll();
          aliveAtReturn_ = FileReceiverBase::pendingCount();
          returned_ = true;
        }) {}
  ~Waiter() { join(); }
  void join() {
    if (thread_.joinable()) thread_.join();
  }
  bool returned() const { return returned_; }
  int32_t aliveAtReturn() const { return aliveAtReturn_; }

 private:
  std::atomic<bool> returned_{false};
  std::atomic<int32_t> aliveAtReturn_{-1};
  std::thread thread_;
};

class FileReceivers : public testing::Test {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    Pt::PlatformInit(config);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path_, Bytes(kInitialFileSize, kOldByte)));
    device_ =
        Pt::PtIoDeviceFile::Create(dir_.wfile("cache.tarn").c_str(), Pt::PtIoDeviceFile::ReadWrite);
  }

  void TearDown() override {
    IoFaultInjection::Clear();
    FileReceiverBase::waitForAll();
    device_.reset();
    Pt::PlatformUninit();
  }

  // Issues a write the way the file store does: the request holds the only
  // reference to its receiver.
  void write(FileReceiverBase* receiver, uint32_t offset, const Bytes& bytes) {
    SmartPointer<IoRequest> request =
        IoRequest::Create(receiver, static_cast<int>(bytes.size()), IoRequest::Normal);
    std::memcpy(request->data(), bytes.data(), bytes.size());
    request->setOffset(offset);
    device_->write(request);
  }

  void appendExtent() {
    write(new FileWriteExtentReceiver(device_, kPrevious, kRelink), kNew, ExtentBlock());
  }

  static void Hold(int length) {
    IoFaultInjection::Rule hold;
    hold.action = IoFaultInjection::Action::HoldBack;
    hold.kind = IoFaultInjection::Kind::Write;
    hold.length = length;
    IoFaultInjection::Add(hold);
  }

  static void Fail(uint32_t offset, int error) {
    IoFaultInjection::Rule fail;
    fail.kind = IoFaultInjection::Kind::Write;
    fail.offset = offset;
    fail.error = error;
    IoFaultInjection::Add(fail);
  }

  Bytes fileBytes() const { return TarnTest::ReadFileBytes(path_); }

  // The one posted exception: its class, location and nested system error.
  template <class Expected>
  void expectPosted(const char* file, int line, int error) {
    ASSERT_EQ(posted_.count(), 1u);
    const std::unique_ptr<Pt::Exception> exception = posted_.at(0);
    EXPECT_NE(dynamic_cast<const Expected*>(exception.get()), nullptr) << exception->what();
    EXPECT_STREQ(exception->where().file, file);
    EXPECT_EQ(exception->where().line, line);
    const auto* cause = dynamic_cast<const Pt::ExSystem*>(exception->nested());
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->code(), error);
  }

  TarnTest::TempDir dir_;
  TarnTest::PostedExceptions posted_;
  const std::string path_ = dir_.file("cache.tarn");
  SmartPointer<Pt::PtIoDeviceFile> device_;
};

TEST_F(FileReceivers, WaitForAllReturnsAtOnceWhenNoneIsAlive) {
  EXPECT_EQ(FileReceiverBase::pendingCount(), 0);
  FileReceiverBase::waitForAll();
  FileReceiverBase::waitForAll();
}

// The relink is written only once the whole extent is on disk, and
// waitForAll waits for the chain as a whole: the count must not reach 0
// between the extent's receiver and the relink's.
TEST_F(FileReceivers, ExtentIsWrittenBeforeItsRelinkAndWaitedForWithIt) {
  Hold(kExtentBlockSize);
  Hold(kExtentHeaderSize);
  appendExtent();
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  Waiter waiter;  // asleep, most likely, before the chain moves on
  IoFaultInjection::ReleaseHeld(1);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));  // now the relink
  Bytes bytes = fileBytes();
  EXPECT_EQ(Slice(bytes, kNew, kExtentBlockSize), ExtentBlock());
  EXPECT_EQ(Slice(bytes, kPrevious, kExtentHeaderSize), Bytes(kExtentHeaderSize, kOldByte));
  EXPECT_GE(FileReceiverBase::pendingCount(), 1);

  IoFaultInjection::ReleaseHeld();
  waiter.join();
  EXPECT_EQ(waiter.aliveAtReturn(), 0);
  bytes = fileBytes();
  EXPECT_EQ(Slice(bytes, kPrevious, kExtentHeaderSize), Bytes(kRelink.begin(), kRelink.end()));
  EXPECT_EQ(Slice(bytes, kNew, kExtentBlockSize), ExtentBlock());
  EXPECT_EQ(posted_.count(), 0u);
}

TEST_F(FileReceivers, EveryWaiterWakesWhenTheLastReceiverDies) {
  Hold(kExtentHeaderSize);
  write(new FileWriteExtentHeaderReceiver, kPrevious, Bytes(kRelink.begin(), kRelink.end()));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_EQ(FileReceiverBase::pendingCount(), 1);
  {
    Waiter first, second;
    EXPECT_FALSE(first.returned() || second.returned());
    IoFaultInjection::ReleaseHeld();
    first.join();
    second.join();
    EXPECT_EQ(first.aliveAtReturn(), 0);
    EXPECT_EQ(second.aliveAtReturn(), 0);
  }
  EXPECT_EQ(FileReceiverBase::pendingCount(), 0);
  FileReceiverBase::waitForAll();  // nothing left: no sleep
}

TEST_F(FileReceivers, FailedExtentWriteIsPostedAndNeverRelinked) {
  Fail(kNew, ENOSPC);
  appendExtent();
  FileReceiverBase::waitForAll();
  expectPosted<ExFileWriteExtent>("shared/tarn/cache/TarnFileWriteExtentReceiver", 86, ENOSPC);
  const Bytes bytes = fileBytes();
  EXPECT_EQ(bytes.size(), kInitialFileSize);
  EXPECT_EQ(Slice(bytes, kPrevious, kExtentHeaderSize), Bytes(kExtentHeaderSize, kOldByte));
}

TEST_F(FileReceivers, FailedRelinkIsPostedAndLeavesTheExtentWritten) {
  Fail(kPrevious, EIO);
  appendExtent();
  FileReceiverBase::waitForAll();
  expectPosted<ExFileWriteExtentHeader>("shared/tarn/cache/TarnFileWriteExtentHeaderReceiver", 62,
                                        EIO);
  const Bytes bytes = fileBytes();
  EXPECT_EQ(Slice(bytes, kNew, kExtentBlockSize), ExtentBlock());
  EXPECT_EQ(Slice(bytes, kPrevious, kExtentHeaderSize), Bytes(kExtentHeaderSize, kOldByte));
}

// A failed delete header gives nothing back: with no file manager to call,
// any release would crash here.
TEST_F(FileReceivers, FailedDeleteHeaderIsPostedAsAReadFailure) {
  Fail(kFirstEntriesOffset, EROFS);
  write(new FileDeleteEntryReceiver(kFirstEntriesOffset, kNew, 256, nullptr), kFirstEntriesOffset,
        Bytes(kEntryHeaderSize, 0));
  FileReceiverBase::waitForAll();
  expectPosted<ExFileReadEntry>("shared/tarn/cache/TarnFileDeleteEntryReceiver", 83, EROFS);
  EXPECT_STREQ(posted_.at(0)->what(), "Asynchronous File Entry Read I//O Operation Failed!");
}

// A relink that cannot be queued fails the completion: the exception leaves
// ioCompleted and the relink's receiver goes with its unqueued request.
TEST_F(FileReceivers, RelinkThatCannotBeQueuedPropagatesAndLeavesNoReceiver) {
  Pt::PlatformUninit();  // the device stays open but refuses requests
  {
    SmartPointer<FileWriteExtentReceiver> extent(
        new FileWriteExtentReceiver(device_, kPrevious, kRelink));
    SmartPointer<IoRequest> done = IoRequest::Create(extent.get(), 0, IoRequest::Normal);
    try {
      extent->ioCompleted(*done);
      ADD_FAILURE() << "the relink was queued";
    } catch (const Pt::ExSystem& error) {
      EXPECT_EQ(error.code(), ENXIO);
    }
    EXPECT_EQ(FileReceiverBase::pendingCount(), 1);
  }
  EXPECT_EQ(FileReceiverBase::pendingCount(), 0);
  Pt::Config config;
  config.asyncFileIo = true;
  Pt::PlatformInit(config);  // for TearDown's
}

}  // namespace
}  // namespace Tarn
