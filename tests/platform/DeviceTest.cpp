// The asynchronous file device, run against every engine.
#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <thread>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "support/IoRecorder.h"
#include "support/TempDir.h"

namespace {

using Pt::IoFaultInjection;
using Pt::IoRequest;
using Pt::PtIoDeviceFile;
using Pt::SmartPointer;
using TarnTest::IoRecorder;

std::string EngineName(const testing::TestParamInfo<Pt::IoEngineKind>& info) {
  return info.param == Pt::IoEngineKind::IoUring ? "IoUring" : "ThreadPool";
}

class DeviceTest : public testing::TestWithParam<Pt::IoEngineKind> {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    config.ioEngine = GetParam();
    Pt::PlatformInit(config);
    ASSERT_EQ(Pt::ActiveIoEngine(), GetParam());
    path_ = dir_.file("device.bin");
    std::ofstream(path_, std::ios::binary).write(std::string(kFileSize, '\0').data(), kFileSize);
    device_ = PtIoDeviceFile::Create(dir_.wfile("device.bin").c_str(), PtIoDeviceFile::ReadWrite);
  }

  void TearDown() override {
    IoFaultInjection::Clear();
    device_.reset();
    Pt::PlatformUninit();
  }

  static SmartPointer<IoRequest> Request(IoRecorder* recorder, int64_t offset, int length,
                                         uint8_t fill = 0) {
    SmartPointer<IoRequest> request = IoRequest::Create(recorder, length, IoRequest::Normal);
    request->setOffset(offset);
    std::memset(request->data(), fill, static_cast<size_t>(length));
    return request;
  }

  std::vector<uint8_t> fileBytes(int64_t offset, size_t length) {
    std::vector<uint8_t> bytes(length);
    const int fd = ::open(path_.c_str(), O_RDONLY);
    EXPECT_EQ(pread(fd, bytes.data(), length, offset), static_cast<ssize_t>(length));
    ::close(fd);
    return bytes;
  }

  static constexpr int kFileSize = 1 << 20;
  TarnTest::TempDir dir_;
  std::string path_;
  SmartPointer<PtIoDeviceFile> device_;
};

TEST_P(DeviceTest, WriteThenReadRoundTripsOnAnIoThread) {
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), 4096, 65536, 0xAB));
  device_->read(Request(recorder.get(), 4096, 65536));
  ASSERT_TRUE(recorder->waitFor(2));
  const auto events = recorder->events();
  ASSERT_EQ(events.size(), 2u);
  for (const auto& event : events) {
    EXPECT_FALSE(event.failed);
    EXPECT_EQ(event.byteCount, 65536);
    EXPECT_NE(event.thread, std::this_thread::get_id());
  }
  const auto& read = events[0].data[0] == 0xAB && events[1].data[0] == 0xAB ? events[1] : events[0];
  EXPECT_EQ(read.data, std::vector<uint8_t>(65536, 0xAB));
  EXPECT_EQ(fileBytes(4096, 65536), std::vector<uint8_t>(65536, 0xAB));
}

TEST_P(DeviceTest, ReadPastTheEndCompletesWithTheBytesThatExist) {
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->read(Request(recorder.get(), kFileSize - 100, 4096));
  device_->read(Request(recorder.get(), kFileSize + 4096, 16));
  ASSERT_TRUE(recorder->waitFor(2));
  std::vector<int> counts;
  for (const auto& event : recorder->events()) {
    EXPECT_FALSE(event.failed);
    counts.push_back(event.byteCount);
  }
  std::sort(counts.begin(), counts.end());
  EXPECT_EQ(counts, (std::vector<int>{0, 100}));
}

TEST_P(DeviceTest, ZeroLengthRequestCompletes) {
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), 0, 0));
  ASSERT_TRUE(recorder->waitFor(1));
  EXPECT_FALSE(recorder->events()[0].failed);
}

