// The file receivers through the real asynchronous device: the extent chain,
// the process-wide count that waitForAll waits on, and the failures posted.
#include <gtest/gtest.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>
#include <typeinfo>
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

// The first extent's header, and where a new extent is appended behind it.
constexpr uint32_t kPrevious = kFirstExtentOffset, kNew = kInitialFileSize;
const Bytes kOldHeader(kExtentHeaderSize, 0xEE);
const auto kRelinkHeader =
    ExtentHeader{kEntryHeaderSize, kEntriesPerExtent, kFirstEntriesOffset, kNew}.encode();
const Bytes kRelink(kRelinkHeader.begin(), kRelinkHeader.end());

Bytes ExtentBlock() {
  Bytes block(kExtentBlockSize, 0);
  const auto header = ExtentHeader::ForNewExtent(kNew).encode();
  std::copy(header.begin(), header.end(), block.begin());
  return block;
}

// waitForAll on a thread of its own; records how many receivers were alive
// when it returned: 0, unless it returned too early.
struct Waiter {
  std::atomic<int32_t> aliveAtReturn{-1};
  std::jthread thread{[this] {
    FileReceiverBase::waitForAll();
    aliveAtReturn = FileReceiverBase::pendingCount();
  }};
};

class FileReceivers : public testing::Test {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    Pt::PlatformInit(config);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path_, Bytes(kInitialFileSize, 0xEE)));
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
    write(new FileWriteExtentReceiver(device_, kPrevious, kRelinkHeader), kNew, ExtentBlock());
  }

  static void Hold(int length) {
    IoFaultInjection::Add({.action = IoFaultInjection::Action::HoldBack,
                           .kind = IoFaultInjection::Kind::Write,
                           .length = length});
  }

  Bytes fileBytes(size_t offset, size_t length) const {
    const Bytes bytes = TarnTest::ReadFileBytes(path_);
    return offset + length <= bytes.size()
               ? Bytes(bytes.begin() + offset, bytes.begin() + offset + length)
               : Bytes();
  }

  TarnTest::TempDir dir_;
  TarnTest::PostedExceptions posted_;
  const std::string path_ = dir_.file("cache.tarn");
  SmartPointer<Pt::PtIoDeviceFile> device_;
};

TEST_F(FileReceivers, WaitForAllReturnsAtOnceWhenNoneIsAlive) {
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
  auto waiter = std::make_unique<Waiter>();  // asleep, most likely, before the chain moves on
  IoFaultInjection::ReleaseHeld(1);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));  // now the relink
  EXPECT_EQ(fileBytes(kNew, kExtentBlockSize), ExtentBlock());
  EXPECT_EQ(fileBytes(kPrevious, kExtentHeaderSize), kOldHeader);
  IoFaultInjection::ReleaseHeld();
  waiter->thread.join();
  EXPECT_EQ(waiter->aliveAtReturn, 0);
  EXPECT_EQ(fileBytes(kPrevious, kExtentHeaderSize), kRelink);
  EXPECT_EQ(posted_.count(), 0u);
}

TEST_F(FileReceivers, EveryWaiterWakesWhenTheLastReceiverDies) {
  Hold(kExtentHeaderSize);
  write(new FileWriteExtentHeaderReceiver, kPrevious, kRelink);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  std::vector<Waiter> waiters(2);
  IoFaultInjection::ReleaseHeld();
  for (Waiter& waiter : waiters) {
    waiter.thread.join();
    EXPECT_EQ(waiter.aliveAtReturn, 0);
  }
}

// Each failed write is posted with its receiver's exception class, location
// and errno; a failed extent is never relinked, and a failed delete header
// gives nothing back (with no file manager, a release would crash here).
TEST_F(FileReceivers, FailedWritesArePostedWithTheirClassAndLine) {
  struct Case {
    uint32_t offset;
    int error;
    const std::type_info& type;
    const char* file;
    int line;
    Bytes extent;
  };
  const Case cases[] = {
      {kNew, ENOSPC, typeid(ExFileWriteExtent), "shared/tarn/cache/TarnFileWriteExtentReceiver", 86,
       Bytes()},
      {kFirstEntriesOffset, EROFS, typeid(ExFileReadEntry),
       "shared/tarn/cache/TarnFileDeleteEntryReceiver", 83, Bytes()},
      {kPrevious, EIO, typeid(ExFileWriteExtentHeader),
       "shared/tarn/cache/TarnFileWriteExtentHeaderReceiver", 62, ExtentBlock()},
  };
  for (size_t i = 0; i < std::size(cases); ++i) {
    const Case& test = cases[i];
    SCOPED_TRACE(test.file);
    IoFaultInjection::Add(
        {.kind = IoFaultInjection::Kind::Write, .offset = test.offset, .error = test.error});
    if (test.offset != kFirstEntriesOffset)
      appendExtent();
    else
      write(new FileDeleteEntryReceiver(kFirstEntriesOffset, kNew, 256, nullptr),
            kFirstEntriesOffset, Bytes(kEntryHeaderSize, 0));
    FileReceiverBase::waitForAll();
    ASSERT_EQ(posted_.count(), i + 1);
    const std::unique_ptr<Pt::Exception> exception = posted_.at(i);
    const Pt::Exception& thrown = *exception;
    EXPECT_EQ(typeid(thrown), test.type) << exception->what();
    EXPECT_STREQ(exception->where().file, test.file);
    EXPECT_EQ(exception->where().line, test.line);
    const auto* cause = dynamic_cast<const Pt::ExSystem*>(exception->nested());
    ASSERT_NE(cause, nullptr);
    EXPECT_EQ(cause->code(), test.error);
    EXPECT_EQ(fileBytes(kNew, kExtentBlockSize), test.extent);
    EXPECT_EQ(fileBytes(kPrevious, kExtentHeaderSize), kOldHeader);
  }
}

}  // namespace
}  // namespace Tarn
