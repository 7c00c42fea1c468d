// I/O-fault loops on both engines: one kind of device request of the cache
// file (an entry's data, its header, an extent block, an extent link, a
// delete header, a read) fails with EIO or ENOSPC, or is cut short, once at
// the N-th matching request or from the N-th on, while a workload runs
// through the public API. Every combination checks that
// - every find that started is answered exactly once, and nothing hangs;
// - every object found while the cache is open holds exactly the bytes of its
//   key's current version;
// - after a reopen without faults every key holds a state its log allows:
//   a key untouched since a commit that saw no failure is exact;
// - a failed write shows in fileWriteFailures(), a short one or a failed read
//   does not (a short transfer is carried on, not failed).
//
// The requests are told apart by their length and by the phase of the
// workload: entry data is minAllocation (4096) bytes, a header or a delete
// header 64, a link 16, an extent block 262,160; inserts run alone first
// (their 64-byte writes are headers), then erases alone (delete headers),
// then finds of purged keys (reads), then a random churn. The cache starts
// from a file whose first extent has only a few free slots, so the inserts
// append an extent.
//
// The tier variants run the insert and churn faults once more with a shared
// tier: half of the writes put the version's record in an in-process tier
// and have a findCreate of the erased key served from it, so that the cache
// decodes and stores it as it stores its own inserts. The same checks hold,
// and every such write must have been a tier hit.
//
// A failed flush is not in the loop: the device's fdatasync is not routed
// through the fault seam (only SyncFile's is).
//
// Settings (environment): TARN_FAULTLOOP_MAX_N (default 5) bounds the sweep
// of N; TARN_FAULTLOOP_STEPS (default 60) is the length of the churn.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <future>
#include <iostream>
#include <map>
#include <memory>
#include <random>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "crash/CrashModel.h"
#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "store/FileFormat.h"
#include "support/FakeTier.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/RecordingReceiver.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"
#include "tier/TierRecord.h"