// Random reads and writes over a small region: every read must see exactly the
// writes queued before it, as if the requests had run one by one.
TEST_P(DeviceTest, OverlappingRequestsTakeEffectInQueueOrder) {
  constexpr int kRegion = 8192;
  constexpr int kRequests = 3000;
  std::mt19937 random(7);
  std::vector<uint8_t> model(kRegion, 0);
  std::vector<std::pair<SmartPointer<IoRecorder>, std::vector<uint8_t>>> reads;
  SmartPointer<IoRecorder> writes(new IoRecorder);
  int writeCount = 0;
  for (int i = 0; i < kRequests; ++i) {
    const int offset = static_cast<int>(random() % (kRegion - 1));
    const int length = 1 + static_cast<int>(random() % std::min(512, kRegion - offset));
    if (random() % 3 == 0) {
      SmartPointer<IoRecorder> reader(new IoRecorder(i));
      reads.emplace_back(
          reader, std::vector<uint8_t>(model.begin() + offset, model.begin() + offset + length));
      device_->read(Request(reader.get(), offset, length));
    } else {
      const auto fill = static_cast<uint8_t>(1 + i % 251);
      std::fill(model.begin() + offset, model.begin() + offset + length, fill);
      device_->write(Request(writes.get(), offset, length, fill));
      ++writeCount;
    }
  }
  ASSERT_TRUE(writes->waitFor(static_cast<size_t>(writeCount)));
  for (auto& [reader, expected] : reads) {
    ASSERT_TRUE(reader->waitFor(1));
    EXPECT_EQ(reader->events()[0].data, expected) << "read " << reader->events()[0].offset;
  }
  EXPECT_EQ(fileBytes(0, kRegion), model);
}

TEST_P(DeviceTest, HeldRequestDelaysOnlyTheRequestsThatOverlapIt) {
  IoFaultInjection::Rule hold;
  hold.action = IoFaultInjection::Action::HoldBack;
  hold.offset = 0;
  IoFaultInjection::Add(hold);
  SmartPointer<IoRecorder> held(new IoRecorder(1));
  SmartPointer<IoRecorder> overlapping(new IoRecorder(2));
  SmartPointer<IoRecorder> apart(new IoRecorder(3));
  device_->write(Request(held.get(), 0, 4096, 1));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  device_->read(Request(overlapping.get(), 100, 10));
  device_->write(Request(apart.get(), 8192, 4096, 3));
  ASSERT_TRUE(apart->waitFor(1));
  EXPECT_TRUE(held->events().empty());
  EXPECT_TRUE(overlapping->events().empty());
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(overlapping->waitFor(1));
  EXPECT_EQ(overlapping->events()[0].data, std::vector<uint8_t>(10, 1));
  ASSERT_TRUE(held->waitFor(1));
}

TEST_P(DeviceTest, InjectedFailureReachesIoFailedAndLeavesTheFileAlone) {
  IoFaultInjection::Rule fail;
  fail.kind = IoFaultInjection::Kind::Write;
  fail.offset = 512;
  fail.error = ENOSPC;
  const int rule = IoFaultInjection::Add(fail);
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), 512, 64, 0x55));
  device_->write(Request(recorder.get(), 1024, 64, 0x66));
  ASSERT_TRUE(recorder->waitFor(2));
  int failures = 0;
  for (const auto& event : recorder->events()) {
    if (event.failed) {
      ++failures;
      EXPECT_EQ(event.error, ENOSPC);
      EXPECT_EQ(event.offset, 512);
    }
  }
  EXPECT_EQ(failures, 1);
  EXPECT_EQ(IoFaultInjection::Fired(rule), 1);
  EXPECT_EQ(fileBytes(512, 64), std::vector<uint8_t>(64, 0));
  EXPECT_EQ(fileBytes(1024, 64), std::vector<uint8_t>(64, 0x66));
}

TEST_P(DeviceTest, ShortTransfersAndTransientErrorsAreContinued) {
  IoFaultInjection::Rule shorten;
  shorten.action = IoFaultInjection::Action::Shorten;
  shorten.shortBytes = 1000;
  shorten.count = 2;
  IoFaultInjection::Add(shorten);
  IoFaultInjection::Rule transient;
  transient.action = IoFaultInjection::Action::Transient;
  transient.transientCount = 3;
  IoFaultInjection::Add(transient);
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), 0, 65536, 0x77));
  ASSERT_TRUE(recorder->waitFor(1));
  device_->read(Request(recorder.get(), 0, 65536));
  ASSERT_TRUE(recorder->waitFor(2));
  device_->read(Request(recorder.get(), 0, 65536));
  ASSERT_TRUE(recorder->waitFor(3));
  for (const auto& event : recorder->events()) {
    EXPECT_FALSE(event.failed);
    EXPECT_EQ(event.byteCount, 65536);
    EXPECT_EQ(event.data, std::vector<uint8_t>(65536, 0x77));
  }
}

