// The power-loss simulator: a cache churns a small key set while the device
// traces every completed write and every flush; then crash images are built
// as a disk that reorders writes between flushes could leave them (the writes
// covered by the last completed flush, plus any subset of the later ones,
// one of them possibly torn at a 512- or 4096-byte boundary). Each image must
// open and return, for every key, exactly one of the states its log allows:
// nothing committed lost, no wrong bytes. Each trace ends with the close,
// which relocates every entry above a gap in the file (the relocation's
// copies, header rewrites and flushes are traced like any other write).
//
// With durable ordering (the default) every image must pass. With relaxed
// ordering the same figures are printed for comparison, not asserted: that
// mode promises nothing after a power loss.
//
// Settings (environment): TARN_POWERLOSS_IMAGES (default 5000; `make
// crashtest` runs 100,000), TARN_POWERLOSS_SEED repeats a run.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>
#include <iostream>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "crash/CrashModel.h"
#include "crash/CrashWriter.h"
#include "platform/IoTrace.h"
#include "store/FileManager.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace TarnCrash {
namespace {

using Bytes = std::vector<uint8_t>;
using Pt::IoTrace;

constexpr int kKeysUsed = kSmallKeys + 10;  // the churned keys and a few others
constexpr int kStepsPerTrace = 400;
constexpr int kTraces = 4;

uint64_t Setting(const char* name, uint64_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::stoull(value) : fallback;
}

// One traced run: the file before it, the device's events, and the log of
// what was written, with the flush count seen when each commit returned.
struct Trace {
  Bytes base;
  std::vector<IoTrace::Event> events;
  std::vector<std::string> log;
  std::vector<size_t> flushesAtCommit;  // one per "C" line, in order
  uint64_t relocated = 0;               // entries the close moved
  size_t closeFrom = 0;                 // the first event of the close
};

struct Figures {
  uint64_t images = 0, failedOpens = 0, wrongBytes = 0, lostCommitted = 0;
  std::string firstFinding;
  void finding(const std::string& what) {
    if (firstFinding.empty()) firstFinding = what;
  }
};

class PowerLoss : public testing::TestWithParam<bool> {
 protected:
  std::unique_ptr<Tarn::Cache> open(bool create) {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.memoryTarget = 1 << 20;
    config.workerThreads = 1;
    config.createIfMissing = create;
    config.relaxedOrdering = GetParam();
    return std::make_unique<Tarn::Cache>(
        dir_.wfile("c.tarn").c_str(), config,
        std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{new TarnTest::NamedFactory(kType)});
  }

  // Churns the key set: writes (an erase first when the key is stored),
  // erases and commits in random order, without waiting between steps, so
  // that replacements of one key overlap in flight.
  Trace record(std::mt19937_64& random, int64_t& version) {
    const double trigger = Tarn::FileManager::RelocationTrigger();
    std::remove(dir_.file("c.tarn").c_str());
    Trace trace;
    auto cache = open(true);
    cache->commit();
    trace.base = TarnTest::ReadFileBytes(dir_.file("c.tarn"));
    std::vector<bool> stored(kKeysUsed, false);
    IoTrace::Start();
    for (int step = 0; step < kStepsPerTrace; ++step) {
      const int key = static_cast<int>(random() % kKeysUsed);
      const auto primary = Tarn::PrimaryKey::FromString(KeyName(key));
      const unsigned roll = random() % 100;
      if (roll < 10) {
        cache->commit();
        trace.log.push_back("C");
        trace.flushesAtCommit.push_back(IoTrace::FlushCount());
      } else if (roll < 25 && stored[key]) {
        trace.log.push_back("E " + std::to_string(key));
        cache->erase(primary);
        stored[key] = false;
      } else {
        if (stored[key]) trace.log.push_back("E " + std::to_string(key)), cache->erase(primary);
        const Bytes payload = Payload(key, ++version);
        trace.log.push_back("W " + std::to_string(key) + " " + std::to_string(version));
        const auto object = Tarn::Cacheable::Create(
            kType, Tarn::Buffer::Create(static_cast<int32_t>(payload.size()), payload.data()));
        cache->insert(primary, Tarn::SecondaryKey{}, object.get());
        stored[key] = true;
      }
    }
    // The close relocates whatever lies above a gap: its copies, header
    // rewrites and flushes end the trace.
    const uint64_t moved = Tarn::FileManager::RelocatedEntries();
    const size_t flushesBeforeClose = IoTrace::FlushCount();
    Tarn::FileManager::SetRelocationTrigger(1.0);
    cache.reset();
    Tarn::FileManager::SetRelocationTrigger(trigger);
    trace.relocated = Tarn::FileManager::RelocatedEntries() - moved;
    trace.events = IoTrace::Stop();
    size_t flushes = 0;
    while (trace.closeFrom < trace.events.size() && flushes < flushesBeforeClose) {
      flushes += trace.events[trace.closeFrom++].type == IoTrace::Type::FlushEnd ? 1 : 0;
    }
    return trace;
  }