namespace TarnCrash {
namespace {

using Pt::IoFaultInjection;
using Bytes = std::vector<uint8_t>;

constexpr const char* kType = "tile";
constexpr int kKeysUsed = 60;        // model keys s0..s19, l0..l39
constexpr int kBaselineKeys = 20;    // stored and committed in the base file
constexpr int kFreeSlotsInBase = 8;  // the inserts need a new extent after these
constexpr int kFillers =
    static_cast<int>(Tarn::kEntriesPerExtent) - kBaselineKeys - kFreeSlotsInBase;
constexpr int32_t kDataAllocation = 4096;  // above every payload: one data length
constexpr int kAnswerTimeoutMs = 20000;
constexpr auto kCloseTimeout = std::chrono::seconds(60);
constexpr size_t kFindingsShown = 20;
constexpr const char* kTierNamespace = "faults";

uint64_t Setting(const char* name, uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::stoull(value) : fallback;
}

enum class Request { Data, Header, Extent, Relink, Delete, Read };
enum class Failure { Eio, Enospc, Short };
enum class Firing { Once, FromThenOn };

struct RequestCase {
  Request request;
  const char* name;
  IoFaultInjection::Kind kind;
  int length;
  int shortBytes;
  int maxN;  // the workload makes this many more matching requests, at least
};

const RequestCase kRequests[] = {
    {Request::Data, "data", IoFaultInjection::Kind::Write, kDataAllocation, 100, 5},
    {Request::Header, "header", IoFaultInjection::Kind::Write,
     static_cast<int>(Tarn::kEntryHeaderSize), 7, 5},
    // One extent is appended (or one more after each failed one), so only
    // N = 0 fires.
    {Request::Extent, "extent", IoFaultInjection::Kind::Write,
     static_cast<int>(Tarn::kExtentBlockSize), 1000, 0},
    {Request::Relink, "relink", IoFaultInjection::Kind::Write,
     static_cast<int>(Tarn::kExtentHeaderSize), 5, 0},
    {Request::Delete, "delete", IoFaultInjection::Kind::Write,
     static_cast<int>(Tarn::kEntryHeaderSize), 7, 5},
    {Request::Read, "read", IoFaultInjection::Kind::Read, -1, 100, 5},
};

struct Combination {
  const RequestCase* request;
  Failure failure;
  Firing firing;
  int n;
  std::string name() const {
    static const char* const failures[] = {"EIO", "ENOSPC", "short"};
    return std::string(request->name) + "/" + failures[static_cast<int>(failure)] + "/" +
           (firing == Firing::Once ? "once" : "from") + "@" + std::to_string(n);
  }
  bool failsWrite() const { return failure != Failure::Short && request->request != Request::Read; }
};

IoFaultInjection::Rule RuleFor(const Combination& c) {
  IoFaultInjection::Rule rule;
  rule.action = c.failure == Failure::Short ? IoFaultInjection::Action::Shorten
                                            : IoFaultInjection::Action::Fail;
  rule.kind = c.request->kind;
  rule.length = c.request->length;
  rule.skip = c.n;
  rule.count = c.firing == Firing::Once ? 1 : -1;
  rule.error = c.failure == Failure::Enospc ? ENOSPC : EIO;
  rule.shortBytes = c.request->shortBytes;
  return rule;
}

Bytes FillerBytes(int filler) {
  const std::string text = "filler " + std::to_string(filler) + ";";
  Bytes bytes(text.begin(), text.end());
  bytes.resize(32, static_cast<uint8_t>(filler));
  return bytes;
}

Tarn::PrimaryKey FillerKey(int filler) {
  return Tarn::PrimaryKey::FromString("f" + std::to_string(filler));
}

Pt::SmartPointer<Tarn::Cacheable> Object(const Bytes& bytes) {
  return Tarn::Cacheable::Create(
      kType, Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
}

// What one combination saw.
struct Outcome {
  int fired = 0;
  int32_t writeFailures = 0;
  int finds = 0, failedFinds = 0;
  int tierWrites = 0;
  std::vector<std::string> findings;
};

// One cache session under a fault: the workload, its log and what it saw.
class Session {
 public:
  Session(Tarn::Cache& cache, const std::map<int, int64_t>& baseline, Outcome& outcome)
      : cache_(cache), model_(baseline), outcome_(outcome) {
    for (int key = 0; key < kKeysUsed; ++key) {
      const auto found = baseline.find(key);
      current_[key] = found == baseline.end() ? kAbsent : found->second;
    }
  }

  // With a tier, even keys are written through it (see writeThroughTier).
  void setTier(TarnTest::FakeTier* tier) { tier_ = tier; }
  bool write(int key) {
    if (current_[key] != kAbsent) erase(key);
    const int64_t version = ++nextVersion_;
    log(key, version);
    if (tier_ != nullptr && key % 2 == 0) return writeThroughTier(key, version);
    cache_.insert(Tarn::PrimaryKey::FromString(KeyName(key)), Tarn::SecondaryKey{},
                  Object(Payload(key, version)).get());
    return true;
  }
  // An erased key leaves the tier too, or a find would be served from it.
  void erase(int key) {
    log(key, kAbsent);
    const Tarn::PrimaryKey primary = Tarn::PrimaryKey::FromString(KeyName(key));
    if (tier_ != nullptr) tier_->remove(Tarn::TierKey(kTierNamespace, kType, primary));
    cache_.erase(primary);
  }
  void purge(int key) { cache_.purge(Tarn::PrimaryKey::FromString(KeyName(key))); }
  // Finds the key and waits for the answer; false when none came in time.
  bool find(int key);
  void commit();
  // The states the key may have after a reopen.
  std::set<int64_t> allowed(int key) const;
  // Every find was answered once and only once (checked after the close).
  void checkAnswers();

 private:
  void log(int key, int64_t state) {
    current_[key] = state;
    model_.apply(state == kAbsent ? "E " + std::to_string(key)
                                  : "W " + std::to_string(key) + " " + std::to_string(state));
    touched_.insert(key);
    if (tainted_.count(key) != 0) tainted_[key].insert(state);
  }
  void finding(const std::string& what) { outcome_.findings.push_back(what); }
  bool writeThroughTier(int key, int64_t version);
  bool answered(int key, int id, const char* what);

  Tarn::Cache& cache_;
  TarnTest::FakeTier* tier_ = nullptr;
  Model model_;
  Outcome& outcome_;
  std::map<int, int64_t> current_;
  int64_t nextVersion_ = 1000;
  // Keys touched in a commit interval that saw a write fail: from then on
  // any state since that interval began is allowed after a reopen.
  std::set<int> touched_;
  std::map<int, std::set<int64_t>> tainted_;
  int32_t failuresAtCommit_ = 0;
  Pt::SmartPointer<TarnTest::RecordingReceiver> receiver_{new TarnTest::RecordingReceiver};
  std::vector<int> requestIds_;
};

bool Session::find(int key) {
  const int id = cache_.find(Tarn::PrimaryKey::FromString(KeyName(key)), receiver_.get());
  if (id == 0) {
    if (current_[key] != kAbsent && cache_.fileWriteFailures() == 0) {
      finding("find of " + KeyName(key) + " answered absent; expected " + Describe(current_[key]));
    }
    return true;
  }
  ++outcome_.finds;
  return answered(key, id, "find");
}

// The tier holds the version's record; the key is erased here, so the
// findCreate must be a tier hit that delivers exactly that version.
bool Session::writeThroughTier(int key, int64_t version) {
  const Tarn::PrimaryKey primary = Tarn::PrimaryKey::FromString(KeyName(key));
  const std::string tierKey = Tarn::TierKey(kTierNamespace, kType, primary);
  const Bytes bytes = Payload(key, version);
  tier_->put(tierKey, Tarn::EncodeTierRecord(tierKey, kType, Tarn::SecondaryKey{}, bytes.data(),
                                             static_cast<uint32_t>(bytes.size())));
  ++outcome_.tierWrites;
  return answered(key, cache_.findCreate(primary, Tarn::SecondaryKey{}, kType, receiver_.get()),
                  "findCreate");
}

// Waits for the answer to request `id` and checks what it delivered.
bool Session::answered(int key, int id, const char* what) {
  requestIds_.push_back(id);
  if (!receiver_->waitFor(requestIds_.size(), kAnswerTimeoutMs)) {
    finding(std::string(what) + " of " + KeyName(key) + " (request " + std::to_string(id) +
            ") never answered");
    return false;
  }
  const TarnTest::ReceiverCall call = receiver_->calls().back();
  if (call.requestId != id) finding("answer for request " + std::to_string(call.requestId));
  if (call.kind == TarnTest::ReceiverCall::Failed) ++outcome_.failedFinds;
  if (call.kind != TarnTest::ReceiverCall::Found) return true;
  const Pt::SmartPointer<Tarn::Buffer>& data = call.cacheable->getData();
  const Bytes bytes(data->bytes(), data->bytes() + data->length());
  const std::optional<int64_t> version = VersionOf(key, bytes);
  if (!version || *version != current_[key]) {
    finding("while open, " + KeyName(key) + " returned " +
            (version ? "version " + Describe(*version) : std::string("wrong bytes")) +
            "; expected " + Describe(current_[key]));
  }
  return true;
}

void Session::commit() {
  try {
    cache_.commit();
  } catch (const Pt::Exception& error) {
    finding(std::string("commit threw: ") + error.what());
  }
  const int32_t failures = cache_.fileWriteFailures();
  if (failures != failuresAtCommit_) {
    for (const int key : touched_) {
      const std::set<int64_t>& since = model_.allowed(key);
      tainted_[key].insert(since.begin(), since.end());
    }
    failuresAtCommit_ = failures;
  }
  touched_.clear();
  model_.apply("C");
}

std::set<int64_t> Session::allowed(int key) const {
  std::set<int64_t> states = model_.allowed(key);
  const auto tainted = tainted_.find(key);
  if (tainted != tainted_.end()) states.insert(tainted->second.begin(), tainted->second.end());
  return states;
}

void Session::checkAnswers() {
  // Each find waited for its answer before the next one started, so the
  // answers come in the order of the finds (request ids may be reused).
  const std::vector<TarnTest::ReceiverCall> calls = receiver_->calls();
  if (calls.size() != requestIds_.size()) {
    finding(std::to_string(requestIds_.size()) + " finds started, " + std::to_string(calls.size()) +
            " answers");
  }
  for (size_t i = 0; i < calls.size() && i < requestIds_.size(); ++i) {
    if (calls[i].requestId != requestIds_[i]) {
      finding("answer " + std::to_string(i) + " is for request " +
              std::to_string(calls[i].requestId) + ", not " + std::to_string(requestIds_[i]));
    }
  }
}

using EngineAndRequest = std::tuple<Pt::IoEngineKind, Request>;

class IoFaultLoop : public testing::TestWithParam<EngineAndRequest> {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    config.ioEngine = engine();
    try {
      Pt::PlatformInit(config);
    } catch (const Pt::Exception& error) {
      GTEST_SKIP() << "the engine cannot be set up: " << error.what();
    }
    initialised_ = true;
    ASSERT_EQ(Pt::ActiveIoEngine(), engine()) << "an engine was already running";
  }
  void TearDown() override {
    IoFaultInjection::Clear();
    if (initialised_) Pt::PlatformUninit();
  }

  Pt::IoEngineKind engine() const { return std::get<0>(GetParam()); }
  const RequestCase& request() const {
    for (const RequestCase& c : kRequests) {
      if (c.request == std::get<1>(GetParam())) return c;
    }
    return kRequests[0];
  }

  std::unique_ptr<Tarn::Cache> open(bool create, int32_t minAllocation,
                                    const std::shared_ptr<TarnTest::FakeTier>& tier = nullptr) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.memoryTarget = 1 << 30;
    config.workerThreads = 2;
    config.minAllocation = minAllocation;
    config.createIfMissing = create;
    Tarn::TierConfig tierConfig;
    tierConfig.tier = tier;
    tierConfig.keyNamespace = kTierNamespace;
    return std::make_unique<Tarn::Cache>(
        dir_.wfile("c.tarn").c_str(), config,
        std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{new TarnTest::NamedFactory(kType)},
        tierConfig);
  }