TEST_P(DeviceTest, SlowCallbackDoesNotStallOtherCompletions) {
  std::mutex mutex;
  std::condition_variable changed;
  bool otherDone = false;
  bool slowSawOther = false;
  SmartPointer<IoRecorder> slow(new IoRecorder(1));
  slow->onCallback = [&](IoRequest&) {
    std::unique_lock<std::mutex> guard(mutex);
    slowSawOther = changed.wait_for(guard, std::chrono::seconds(20), [&] { return otherDone; });
  };
  SmartPointer<IoRecorder> other(new IoRecorder(2));
  other->onCallback = [&](IoRequest&) {
    std::lock_guard<std::mutex> guard(mutex);
    otherDone = true;
    changed.notify_all();
  };
  device_->write(Request(slow.get(), 0, 64));
  device_->write(Request(other.get(), 4096, 64));
  ASSERT_TRUE(other->waitFor(1));
  ASSERT_TRUE(slow->waitFor(1));
  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_TRUE(slowSawOther);
}

TEST_P(DeviceTest, CallbacksMayQueueFurtherRequests) {
  constexpr int kChain = 200;
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  std::atomic<int> next{1};
  recorder->onCallback = [&](IoRequest& request) {
    const int step = next.fetch_add(1);
    if (step < kChain) device_->write(Request(recorder.get(), request.offset() + 64, 64, 9));
  };
  device_->write(Request(recorder.get(), 0, 64, 9));
  ASSERT_TRUE(recorder->waitFor(kChain));
  EXPECT_EQ(fileBytes(0, 64 * kChain), std::vector<uint8_t>(64 * kChain, 9));
}

TEST_P(DeviceTest, ThrowingCallbackIsPostedAndTheDeviceGoesOn) {
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  recorder->onCallback = [](IoRequest&) { throw Pt::ExSystem(EDOM, Pt::ExWhere{"test", 1}); };
  std::vector<int> codes;
  std::mutex mutex;
  Pt::Exception::PostHandler previous = nullptr;
  void* previousContext = nullptr;
  struct Sink {
    std::mutex* mutex;
    std::vector<int>* codes;
  } sink{&mutex, &codes};
  Pt::Exception::SetPostHandler(
      [](const Pt::Exception& posted, void* context) {
        auto* s = static_cast<Sink*>(context);
        std::lock_guard<std::mutex> guard(*s->mutex);
        const auto* system = dynamic_cast<const Pt::ExSystem*>(&posted);
        s->codes->push_back(system ? system->code() : -1);
      },
      &sink, &previous, &previousContext);
  device_->write(Request(recorder.get(), 0, 64));
  SmartPointer<IoRecorder> after(new IoRecorder);
  device_->write(Request(after.get(), 0, 64));
  ASSERT_TRUE(after->waitFor(1));
  device_->flush();
  Pt::Exception::SetPostHandler(previous, previousContext);
  std::lock_guard<std::mutex> guard(mutex);
  EXPECT_EQ(codes, std::vector<int>{EDOM});
}

TEST_P(DeviceTest, FlushWaitsForRequestsQueuedBeforeIt) {
  IoFaultInjection::Rule hold;
  hold.action = IoFaultInjection::Action::HoldBack;
  IoFaultInjection::Add(hold);
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), 0, 4096, 0x42));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  std::atomic<bool> flushing{false};
  std::vector<uint8_t> seen;
  std::thread flusher([&] {
    flushing = true;
    device_->flush();
    seen = fileBytes(0, 4096);
  });
  while (!flushing) std::this_thread::yield();
  IoFaultInjection::ReleaseHeld();
  flusher.join();
  EXPECT_EQ(seen, std::vector<uint8_t>(4096, 0x42));
}

TEST_P(DeviceTest, TensOfThousandsOfQueuedRequestsAllComplete) {
  constexpr int kRequests = 20000;
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  for (int i = 0; i < kRequests; ++i) {
    // Half land on one hot slot, half are spread out.
    const int64_t offset = i % 2 == 0 ? 0 : 64 * (i % 8000);
    device_->write(Request(recorder.get(), offset, 64, static_cast<uint8_t>(i % 200 + 1)));
  }
  ASSERT_TRUE(recorder->waitFor(kRequests, 60000));
  // The last write to the hot slot was the last even index.
  EXPECT_EQ(fileBytes(0, 64),
            std::vector<uint8_t>(64, static_cast<uint8_t>((kRequests - 2) % 200 + 1)));
}

