// Writes to adjacent ranges that reach an engine together go out as one
// vectored write; run against every engine. Requests are held back by the
// fault-injection seam and released as one batch, so the engine finds them
// together whatever the timing.
#include <signal.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <fstream>
#include <map>
#include <thread>

#include <gtest/gtest.h>

#include "platform/IoEngine.h"
#include "platform/IoFaultInjection.h"
#include "platform/IoTrace.h"
#include "platform/PlatformState.h"
#include "platform/TestPoint.h"
#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "support/DeviceFixture.h"
#include "support/IoRecorder.h"
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
using Kind = IoFaultInjection::Kind;

class WriteGroupTest : public TarnTest::DeviceFixture {
 protected:
  void SetUp() override {
    DeviceFixture::SetUp();
    groupsBefore_ = Pt::CurrentIoEngine()->writeGroups();
    groupedBefore_ = Pt::CurrentIoEngine()->groupedWrites();
  }

  // Holds the next `count` writes; they go to the engine on ReleaseHeld.
  static void HoldWrites(int count) {
    IoFaultInjection::Add({.action = Action::HoldBack, .kind = Kind::Write, .count = count});
  }

  void write(const SmartPointer<IoRecorder>& recorder, int64_t offset, int length, uint8_t fill) {
    device_->write(Request(recorder, offset, length, fill));
  }

  uint64_t groups() const { return Pt::CurrentIoEngine()->writeGroups() - groupsBefore_; }
  uint64_t grouped() const { return Pt::CurrentIoEngine()->groupedWrites() - groupedBefore_; }

  uint64_t groupsBefore_ = 0;
  uint64_t groupedBefore_ = 0;
};

// Eight adjacent writes queued from the highest offset down, with a write
// elsewhere among them, become one group of eight; each member hears its own
// completion, and the file holds every member's bytes in place.
TEST_P(WriteGroupTest, AdjacentWritesReleasedTogetherGoOutAsOneGroup) {
  HoldWrites(9);
  std::vector<SmartPointer<IoRecorder>> members;
  for (int i = 7; i >= 0; --i) {
    members.insert(members.begin(), SmartPointer<IoRecorder>(new IoRecorder(i)));
    write(members.front(), 8192 + 1024 * i, 1024, static_cast<uint8_t>(i + 1));
    if (i == 4) write(SmartPointer<IoRecorder>(new IoRecorder(99)), 65536, 512, 0xEE);
  }
  ASSERT_TRUE(IoFaultInjection::WaitHeld(9));
  IoFaultInjection::ReleaseHeld();
  for (int i = 0; i < 8; ++i) {
    ASSERT_TRUE(members[i]->waitFor(1));
    const auto events = members[i]->events();
    ASSERT_EQ(events.size(), 1u);
    EXPECT_FALSE(events[0].failed);
    EXPECT_EQ(events[0].byteCount, 1024);
    EXPECT_EQ(fileBytes(8192 + 1024 * i, 1024), Bytes(1024, static_cast<uint8_t>(i + 1))) << i;
  }
  device_->flush();
  EXPECT_EQ(fileBytes(65536, 512), Bytes(512, 0xEE));
  EXPECT_EQ(groups(), 1u);
  EXPECT_EQ(grouped(), 8u);
}

// A group takes at most 64 requests and 1 MiB: 70 adjacent small writes make
// two groups, three adjacent writes of 512 KiB one group of two and a single.
TEST_P(WriteGroupTest, GroupsStayWithinTheirBounds) {
  auto recorder = SmartPointer<IoRecorder>(new IoRecorder());
  HoldWrites(70);
  for (int i = 0; i < 70; ++i) write(recorder, 64 * i, 64, 0x11);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(70));
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(recorder->waitFor(70));
  EXPECT_EQ(groups(), 2u);
  EXPECT_EQ(grouped(), 70u);
  EXPECT_EQ(fileBytes(0, 64 * 70), Bytes(64 * 70, 0x11));

  HoldWrites(3);
  for (int i = 0; i < 3; ++i) write(recorder, 262144 + 524288 * i, 524288, 0x22);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(3));
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(recorder->waitFor(73));
  EXPECT_EQ(groups(), 3u);
  EXPECT_EQ(grouped(), 72u);
  for (const auto& event : recorder->events()) EXPECT_FALSE(event.failed);
}