  void buildBase();
  void runWorkload(Session& session, const Combination& combination, int& ruleId);
  void closeWithin(std::unique_ptr<Tarn::Cache>& cache, const Combination& combination);
  void verifyReopened(const Session& session, Outcome& outcome);
  Outcome run(const Combination& combination);
  // Every combination of the request's faults; fails the test on findings.
  void sweep();

  TarnTest::TempDir dir_;
  bool viaTier_ = false;
  bool initialised_ = false;
  Bytes base_;
  std::map<int, int64_t> baseline_;
};

// A committed file whose first extent holds the baseline keys and fillers,
// with kFreeSlotsInBase slots left.
void IoFaultLoop::buildBase() {
  auto cache = open(true, 0);
  for (int filler = 0; filler < kFillers; ++filler) {
    cache->insert(FillerKey(filler), Tarn::SecondaryKey{}, Object(FillerBytes(filler)).get());
  }
  for (int key = 0; key < kBaselineKeys; ++key) {
    baseline_[key] = key + 1;
    cache->insert(Tarn::PrimaryKey::FromString(KeyName(key)), Tarn::SecondaryKey{},
                  Object(Payload(key, key + 1)).get());
  }
  cache->commit();
  cache.reset();
  base_ = TarnTest::ReadFileBytes(dir_.file("c.tarn"));
}

// Inserts alone, erases alone, finds of purged keys, then a seeded churn;
// the rule goes in at the start of the phase whose requests it matches.
void IoFaultLoop::runWorkload(Session& session, const Combination& combination, int& ruleId) {
  const Request request = combination.request->request;
  const auto arm = [&](bool now) {
    if (now) ruleId = IoFaultInjection::Add(RuleFor(combination));
  };
  arm(request != Request::Delete && request != Request::Read);
  for (int key = kBaselineKeys; key < kKeysUsed; ++key) {
    if (!session.write(key)) return;
  }
  session.commit();
  arm(request == Request::Delete);
  for (int key = 0; key < 10; ++key) session.erase(key), session.erase(kBaselineKeys + key);
  session.commit();
  arm(request == Request::Read);
  for (int key = 10; key < 20; ++key) {
    session.purge(key), session.purge(kBaselineKeys + key);
    if (!session.find(key) || !session.find(kBaselineKeys + key)) return;
  }
  session.commit();
  std::mt19937_64 random(static_cast<uint64_t>(std::hash<std::string>{}(combination.name())));
  const uint64_t steps = Setting("TARN_FAULTLOOP_STEPS", 60);
  for (uint64_t step = 0; step < steps; ++step) {
    const int key = static_cast<int>(random() % kKeysUsed);
    const unsigned roll = random() % 100;
    if (roll < 8) {
      session.commit();
    } else if (roll < 20) {
      session.erase(key);
    } else if (roll < 45) {
      if (roll < 35) session.purge(key);
      if (!session.find(key)) return;
    } else if (!session.write(key)) {
      return;
    }
  }
  session.commit();
}

// Closes the cache, or ends the process when the close hangs: a hang is a
// finding that nothing after it could recover from.
void IoFaultLoop::closeWithin(std::unique_ptr<Tarn::Cache>& cache, const Combination& combination) {
  auto closing = std::async(std::launch::async, [&cache] { cache.reset(); });
  if (closing.wait_for(kCloseTimeout) == std::future_status::ready) return;
  std::cerr << "io fault loop: closing the cache hangs after " << combination.name() << std::endl;
  std::abort();
}

void IoFaultLoop::verifyReopened(const Session& session, Outcome& outcome) {
  std::unique_ptr<Tarn::Cache> cache;
  try {
    cache = open(false, 0);
  } catch (const std::exception& error) {
    outcome.findings.push_back(std::string("reopen failed: ") + error.what());
    return;
  }
  if (cache->droppedEntries() != 0) {
    outcome.findings.push_back("reopen dropped " + std::to_string(cache->droppedEntries()) +
                               " entries");
  }
  for (int key = 0; key < kKeysUsed; ++key) {
    std::string problem;
    const int64_t state = StateOf(*cache, key, problem);
    const std::set<int64_t> allowed = session.allowed(key);
    if (!problem.empty() || allowed.count(state) == 0) {
      outcome.findings.push_back("after reopen, " + KeyName(key) + ": expected one of " +
                                 Describe(allowed) + ", got " +
                                 (problem.empty() ? Describe(state) : problem));
    }
  }
  // Fillers were committed before any fault and never touched: a sample.
  for (int filler = 0; filler < kFillers; filler += 97) {
    std::string problem;
    Pt::SmartPointer<TarnTest::RecordingReceiver> receiver(new TarnTest::RecordingReceiver);
    const bool found = cache->find(FillerKey(filler), receiver.get()) != 0 &&
                       receiver->waitFor(1) &&
                       receiver->calls()[0].kind == TarnTest::ReceiverCall::Found;
    Pt::SmartPointer<Tarn::Buffer> data;
    if (found) data = receiver->calls()[0].cacheable->getData();
    if (!found || Bytes(data->bytes(), data->bytes() + data->length()) != FillerBytes(filler)) {
      outcome.findings.push_back("after reopen, filler " + std::to_string(filler) +
                                 " is lost or wrong");
    }
  }
}

Outcome IoFaultLoop::run(const Combination& combination) {
  Outcome outcome;
  if (!TarnTest::WriteFileBytes(dir_.file("c.tarn"), base_)) {
    outcome.findings.push_back("cannot write the base file");
    return outcome;
  }
  TarnTest::PostedExceptions posted;  // failures are posted too; kept quiet here
  const auto tier = viaTier_ ? std::make_shared<TarnTest::FakeTier>() : nullptr;
  auto cache = open(false, kDataAllocation, tier);
  Session session(*cache, baseline_, outcome);
  session.setTier(tier.get());
  int ruleId = -1;
  runWorkload(session, combination, ruleId);
  outcome.fired = IoFaultInjection::Fired(ruleId);
  outcome.writeFailures = cache->fileWriteFailures();
  const uint64_t hits = cache->tierStatistics().hits;
  // Finds of keys whose write failed may be served by the tier as well.
  if (hits < static_cast<uint64_t>(outcome.tierWrites)) {
    outcome.findings.push_back(std::to_string(outcome.tierWrites) + " writes through the tier, " +
                               std::to_string(hits) + " tier hits");
  }
  closeWithin(cache, combination);
  IoFaultInjection::Clear();
  session.checkAnswers();
  const bool expectFailures = combination.failsWrite() && outcome.fired > 0;
  if (expectFailures != (outcome.writeFailures > 0)) {
    outcome.findings.push_back("fired " + std::to_string(outcome.fired) + " times, " +
                               std::to_string(outcome.writeFailures) + " write failures counted");
  }
  verifyReopened(session, outcome);
  return outcome;
}

std::string CaseName(const testing::TestParamInfo<EngineAndRequest>& info) {
  std::string name =
      std::get<0>(info.param) == Pt::IoEngineKind::IoUring ? "IoUring_" : "ThreadPool_";
  for (const RequestCase& c : kRequests) {
    if (c.request == std::get<1>(info.param)) name += c.name;
  }
  return name;
}

const auto kEngines = testing::Values(Pt::IoEngineKind::IoUring, Pt::IoEngineKind::ThreadPool);

void IoFaultLoop::sweep() {
  buildBase();
  const RequestCase& request = this->request();
  const int maxN = std::min(static_cast<int>(Setting("TARN_FAULTLOOP_MAX_N", 5)), request.maxN);
  int combinations = 0, firedCombinations = 0, failedFinds = 0, tierWrites = 0;
  std::vector<std::string> findings;
  for (const Failure failure : {Failure::Eio, Failure::Enospc, Failure::Short}) {
    for (const Firing firing : {Firing::Once, Firing::FromThenOn}) {
      for (int n = 0; n <= maxN; ++n) {
        const Combination combination{&request, failure, firing, n};
        const Outcome outcome = run(combination);
        ++combinations;
        firedCombinations += outcome.fired > 0 ? 1 : 0;
        failedFinds += outcome.failedFinds;
        tierWrites += outcome.tierWrites;
        if (outcome.fired == 0) findings.push_back(combination.name() + ": the rule never fired");
        for (const std::string& what : outcome.findings) {
          findings.push_back(combination.name() + ": " + what);
        }
      }
    }
  }
  std::cout << "io fault loop (" << request.name << "): " << combinations << " combinations, "
            << firedCombinations << " with the fault fired, " << failedFinds << " finds failed, ";
  if (viaTier_) std::cout << tierWrites << " writes served by a tier, ";
  std::cout << findings.size() << " findings" << std::endl;
  for (size_t i = 0; i < findings.size(); ++i) {
    if (i < kFindingsShown) ADD_FAILURE() << findings[i];
    std::cout << "  " << findings[i] << std::endl;
  }
  EXPECT_TRUE(findings.empty());
}

TEST_P(IoFaultLoop, EveryRequestAnsweredOnceAndNothingWrongOrLost) {
  sweep();
}

// Tier hits are decoded and stored through the same insert as the
// application's own objects, while the file's writes fail.
class TierFaultLoop : public IoFaultLoop {
 protected:
  void SetUp() override {
    viaTier_ = true;
    IoFaultLoop::SetUp();
  }
};

TEST_P(TierFaultLoop, TierHitsStoredUnderFaultsLoseNothingCommitted) {
  sweep();
}

// A find of a purged key whose data write is still in flight queues a read
// of the key's range, which the device orders behind that write. When the
// write fails, the range holds whatever it held before (here the bytes of an
// erased entry whose freed range the key reused): the find must fail rather
// than deliver those bytes as the key's, and nothing may write them back.
using DataWriteFault = IoFaultLoop;

TEST_P(DataWriteFault, FindQueuedBehindAFailedDataWriteReturnsNoWrongBytes) {
  IoFaultInjection::Rule rule;
  rule.kind = IoFaultInjection::Kind::Write;
  rule.length = kDataAllocation;
  rule.count = -1;
  TarnTest::PostedExceptions posted;
  auto cache = open(true, kDataAllocation);
  constexpr int kFreed = kKeysUsed / 2;  // their ranges are freed, then reused
  for (int key = 0; key < kFreed; ++key) {
    cache->insert(Tarn::PrimaryKey::FromString(KeyName(key)), Tarn::SecondaryKey{},
                  Object(Payload(key, 1)).get());
  }
  cache->commit();
  for (int key = 0; key < kFreed; ++key) cache->erase(Tarn::PrimaryKey::FromString(KeyName(key)));
  cache->commit();
  IoFaultInjection::Add(rule);
  int wrong = 0;
  for (int key = kFreed; key < kKeysUsed; ++key) {
    const auto primary = Tarn::PrimaryKey::FromString(KeyName(key));
    cache->insert(primary, Tarn::SecondaryKey{}, Object(Payload(key, 1)).get());
    cache->purge(primary);  // the find now reads the file, behind the data write
    Pt::SmartPointer<TarnTest::RecordingReceiver> receiver(new TarnTest::RecordingReceiver);
    if (cache->find(primary, receiver.get()) == 0) continue;
    ASSERT_TRUE(receiver->waitFor(1, kAnswerTimeoutMs)) << KeyName(key);
    const TarnTest::ReceiverCall call = receiver->calls()[0];
    if (call.kind != TarnTest::ReceiverCall::Found) continue;
    const Pt::SmartPointer<Tarn::Buffer>& data = call.cacheable->getData();
    if (VersionOf(key, Bytes(data->bytes(), data->bytes() + data->length())) != 1) ++wrong;
  }
  cache.reset();
  EXPECT_EQ(wrong, 0) << "finds that returned bytes never written, of " << kKeysUsed - kFreed;
}

INSTANTIATE_TEST_SUITE_P(
    Faults, IoFaultLoop,
    testing::Combine(kEngines, testing::Values(Request::Header, Request::Extent, Request::Relink,
                                               Request::Delete, Request::Read)),
    CaseName);
INSTANTIATE_TEST_SUITE_P(DataFaults, IoFaultLoop,
                         testing::Combine(kEngines, testing::Values(Request::Data)), CaseName);
INSTANTIATE_TEST_SUITE_P(Faults, TierFaultLoop,
                         testing::Combine(kEngines, testing::Values(Request::Data, Request::Header,
                                                                    Request::Delete)),
                         CaseName);
INSTANTIATE_TEST_SUITE_P(Engines, DataWriteFault,
                         testing::Combine(kEngines, testing::Values(Request::Data)), CaseName);

}  // namespace
}  // namespace TarnCrash