// The kernel cancels io_uring work that is still queued when the thread that
// entered it exits; an application thread that writes and ends must not lose
// its writes.
TEST_P(DeviceTest, WritesOfAThreadThatEndsAreNotLost) {
  constexpr int kWrites = 200;
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  std::thread([&] {
    for (int i = 0; i < kWrites; ++i) device_->write(Request(recorder.get(), i * 4096, 4096, 7));
  }).join();
  ASSERT_TRUE(recorder->waitFor(kWrites));
  for (const auto& event : recorder->events()) EXPECT_FALSE(event.failed) << event.error;
}

TEST_P(DeviceTest, LengthFollowsWritesPastTheEnd) {
  EXPECT_EQ(device_->length(), kFileSize);
  SmartPointer<IoRecorder> recorder(new IoRecorder);
  device_->write(Request(recorder.get(), kFileSize, 262160));
  ASSERT_TRUE(recorder->waitFor(1));
  EXPECT_EQ(device_->length(), kFileSize + 262160);
}

TEST_P(DeviceTest, OpenFailuresAreSystemErrors) {
  auto codeOf = [](const wchar_t* path, PtIoDeviceFile::Flags flags) {
    try {
      PtIoDeviceFile::Create(path, flags);
    } catch (const Pt::ExSystem& error) {
      return error.code();
    }
    return 0;
  };
  EXPECT_EQ(codeOf(nullptr, PtIoDeviceFile::ReadWrite), EINVAL);
  EXPECT_EQ(codeOf(dir_.wfile("missing").c_str(), PtIoDeviceFile::ReadWrite), ENOENT);
  EXPECT_EQ(codeOf(dir_.path().wstring().c_str(), PtIoDeviceFile::ReadOnly), EISDIR);
  const std::wstring invalid = dir_.path().wstring() + L"/\xD800";
  EXPECT_EQ(codeOf(invalid.c_str(), PtIoDeviceFile::ReadWrite), EILSEQ);
}

TEST_P(DeviceTest, NonAsciiPathsWork) {
  const std::wstring name = dir_.path().wstring() + L"/caché-\x65E5\x672C-\U0001F600.bin";
  std::ofstream((dir_.path() / "caché-日本-😀.bin").string()) << "hello";
  SmartPointer<PtIoDeviceFile> device =
      PtIoDeviceFile::Create(name.c_str(), PtIoDeviceFile::ReadOnly);
  EXPECT_EQ(device->length(), 5);
}

INSTANTIATE_TEST_SUITE_P(Engines, DeviceTest,
                         testing::Values(Pt::IoEngineKind::IoUring, Pt::IoEngineKind::ThreadPool),
                         EngineName);

// ---- engine selection -------------------------------------------------------

TEST(DeviceEngineSelection, RingSetupFailureSelectsTheThreadPool) {
  for (int error : {EPERM, ENOSYS, ENOMEM}) {
    IoFaultInjection::SimulateRingSetupFailure(error);
    Pt::Config config;
    config.asyncFileIo = true;
    Pt::PlatformInit(config);
    EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::ThreadPool) << error;
    Pt::PlatformUninit();
  }
  IoFaultInjection::SimulateRingSetupFailure(0);
}

TEST(DeviceEngineSelection, ExplicitIoUringReportsWhyItCannotStart) {
  IoFaultInjection::SimulateRingSetupFailure(EPERM);
  Pt::Config config;
  config.asyncFileIo = true;
  config.ioEngine = Pt::IoEngineKind::IoUring;
  try {
    Pt::PlatformInit(config);
    ADD_FAILURE() << "PlatformInit should have failed";
    Pt::PlatformUninit();
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.code(), EPERM);
  }
  IoFaultInjection::SimulateRingSetupFailure(0);
  EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::Automatic);
}

TEST(DeviceEngineSelection, InitIsCountedAndTheLastUninitStopsTheEngine) {
  Pt::Config config;
  config.asyncFileIo = true;
  Pt::PlatformInit(config);
  Pt::PlatformInit(Pt::Config{});
  const Pt::IoEngineKind engine = Pt::ActiveIoEngine();
  EXPECT_NE(engine, Pt::IoEngineKind::Automatic);
  Pt::PlatformUninit();
  EXPECT_EQ(Pt::ActiveIoEngine(), engine);
  Pt::PlatformUninit();
  EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::Automatic);
  TarnTest::TempDir dir;
  std::ofstream(dir.file("f")) << "x";
  EXPECT_THROW(PtIoDeviceFile::Create(dir.wfile("f").c_str(), PtIoDeviceFile::ReadOnly),
               Pt::ExSystem);
}

}  // namespace
