// The asynchronous file device, run against every engine.
#include <atomic>
#include <cstring>
#include <fstream>
#include <random>
#include <set>
#include <thread>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "platform/IoTrace.h"
#include "platform/TestPoint.h"
#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "support/DeviceFixture.h"
#include "support/IoRecorder.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"

namespace {

using Pt::IoFaultInjection;
using Pt::IoRequest;
using Pt::IoTrace;
using Pt::PtIoDeviceFile;
using Pt::SmartPointer;
using Pt::TestPoint;
using TarnTest::IoRecorder;
using Action = IoFaultInjection::Action;

class DeviceTest : public TarnTest::DeviceFixture {
 protected:
  void SetUp() override {
    DeviceFixture::SetUp();
    // Automatic runs the split engine, which reports the ring.
    const bool automatic = GetParam() == Pt::IoEngineKind::Automatic;
    ASSERT_EQ(Pt::ActiveIoEngine(), automatic ? Pt::IoEngineKind::IoUring : GetParam());
  }
};

// Each request's completion arrives on an I/O thread with the bytes read or
// written; a read past the end gets only the bytes that exist. Short transfers
// and transient errors injected on the way are continued, not reported.
TEST_P(DeviceTest, RequestsCompleteOnAnIoThreadWithTheirBytes) {
  for (const bool faulty : {false, true}) {
    SCOPED_TRACE(faulty ? "with short and transient transfers" : "clean");
    if (faulty) {
      IoFaultInjection::Add({.action = Action::Shorten, .count = 2, .shortBytes = 1000});
      IoFaultInjection::Add({.action = Action::Transient, .transientCount = 3});
    }
    const uint8_t fill = faulty ? 0x77 : 0xAB;
    auto recorder = Recorder();
    std::multiset<int> counts;
    device_->write(Request(recorder, 4096, 65536, fill));
    ASSERT_TRUE(recorder->waitFor(1));
    device_->read(Request(recorder, 4096, 65536));
    device_->read(Request(recorder, kFileSize - 100, 4096));
    device_->read(Request(recorder, kFileSize + 4096, 16));
    ASSERT_TRUE(recorder->waitFor(4));
    for (const auto& event : recorder->events()) {
      EXPECT_FALSE(event.failed);
      EXPECT_NE(event.thread, std::this_thread::get_id());
      counts.insert(event.byteCount);
      EXPECT_TRUE(event.byteCount != 65536 || event.data == Bytes(65536, fill));
    }
    EXPECT_EQ(counts, (std::multiset<int>{0, 100, 65536, 65536}));
    EXPECT_EQ(fileBytes(4096, 65536), Bytes(65536, fill));
  }
}

// Random reads and writes over a small region: every read must see exactly the
// writes queued before it, as if the requests had run one by one.
TEST_P(DeviceTest, OverlappingRequestsTakeEffectInQueueOrder) {
  constexpr int kRegion = 8192;
  std::mt19937 random(7);
  Bytes model(kRegion, 0);
  std::vector<std::pair<SmartPointer<IoRecorder>, Bytes>> reads;
  auto writes = Recorder();
  size_t writeCount = 0;
  for (int i = 0; i < 3000; ++i) {
    const int offset = static_cast<int>(random() % (kRegion - 1));
    const int length = 1 + static_cast<int>(random() % std::min(512, kRegion - offset));
    if (random() % 3 == 0) {
      reads.emplace_back(Recorder(i),
                         Bytes(model.begin() + offset, model.begin() + offset + length));
      device_->read(Request(reads.back().first, offset, length));
    } else {
      const auto fill = static_cast<uint8_t>(1 + i % 251);
      std::fill(model.begin() + offset, model.begin() + offset + length, fill);
      device_->write(Request(writes, offset, length, fill));
      ++writeCount;
    }
  }
  ASSERT_TRUE(writes->waitFor(writeCount));
  for (auto& [reader, expected] : reads) {
    ASSERT_TRUE(reader->waitFor(1));
    EXPECT_EQ(reader->events()[0].data, expected) << "read " << reader->events()[0].offset;
  }
  EXPECT_EQ(fileBytes(0, kRegion), model);
}

// A held write delays the requests that overlap it and a flush, nothing else.
TEST_P(DeviceTest, HeldRequestDelaysOnlyOverlapsAndFlushWaitsForIt) {
  IoFaultInjection::Add({.action = Action::HoldBack, .offset = 0});
  auto held = Recorder(1), overlapping = Recorder(2), apart = Recorder(3);
  device_->write(Request(held, 0, 4096, 1));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  device_->read(Request(overlapping, 100, 10));
  device_->write(Request(apart, 8192, 4096, 3));
  ASSERT_TRUE(apart->waitFor(1));
  EXPECT_TRUE(held->events().empty() && overlapping->events().empty());
  // The flush waits for the held write and the read queued behind it.
  TestPoint::Watch();
  std::atomic<bool> flushed{false};
  Bytes seen;
  std::thread flusher([&] {
    device_->flush();
    seen = fileBytes(0, 4096);
    flushed = true;
  });
  ASSERT_TRUE(TestPoint::WaitFor(TestPoint::Id::DeviceFlushWaiting, 2));
  EXPECT_FALSE(flushed);
  IoFaultInjection::ReleaseHeld();
  flusher.join();
  TestPoint::Unwatch();
  EXPECT_EQ(seen, Bytes(4096, 1));
  ASSERT_TRUE(overlapping->waitFor(1));
  EXPECT_EQ(overlapping->events()[0].data, Bytes(10, 1));
}

// The trace lists each completed write with its bytes, in completion order,
// and brackets each flush: the write the flush waited for is recorded before
// the flush begins; a write queued during the flush and held until after it
// is recorded after its end and not counted as covered.
TEST_P(DeviceTest, TraceOrdersCompletedWritesAroundTheFlushes) {
  IoTrace::Start();
  TestPoint::Watch();
  auto recorder = Recorder();
  IoFaultInjection::Add({.action = Action::HoldBack, .offset = 0});
  IoFaultInjection::Add({.action = Action::HoldBack, .offset = 8192});
  device_->write(Request(recorder, 0, 8, 1));
  device_->write(Request(recorder, 4096, 8, 2));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  ASSERT_TRUE(recorder->waitFor(1));
  std::thread flusher([&] { device_->flush(); });
  ASSERT_TRUE(TestPoint::WaitFor(TestPoint::Id::DeviceFlushWaiting, 1));
  device_->write(Request(recorder, 8192, 8, 3));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(2));
  IoFaultInjection::ReleaseHeld(1);  // the write at 0
  flusher.join();
  EXPECT_EQ(IoTrace::FlushCount(), 1u);
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(recorder->waitFor(3));
  TestPoint::Unwatch();
  EXPECT_EQ(IoTrace::FlushCount(device_->descriptor()), 1u);
  const std::vector<IoTrace::Event> events = IoTrace::Stop();

