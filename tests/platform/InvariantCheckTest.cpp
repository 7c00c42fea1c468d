// Each platform structure's checker catches a structure broken on purpose.
// The accessors below break one invariant at a time, ask the checker, and
// repair the damage before anything else can see it.
#include <fstream>
#include <functional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "platform/DeviceCore.h"
#include "platform/IoFaultInjection.h"
#include "platform/RequestSequencer.h"
#include "platform/ThreadPoolEngine.h"
#include "platform/UringEngine.h"
#include "pt/Platform.h"
#include "pt/PtIoDeviceFile.h"
#include "support/IoRecorder.h"
#include "support/TempDir.h"

namespace Pt {

// Three overlapping requests and one apart: A [0,100), B [50,150) waits for
// A, C [120,200) waits for B, D [300,400) runs at once.
struct RequestSequencerTestAccess {
  struct Setup {
    RequestSequencer sequencer;
    std::vector<SmartPointer<IoRequest>> requests;
    RequestState& state(size_t i) { return IoRequestAccess::state(*requests[i]); }
  };
  static void Build(Setup& s) {
    const int64_t ranges[][2] = {{0, 100}, {50, 150}, {120, 200}, {300, 400}};
    for (const auto& range : ranges) {
      s.requests.push_back(IoRequest::Create(nullptr, 0, IoRequest::Normal));
      s.sequencer.admit(s.requests.back().get(), range[0], range[1]);
    }
  }
  using Break = std::function<void(Setup&)>;
  static std::vector<std::pair<std::string, Break>> Breakages() {
    return {
        {"overlapping segments", [](Setup& s) { s.sequencer.segments_.begin()->second.end = 60; }},
        {"empty segment",
         [](Setup& s) {
           s.sequencer.segments_.emplace(250, RequestSequencer::Segment{250, s.requests[3].get()});
         }},
        {"tail not the latest",
         [](Setup& s) { s.sequencer.segments_.at(120).tail = s.requests[1].get(); }},
        {"tail does not cover",
         [](Setup& s) { s.sequencer.segments_.at(300).tail = s.requests[0].get(); }},
        {"retired tail",
         [](Setup& s) {
           s.requests.push_back(IoRequest::Create(nullptr, 0, IoRequest::Normal));
           s.sequencer.segments_.at(300).tail = s.requests.back().get();
         }},
        {"tail not reached", [](Setup& s) { s.state(1).successors.clear(); }},
        {"predecessor count", [](Setup& s) { ++s.state(2).pendingPredecessors; }},
        {"listed twice",
         [](Setup& s) {
           s.state(0).successors.push_back(s.requests[1].get());
           ++s.state(1).pendingPredecessors;
         }},
        {"successor apart",
         [](Setup& s) {
           s.state(0).successors.push_back(s.requests[3].get());
           ++s.state(3).pendingPredecessors;
         }},
        {"bytes without a segment", [](Setup& s) { s.sequencer.segments_.erase(300); }},
        {"live count", [](Setup& s) { ++s.sequencer.liveCount_; }},
        {"live list order", [](Setup& s) { s.state(2).admission = 1; }},
    };
  }
};

struct DeviceCoreTestAccess {
  using Break = bool (*)(DeviceCore&);
  static std::vector<std::pair<std::string, Break>> Breakages() {
    return {
        {"epoch count",
         [](DeviceCore& d) {
           PlainLock lock(d.mutex_);
           ++d.epochCounts_.back();
           const bool holds = d.invariantsHold();
           --d.epochCounts_.back();
           return holds;
         }},
        {"drained oldest epoch kept",
         [](DeviceCore& d) {
           PlainLock lock(d.mutex_);
           d.epochCounts_.push_front(0);
           --d.baseEpoch_;
           const bool holds = d.invariantsHold();
           d.epochCounts_.pop_front();
           ++d.baseEpoch_;
           return holds;
         }},
        {"request outside every epoch",
         [](DeviceCore& d) {
           PlainLock lock(d.mutex_);
           ++d.baseEpoch_;
           const bool holds = d.invariantsHold();
           --d.baseEpoch_;
           return holds;
         }},
    };
  }
};

struct UringEngineTestAccess {
  using Break = bool (*)(UringEngine&, IoRequest*);
  static std::vector<std::pair<std::string, Break>> Breakages() {
    return {
        {"in-flight count",
         [](UringEngine& e, IoRequest*) {
           PlainLock lock(e.submitMutex_);
           ++e.inFlight_;
           const bool holds = e.invariantsHold();
           --e.inFlight_;
           return holds;
         }},
        {"in-flight list",
         [](UringEngine& e, IoRequest* request) {
           PlainLock lock(e.submitMutex_);
           e.linkInFlight(request);
           --e.inFlight_;
           const bool holds = e.invariantsHold();
           ++e.inFlight_;
           e.unlinkInFlight(request);
           return holds;
         }},
        {"pending flag",
         [](UringEngine& e, IoRequest*) {
           PlainLock lock(e.submitMutex_);
           e.pending_.push_back(nullptr);
           const bool holds = e.invariantsHold();
           e.pending_.pop_back();
           return holds;
         }},
        {"pending with the reaper asleep",
         [](UringEngine& e, IoRequest*) {
           PlainLock lock(e.submitMutex_);
           const bool waiting = e.reaperWaiting_, wake = e.wakeQueued_;
           e.reaperWaiting_ = true;
           e.wakeQueued_ = false;
           e.pending_.push_back(nullptr);
           e.anyPending_ = true;
           const bool holds = e.invariantsHold();
           e.pending_.pop_back();
           e.anyPending_ = false;
           e.reaperWaiting_ = waiting;
           e.wakeQueued_ = wake;
           return holds;
         }},
        {"wake-up without a sleeper",
         [](UringEngine& e, IoRequest*) {
           PlainLock lock(e.submitMutex_);
           const bool waiting = e.reaperWaiting_, wake = e.wakeQueued_;
           e.reaperWaiting_ = false;
           e.wakeQueued_ = true;
           const bool holds = e.invariantsHold();
           e.reaperWaiting_ = waiting;
           e.wakeQueued_ = wake;
           return holds;
         }},
    };
  }
};

struct ThreadPoolEngineTestAccess {
  using Break = bool (*)(ThreadPoolEngine&, IoRequest*);
  static std::vector<std::pair<std::string, Break>> Breakages() {
    return {
        {"queue length",
         [](ThreadPoolEngine& e, IoRequest*) {
           PlainLock lock(e.mutex_);
           ++e.queued_;
           const bool holds = e.invariantsHold();
           --e.queued_;
           return holds;
         }},
        {"head without tail",
         [](ThreadPoolEngine& e, IoRequest* request) {
           PlainLock lock(e.mutex_);
           IoRequestAccess::state(*request).next = nullptr;
           e.head_ = request;
           ++e.queued_;
           const bool holds = e.invariantsHold();
           e.head_ = nullptr;
           --e.queued_;
           return holds;
         }},
        {"more carried than threads",
         [](ThreadPoolEngine& e, IoRequest*) {
           PlainLock lock(e.mutex_);
           e.carrying_ += e.threadCount_ + 1;
           const bool holds = e.invariantsHold();
           e.carrying_ -= e.threadCount_ + 1;
           return holds;
         }},
    };
  }
};

}  // namespace Pt