// Grouping keeps the order of overlapping requests and what a flush covers.
// X and Y are adjacent and held; W rewrites X's bytes and must wait for it;
// a read behind W must see W; V, adjacent to Y, is queued after a flush has
// begun waiting and joins X and Y. The flush waits for X, Y, W and the read,
// and its trace covers exactly the writes that completed before it.
TEST_P(WriteGroupTest, OverlapsAndFlushesKeepTheirOrderAcrossAGroup) {
  IoTrace::Start();
  TestPoint::Watch();
  HoldWrites(3);  // X, Y, V; W reaches the engine only after X is done
  auto x = SmartPointer<IoRecorder>(new IoRecorder(1)),
       y = SmartPointer<IoRecorder>(new IoRecorder(2));
  auto w = SmartPointer<IoRecorder>(new IoRecorder(3)),
       v = SmartPointer<IoRecorder>(new IoRecorder(4));
  auto reader = SmartPointer<IoRecorder>(new IoRecorder(5));
  write(x, 0, 4096, 1);
  write(y, 4096, 4096, 2);
  write(w, 0, 4096, 3);
  SmartPointer<IoRequest> read = IoRequest::Create(reader.get(), 8192, IoRequest::Normal);
  read->setOffset(0);
  device_->read(read);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(2));
  std::thread flusher([&] { device_->flush(); });
  ASSERT_TRUE(TestPoint::WaitFor(TestPoint::Id::DeviceFlushWaiting, 4));
  write(v, 8192, 4096, 4);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(3));
  EXPECT_TRUE(x->events().empty() && w->events().empty() && reader->events().empty());
  IoFaultInjection::ReleaseHeld();
  flusher.join();
  ASSERT_TRUE(v->waitFor(1));
  TestPoint::Unwatch();
  EXPECT_EQ(groups(), 1u);
  EXPECT_EQ(grouped(), 3u);
  ASSERT_TRUE(reader->waitFor(1));
  Bytes expected(4096, 3);
  expected.resize(8192, 2);
  EXPECT_EQ(reader->events()[0].data, expected);
  EXPECT_EQ(fileBytes(0, 12288), [] {
    Bytes file(4096, 3);
    file.resize(8192, 2);
    file.resize(12288, 4);
    return file;
  }());

  // X, Y and W completed before the flush began, X before W; the flush
  // covers exactly the writes recorded before it. V, which the flush did not
  // wait for, is recorded before or after it.
  const std::vector<IoTrace::Event> events = IoTrace::Stop();
  ASSERT_EQ(events.size(), 6u);
  size_t begin = 0;
  std::vector<std::pair<int64_t, uint8_t>> before;
  for (; begin < events.size() && events[begin].type == IoTrace::Type::Write; ++begin) {
    before.emplace_back(events[begin].offset, events[begin].bytes.at(0));
  }
  ASSERT_LT(begin, events.size());
  EXPECT_EQ(events[begin].type, IoTrace::Type::FlushBegin);
  EXPECT_EQ(events[begin].writesCovered, begin);
  const auto end =
      std::find_if(events.begin() + static_cast<std::ptrdiff_t>(begin), events.end(),
                   [](const IoTrace::Event& e) { return e.type == IoTrace::Type::FlushEnd; });
  ASSERT_NE(end, events.end());
  EXPECT_EQ(end->writesCovered, begin);
  const auto at = [&](int64_t offset, uint8_t fill) {
    return std::find(before.begin(), before.end(), std::pair<int64_t, uint8_t>{offset, fill});
  };
  EXPECT_LT(at(0, 1), at(0, 3));
  EXPECT_NE(at(0, 3), before.end());
  EXPECT_NE(at(4096, 2), before.end());
}

// A file-size limit in the middle of a group: the vectored write stops short
// at the limit. The members below it complete, the one across it and those
// above fail with EFBIG, each through its own callback.
TEST_P(WriteGroupTest, AFailureInsideAGroupReachesEachMember) {
  constexpr int64_t kStart = kFileSize - 4096;
  constexpr int64_t kLimit = kFileSize + 1536;  // inside the sixth member
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_FSIZE, &saved), 0);
  struct sigaction ignore {
  }, previous{};
  ignore.sa_handler = SIG_IGN;
  ASSERT_EQ(sigaction(SIGXFSZ, &ignore, &previous), 0);
  rlimit limited = saved;
  limited.rlim_cur = kLimit;
  ASSERT_EQ(setrlimit(RLIMIT_FSIZE, &limited), 0);

  HoldWrites(8);
  std::vector<SmartPointer<IoRecorder>> members;
  for (int i = 0; i < 8; ++i) {
    members.emplace_back(new IoRecorder(i));
    write(members.back(), kStart + 1024 * i, 1024, static_cast<uint8_t>(0x30 + i));
  }
  const bool held = IoFaultInjection::WaitHeld(8);
  IoFaultInjection::ReleaseHeld();
  bool allHeard = true;
  for (auto& member : members) allHeard = member->waitFor(1) && allHeard;
  setrlimit(RLIMIT_FSIZE, &saved);
  sigaction(SIGXFSZ, &previous, nullptr);
  ASSERT_TRUE(held && allHeard);

  EXPECT_EQ(groups(), 1u);
  EXPECT_EQ(grouped(), 8u);
  for (int i = 0; i < 8; ++i) {
    const auto events = members[i]->events();
    ASSERT_EQ(events.size(), 1u) << i;
    const bool below = kStart + 1024 * (i + 1) <= kLimit;
    EXPECT_EQ(events[0].failed, !below) << i;
    EXPECT_EQ(events[0].error, below ? 0 : EFBIG) << i;
    if (below) {
      EXPECT_EQ(fileBytes(kStart + 1024 * i, 1024), Bytes(1024, static_cast<uint8_t>(0x30 + i)));
    }
  }
}

INSTANTIATE_TEST_SUITE_P(Engines, WriteGroupTest,
                         testing::Values(Pt::IoEngineKind::IoUring, Pt::IoEngineKind::ThreadPool,
                                         Pt::IoEngineKind::Automatic),
                         TarnTest::EngineName);

}  // namespace