  using Type = IoTrace::Type;
  const struct {
    Type type;
    int64_t offset;
    uint8_t fill;
    size_t covered;
  } expected[] = {{Type::Write, 4096, 2, 0},
                  {Type::Write, 0, 1, 0},
                  {Type::FlushBegin, 0, 0, 2},
                  {Type::FlushEnd, 0, 0, 2},
                  {Type::Write, 8192, 3, 0}};
  ASSERT_EQ(events.size(), std::size(expected));
  for (size_t i = 0; i < events.size(); ++i) {
    SCOPED_TRACE(i);
    const bool write = expected[i].type == Type::Write;
    EXPECT_EQ(events[i].type, expected[i].type);
    EXPECT_EQ(events[i].device, device_->descriptor());
    EXPECT_EQ(events[i].offset, expected[i].offset);
    EXPECT_EQ(events[i].bytes, write ? Bytes(8, expected[i].fill) : Bytes());
    EXPECT_EQ(events[i].writesCovered, expected[i].covered);
  }
  EXPECT_EQ(IoTrace::FlushCount(), 0u);  // nothing recorded once stopped
}

TEST_P(DeviceTest, InjectedFailureReachesIoFailedAndLeavesTheFileAlone) {
  IoFaultInjection::Add({.kind = IoFaultInjection::Kind::Write, .offset = 512, .error = ENOSPC});
  auto recorder = Recorder();
  device_->write(Request(recorder, 512, 64, 0x55));
  device_->write(Request(recorder, 1024, 64, 0x66));
  ASSERT_TRUE(recorder->waitFor(2));
  for (const auto& event : recorder->events()) {
    EXPECT_EQ(event.failed, event.offset == 512);
    EXPECT_EQ(event.error, event.failed ? ENOSPC : 0);
  }
  EXPECT_EQ(fileBytes(512, 64), Bytes(64, 0));
  EXPECT_EQ(fileBytes(1024, 64), Bytes(64, 0x66));
}