namespace {

using Pt::IoFaultInjection;
using Pt::IoRequest;
using Pt::SmartPointer;

TEST(InvariantChecks, SequencerCatchesEachBrokenInvariant) {
  using Access = Pt::RequestSequencerTestAccess;
  {
    Access::Setup intact;
    Access::Build(intact);
    EXPECT_TRUE(intact.sequencer.checkInvariants());
  }
  for (const auto& [name, breakIt] : Access::Breakages()) {
    Access::Setup setup;
    Access::Build(setup);
    breakIt(setup);
    EXPECT_FALSE(setup.sequencer.checkInvariants()) << name;
  }
}

TEST(InvariantChecks, DeviceCatchesABrokenFlushBarrier) {
  Pt::Config config;
  config.asyncFileIo = true;
  config.ioEngine = Pt::IoEngineKind::ThreadPool;
  Pt::PlatformInit(config);
  {
    TarnTest::TempDir dir;
    std::ofstream(dir.file("device.bin")) << std::string(4096, '\0');
    auto device =
        Pt::PtIoDeviceFile::Create(dir.wfile("device.bin").c_str(), Pt::PtIoDeviceFile::ReadWrite);
    IoFaultInjection::Add({.action = IoFaultInjection::Action::HoldBack});
    SmartPointer<TarnTest::IoRecorder> recorder(new TarnTest::IoRecorder());
    SmartPointer<IoRequest> request = IoRequest::Create(recorder.get(), 16, IoRequest::Normal);
    device->write(request);
    ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
    Pt::DeviceCore& core = *Pt::IoRequestAccess::state(*request).device;
    EXPECT_TRUE(core.checkInvariants());
    for (const auto& [name, broken] : Pt::DeviceCoreTestAccess::Breakages()) {
      EXPECT_FALSE(broken(core)) << name;
    }
    EXPECT_TRUE(core.checkInvariants());
    IoFaultInjection::Clear();
    ASSERT_TRUE(recorder->waitFor(1));
  }
  Pt::PlatformUninit();
}

template <class Engine, class Access>
void ExpectEachBreakageCaught(Engine& engine) {
  SmartPointer<IoRequest> request = IoRequest::Create(nullptr, 16, IoRequest::Normal);
  EXPECT_TRUE(engine.checkInvariants());
  for (const auto& [name, broken] : Access::Breakages()) {
    EXPECT_FALSE(broken(engine, request.get())) << name;
  }
  EXPECT_TRUE(engine.checkInvariants());
}

TEST(InvariantChecks, EnginesCatchBrokenInFlightAccounting) {
  const std::unique_ptr<Pt::UringEngine> uring = Pt::UringEngine::Create(1);
  ExpectEachBreakageCaught<Pt::UringEngine, Pt::UringEngineTestAccess>(*uring);
  Pt::ThreadPoolEngine pool(2);
  ExpectEachBreakageCaught<Pt::ThreadPoolEngine, Pt::ThreadPoolEngineTestAccess>(pool);
}

}  // namespace
