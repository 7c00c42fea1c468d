#include "crash/CrashWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <exception>
#include <map>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "crash/CrashModel.h"
#include "store/FileManager.h"
#include "support/FakeTier.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace TarnCrash {
namespace {

// The writer runs at most this long; the parent kills it well before.
constexpr auto kSafetyLimit = std::chrono::seconds(30);
// On average one commit per this many steps, and one close and reopen per
// this many.
constexpr unsigned kStepsPerCommit = 12;
constexpr unsigned kStepsPerReopen = 150;

// The log only has to outlive the writer process, not the machine: what
// write() has handed to the kernel survives a kill, so no fsync is needed.
class SideLog {
 public:
  explicit SideLog(const std::string& path)
      : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
  ~SideLog() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  void line(const std::string& text) {
    const std::string whole = text + "\n";
    if (::write(fd_, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size())) {
      std::perror("crash writer: log");
      std::_Exit(3);
    }
  }

 private:
  int fd_;
};

Pt::SmartPointer<Tarn::Cacheable> Object(int key, int64_t version) {
  const std::vector<uint8_t> bytes = Payload(key, version);
  return Tarn::Cacheable::Create(
      kType, Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
}

// Generates the version of the key that the writer announced last, so that
// a findCreate served by the factory writes a version the log names.
class VersionFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>&) override {
    return Object(key, version);
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override {
    return Tarn::Cacheable::Create(kType, data);
  }
  const std::string& getType() const override { return type_; }

  std::atomic<int> key{0};
  std::atomic<int64_t> version{0};

 private:
  std::string type_ = kType;
};

// The writer's shared tier: an in-process fake that fills as the writer
// publishes. Lookups are answered inline, and the writer waits for each
// publish, so it knows before each findCreate whether the tier serves it
// and with which version.
struct TierSide {
  std::shared_ptr<TarnTest::FakeTier> tier = std::make_shared<TarnTest::FakeTier>();
  Pt::SmartPointer<VersionFactory> factory{new VersionFactory};
  std::map<int, int64_t> published;  // the version the tier holds per key
};

[[noreturn]] void Fail(const std::string& what) {
  std::fprintf(stderr, "crash writer: %s\n", what.c_str());
  std::_Exit(4);
}

// A write through findCreate: the tier's version when it holds the key
// (logged "T", decoded and inserted by the cache), else a generated one that
// the cache publishes. The object delivered must be the version logged.
void WriteThroughTier(Tarn::Cache& cache, SideLog& log, TierSide& side, int key, int64_t& version) {
  const auto held = side.published.find(key);
  const bool hit = held != side.published.end();
  const int64_t expected = hit ? held->second : version++;
  const uint64_t hitsBefore = cache.tierStatistics().hits;
  const int publishesBefore = side.tier->publishes;
  side.factory->key = key;
  side.factory->version = expected;
  log.line(std::string(hit ? "T " : "W ") + std::to_string(key) + " " + std::to_string(expected));
  const Pt::SmartPointer<Tarn::Cacheable> got =
      cache
          .findCreateFuture(Tarn::PrimaryKey::FromString(KeyName(key)),
                            Tarn::SecondaryKey::FromString("crash"), kType)
          .get();
  Pt::SmartPointer<Tarn::Buffer> data;
  if (got) data = got->getData();
  if (!data || VersionOf(key, std::vector<uint8_t>(data->bytes(),
                                                   data->bytes() + data->length())) != expected) {
    Fail("findCreate of " + KeyName(key) + " did not deliver version " + std::to_string(expected));
  }
  if (hit && cache.tierStatistics().hits != hitsBefore + 1) Fail("expected a tier hit");
  if (!hit) {
    if (!side.tier->waitPublished(publishesBefore + 1))
      Fail("the generated object was not published");
    side.published[key] = expected;
  }
}

// One step on one key: insert when it is absent; otherwise replace it
// (erase, then insert at once, while the first write may be in flight) or
// erase it. With a tier, two writes in three go through findCreate.
void Step(Tarn::Cache& cache, SideLog& log, std::mt19937_64& random, int64_t& version,
          TierSide* side) {
  const int key = random() % 5 < 3 ? static_cast<int>(random() % kSmallKeys)
                                   : kSmallKeys + static_cast<int>(random() % kLargeKeys);
  const Tarn::PrimaryKey primary = Tarn::PrimaryKey::FromString(KeyName(key));
  const Tarn::SecondaryKey secondary = Tarn::SecondaryKey::FromString("crash");
  if (cache.isCached(primary)) {
    log.line("E " + std::to_string(key));
    cache.erase(primary);
    if (random() % 4 == 0) return;  // an erase alone
  }
  if (side != nullptr && random() % 3 != 0)
    return WriteThroughTier(cache, log, *side, key, version);
  const int64_t next = version++;
  log.line("W " + std::to_string(key) + " " + std::to_string(next));
  cache.insert(primary, secondary, Object(key, next).get());
}

}  // namespace

int RunWriter(int argc, char** argv) {
  if (argc != 6 && !(argc == 7 && std::string(argv[6]) == kTierFlag)) {
    std::fprintf(stderr, "crash writer: wrong arguments\n");
    return 2;
  }
  const std::string cachePath = argv[2];
  SideLog log(argv[3]);
  std::mt19937_64 random(std::stoull(argv[4]));
  int64_t version = std::stoll(argv[5]);
  if (!log.ok()) return 2;
  // Every close with a gap in the file relocates, so that kills land in
  // relocations too.
  Tarn::FileManager::SetRelocationTrigger(1.0);
  try {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.memoryTarget = 1 << 20;
    config.workerThreads = 1;
    const std::wstring path(cachePath.begin(), cachePath.end());
    std::unique_ptr<TierSide> side;
    if (argc == 7) side = std::make_unique<TierSide>();
    const auto open = [&] {
      if (side) {
        Tarn::TierConfig tier;
        tier.tier = side->tier;
        tier.keyNamespace = "crash";
        return std::make_unique<Tarn::Cache>(
            path.c_str(), config,
            std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{side->factory}, tier);
      }
      return std::make_unique<Tarn::Cache>(
          path.c_str(), config,
          std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{new TarnTest::NamedFactory(kType)});
    };
    auto cache = open();
    const auto end = std::chrono::steady_clock::now() + kSafetyLimit;
    while (std::chrono::steady_clock::now() < end) {
      Step(*cache, log, random, version, side.get());
      if (random() % kStepsPerCommit == 0) {
        cache->commit();
        log.line("C");
      }
      if (random() % kStepsPerReopen == 0) {
        const uint64_t moved = Tarn::FileManager::RelocatedEntries();
        cache.reset();
        log.line("R " + std::to_string(Tarn::FileManager::RelocatedEntries() - moved));
        cache = open();
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "crash writer: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace TarnCrash