TEST_P(DeviceTest, SlowCallbackDoesNotStallOtherCompletions) {
  auto slow = Recorder(1), other = Recorder(2);
  std::atomic<bool> slowSawOther{false};
  slow->onCallback = [&](IoRequest&) { slowSawOther = other->waitFor(1); };
  device_->write(Request(slow, 0, 64));
  device_->write(Request(other, 4096, 64));
  ASSERT_TRUE(slow->waitFor(1));
  EXPECT_TRUE(slowSawOther);
}

// Callbacks may queue further requests; one that throws is posted and the
// device goes on.
TEST_P(DeviceTest, CallbacksMayQueueRequestsAndThrow) {
  constexpr int kChain = 200;
  TarnTest::PostedExceptions posted;
  auto recorder = Recorder();
  std::atomic<int> next{1};
  recorder->onCallback = [&](IoRequest& request) {
    const int step = next.fetch_add(1);
    if (step < kChain) device_->write(Request(recorder, request.offset() + 64, 64, 9));
    if (step == kChain / 2) throw Pt::ExSystem(EDOM, Pt::ExWhere{"test", 1});
  };
  device_->write(Request(recorder, 0, 64, 9));
  ASSERT_TRUE(recorder->waitFor(kChain - 1));
  device_->flush();
  EXPECT_EQ(fileBytes(0, 64 * kChain), Bytes(64 * kChain, 9));
  ASSERT_EQ(posted.count(), 1u);
  const auto error = posted.at(0);
  const auto* system = dynamic_cast<const Pt::ExSystem*>(error.get());
  ASSERT_NE(system, nullptr);
  EXPECT_EQ(system->code(), EDOM);
}

// Tens of thousands of writes, half on one hot slot, queued by a thread that
// then ends: the kernel cancels io_uring work still queued when the thread
// that entered it exits, and none of these writes may be lost.
TEST_P(DeviceTest, TensOfThousandsOfWritesOfAThreadThatEndsAllComplete) {
  constexpr int kRequests = 20000;
  auto recorder = Recorder();
  std::thread([&] {
    for (int i = 0; i < kRequests; ++i) {
      const int64_t offset = i % 2 == 0 ? 0 : 64 * (i % 8000);
      device_->write(Request(recorder, offset, 64, static_cast<uint8_t>(i % 200 + 1)));
    }
  }).join();
  ASSERT_TRUE(recorder->waitFor(kRequests, 60000));
  for (const auto& event : recorder->events()) ASSERT_FALSE(event.failed) << event.error;
  // The last write to the hot slot was the last even index.
  EXPECT_EQ(fileBytes(0, 64), Bytes(64, static_cast<uint8_t>((kRequests - 2) % 200 + 1)));
}

TEST_P(DeviceTest, OpenFailsWithErrnoAndAcceptsNonAsciiPaths) {
  const std::wstring dir = dir_.path().wstring(), missing = dir_.wfile("missing");
  const std::wstring invalid = dir + L"/\xD800";
  for (auto [path, error] : {std::pair{missing.c_str(), ENOENT},
                             {dir.c_str(), EISDIR},
                             {invalid.c_str(), EILSEQ},
                             {nullptr, EINVAL}}) {
    try {
      PtIoDeviceFile::Create(
          path, error == EISDIR ? PtIoDeviceFile::ReadOnly : PtIoDeviceFile::ReadWrite);
      ADD_FAILURE() << error;
    } catch (const Pt::ExSystem& thrown) {
      EXPECT_EQ(thrown.code(), error);
    }
  }

  const std::wstring name = dir_.path().wstring() + L"/caché-\x65E5\x672C-\U0001F600.bin";
  std::ofstream((dir_.path() / "caché-日本-😀.bin").string()) << "hello";
  EXPECT_EQ(PtIoDeviceFile::Create(name.c_str(), PtIoDeviceFile::ReadOnly)->length(), 5);
}