  // Lays the chosen writes over the base image, in the order they completed.
  static Bytes Image(const Trace& trace, const std::vector<const IoTrace::Event*>& writes) {
    Bytes image = trace.base;
    for (const IoTrace::Event* write : writes) {
      const size_t end = static_cast<size_t>(write->offset) + write->bytes.size();
      if (image.size() < end) image.resize(end, 0);
      std::copy(write->bytes.begin(), write->bytes.end(), image.begin() + write->offset);
    }
    return image;
  }

  // A crash after the first `point` events: the writes covered by the last
  // completed flush survive; of the others, a subset chosen by `pattern`,
  // the last one possibly torn. Returns the image and the commits that
  // must be in it.
  static Bytes CrashImage(const Trace& trace, size_t point, int pattern, std::mt19937_64& random,
                          size_t& commitsRequired);

  Figures check(const std::vector<Trace>& traces, uint64_t images, std::mt19937_64& random);
  void verify(const Trace& trace, size_t commitsRequired, Figures& figures);

  TarnTest::TempDir dir_;
};

Bytes PowerLoss::CrashImage(const Trace& trace, size_t point, int pattern, std::mt19937_64& random,
                            size_t& commitsRequired) {
  size_t durableWrites = 0, flushes = 0;
  std::vector<const IoTrace::Event*> writes;
  for (size_t i = 0; i < point; ++i) {
    const IoTrace::Event& event = trace.events[i];
    if (event.type == IoTrace::Type::Write) writes.push_back(&event);
    if (event.type == IoTrace::Type::FlushEnd) durableWrites = event.writesCovered, ++flushes;
  }
  commitsRequired = 0;
  while (commitsRequired < trace.flushesAtCommit.size() &&
         trace.flushesAtCommit[commitsRequired] <= flushes) {
    ++commitsRequired;
  }
  std::vector<const IoTrace::Event*> chosen(writes.begin(), writes.begin() + durableWrites);
  const size_t volatileCount = writes.size() - durableWrites;
  const size_t one = volatileCount == 0 ? 0 : random() % volatileCount;
  for (size_t i = 0; i < volatileCount; ++i) {
    const bool keep = pattern == 0   ? true   // everything issued survived
                      : pattern == 1 ? false  // nothing since the flush
                      : pattern == 2 ? i == one
                      : pattern == 3 ? i != one
                                     : random() % 2 == 0;
    if (keep) chosen.push_back(writes[durableWrites + i]);
  }
  Bytes image = Image(trace, chosen);
  if (pattern == 5 && volatileCount > 0) {  // tear one write at a sector boundary
    const IoTrace::Event& torn = *writes[durableWrites + one];
    const size_t sector = random() % 2 == 0 ? 512 : 4096;
    const size_t begin = static_cast<size_t>(torn.offset), end = begin + torn.bytes.size();
    const size_t cut = (begin / sector + 1 + random() % 4) * sector;
    if (cut < end) {
      const bool headOnly = random() % 2 == 0;
      const size_t from = headOnly ? begin : cut, to = headOnly ? cut : end;
      if (image.size() < to) image.resize(to, 0);
      std::copy(torn.bytes.begin() + (from - begin), torn.bytes.begin() + (to - begin),
                image.begin() + from);
    }
  }
  return image;
}

void PowerLoss::verify(const Trace& trace, size_t commitsRequired, Figures& figures) {
  Model model({});
  size_t commits = 0;
  for (const std::string& line : trace.log) {
    if (line == "C" && ++commits > commitsRequired) continue;
    model.apply(line);
  }
  std::unique_ptr<Tarn::Cache> cache;
  try {
    cache = open(false);
  } catch (const std::exception& error) {
    ++figures.failedOpens;
    figures.finding(std::string("open failed: ") + error.what());
    return;
  }
  for (int key = 0; key < kKeysUsed; ++key) {
    std::string problem;
    const int64_t state = StateOf(*cache, key, problem);
    const std::set<int64_t>& allowed = model.allowed(key);
    if (!problem.empty() || (state != kAbsent && allowed.count(state) == 0)) {
      ++figures.wrongBytes;
      figures.finding("key " + KeyName(key) + ": expected one of " + Describe(allowed) + ", got " +
                      (problem.empty() ? Describe(state) : problem));
    } else if (allowed.count(state) == 0) {
      ++figures.lostCommitted;
      figures.finding("key " + KeyName(key) + ": expected one of " + Describe(allowed) +
                      ", got absent");
    }
  }
}

Figures PowerLoss::check(const std::vector<Trace>& traces, uint64_t images,
                         std::mt19937_64& random) {
  Figures figures;
  for (; figures.images < images; ++figures.images) {
    const Trace& trace = traces[figures.images % traces.size()];
    // One image in four crashes during the close, where the relocation runs.
    const size_t from = figures.images % 4 == 3 ? trace.closeFrom : 0;
    const size_t point = from + random() % (trace.events.size() - from + 1);
    size_t commitsRequired = 0;
    const Bytes image =
        CrashImage(trace, point, static_cast<int>(random() % 6), random, commitsRequired);
    if (!TarnTest::WriteFileBytes(dir_.file("c.tarn"), image)) {
      ADD_FAILURE() << "cannot write the crash image";
      break;
    }
    verify(trace, commitsRequired, figures);
  }
  return figures;
}

TEST_P(PowerLoss, EveryCrashImageOpensWithEveryCommittedEntryExact) {
  const bool relaxed = GetParam();
  const uint64_t seed = Setting("TARN_POWERLOSS_SEED", std::random_device{}());
  const uint64_t images = Setting("TARN_POWERLOSS_IMAGES", 5000) / (relaxed ? 5 : 1);
  std::cout << "power loss (" << (relaxed ? "relaxed" : "durable") << " ordering): seed " << seed
            << " (TARN_POWERLOSS_SEED repeats it)" << std::endl;
  std::mt19937_64 random(seed);
  int64_t version = 0;
  std::vector<Trace> traces;
  uint64_t relocated = 0;
  for (int t = 0; t < kTraces; ++t) {
    traces.push_back(record(random, version));
    relocated += traces.back().relocated;
  }
  std::cout << "power loss: the closes of " << kTraces << " traces relocated " << relocated
            << " entries" << std::endl;
  EXPECT_GT(relocated, 0u) << "no close relocated: the relocation's ordering went unchecked";
  const Figures figures = check(traces, images, random);
  std::cout << "power loss (" << (relaxed ? "relaxed" : "durable") << "): " << figures.images
            << " images, " << figures.failedOpens << " failed opens, " << figures.wrongBytes
            << " keys with wrong bytes, " << figures.lostCommitted << " committed entries lost"
            << (figures.firstFinding.empty() ? "" : "; first: " + figures.firstFinding)
            << std::endl;
  if (relaxed) return;  // no promise after a power loss: reported only
  EXPECT_EQ(figures.failedOpens, 0u);
  EXPECT_EQ(figures.wrongBytes, 0u);
  EXPECT_EQ(figures.lostCommitted, 0u);
}

INSTANTIATE_TEST_SUITE_P(Ordering, PowerLoss, testing::Values(false, true),
                         [](const auto& info) { return info.param ? "Relaxed" : "Durable"; });

}  // namespace
}  // namespace TarnCrash