// A read of bytes in the page cache completes on the calling thread, with no
// callback, unless a fault-injection rule could apply to reads: then it takes
// the engine's way like any read.
TEST_P(DeviceTest, ReadNowOrQueueServesCachedBytesOnTheCallingThread) {
  auto writes = Recorder();
  device_->write(Request(writes, 4096, 8192, 0x5A));
  ASSERT_TRUE(writes->waitFor(1));
  const struct {
    const char* what;
    IoFaultInjection::Kind ruleKind;  // Write: a rule that never matches a read
    bool inlineExpected;
  } cases[] = {
      {"no rule for reads", IoFaultInjection::Kind::Write, true},
      {"a rule for reads", IoFaultInjection::Kind::Read, false},
      {"a rule for any request", IoFaultInjection::Kind::Any, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.what);
    IoFaultInjection::Add({.action = Action::Transient, .kind = c.ruleKind, .count = -1});
    auto recorder = Recorder();
    const SmartPointer<IoRequest> request = Request(recorder, 4096, 8192);
    EXPECT_EQ(device_->readNowOrQueue(request), c.inlineExpected);
    device_->flush();  // every queued request has completed
    if (c.inlineExpected) {
      EXPECT_TRUE(recorder->events().empty());
      EXPECT_EQ(request->byteCount(), 8192);
      EXPECT_EQ(Bytes(request->data(), request->data() + 8192), Bytes(8192, 0x5A));
    } else {
      ASSERT_TRUE(recorder->waitFor(1));
      EXPECT_NE(recorder->events()[0].thread, std::this_thread::get_id());
      EXPECT_EQ(recorder->events()[0].data, Bytes(8192, 0x5A));
    }
    IoFaultInjection::Clear();
  }
}

// A read queued behind an unfinished overlapping write is never served on
// the calling thread ahead of it: it waits, and then sees the write. A read
// that overlaps nothing is served at once meanwhile.
TEST_P(DeviceTest, ReadNowOrQueueWaitsBehindAnOverlappingWrite) {
  IoFaultInjection::Add({.action = Action::HoldBack, .kind = IoFaultInjection::Kind::Write});
  auto held = Recorder(1), behind = Recorder(2), apart = Recorder(3);
  device_->write(Request(held, 0, 4096, 7));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_FALSE(device_->readNowOrQueue(Request(behind, 100, 10)));
  const SmartPointer<IoRequest> apartRead = Request(apart, 8192, 16, 0xEE);
  EXPECT_TRUE(device_->readNowOrQueue(apartRead));
  EXPECT_EQ(Bytes(apartRead->data(), apartRead->data() + 16), Bytes(16, 0));
  EXPECT_TRUE(held->events().empty() && behind->events().empty());
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(behind->waitFor(1));
  EXPECT_EQ(behind->events()[0].data, Bytes(10, 7));
  EXPECT_TRUE(held->waitFor(1));
  EXPECT_TRUE(apart->events().empty());
}

INSTANTIATE_TEST_SUITE_P(Engines, DeviceTest,
                         testing::Values(Pt::IoEngineKind::IoUring, Pt::IoEngineKind::ThreadPool,
                                         Pt::IoEngineKind::Automatic),
                         TarnTest::EngineName);

// A ring that cannot be set up falls back to the thread pool, unless io_uring
// was asked for by name: then the init fails with the ring's errno. Init is
// counted: only the last uninit stops the engine.
TEST(DeviceEngineSelection, RingSetupFailureAndCountedInit) {
  Pt::Config config;
  config.asyncFileIo = true;
  for (int error : {EPERM, ENOSYS, ENOMEM}) {
    IoFaultInjection::SimulateRingSetupFailure(error);
    Pt::PlatformInit(config);
    Pt::PlatformInit(Pt::Config{});
    Pt::PlatformUninit();
    EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::ThreadPool) << error;
    Pt::PlatformUninit();
    EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::Automatic);
  }
  config.ioEngine = Pt::IoEngineKind::IoUring;
  try {
    Pt::PlatformInit(config);
    ADD_FAILURE() << "PlatformInit should have failed";
    Pt::PlatformUninit();
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.code(), ENOMEM);
  }
  IoFaultInjection::SimulateRingSetupFailure(0);
  EXPECT_EQ(Pt::ActiveIoEngine(), Pt::IoEngineKind::Automatic);
}

}  // namespace
