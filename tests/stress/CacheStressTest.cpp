// Several threads run every public operation of the cache, at random, over a
// key space small enough that they collide all the time, with a memory bound
// small enough that objects keep leaving memory and coming back from the
// file. Checked, in every build:
// - the index's and the free space's invariants, now and then during the run;
// - every request that got an id ends with exactly one receiver call, and a
//   find that returned 0 with none; nothing fails (no fault is injected);
// - every object delivered holds bytes its key can have;
// - each thread's own keys, which only it inserts and erases, always read
//   back as its model says (isCached, findPrimaryKeys, a blocking find), and
//   after a commit, a close and a reopen the file holds exactly the model.
//
// TARN_STRESS_OPS sets the number of operations (all threads together),
// TARN_STRESS_SEED the seed; the seed is printed so a failure can be rerun.
#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "manager/CacheManager.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace Tarn {
// Reaches the manager behind a Cache, for its invariant checks.
struct CacheInternals {
  static CacheManager& Of(Cache& cache) { return *cache.manager_; }
};
}  // namespace Tarn

namespace {

using Tarn::PrimaryKey;
using Tarn::SecondaryKey;

constexpr int kThreads = 4;
constexpr int kOwnKeys = 4;              // per thread: only that thread inserts and erases them
constexpr int kGeneratedKeys = 8;        // shared: only findCreate makes them
constexpr long kDefaultOps = 4'000'000;  // about ten seconds in a release build
constexpr int32_t kTarget = 3000;
constexpr int32_t kSlack = 1000;

long EnvOr(const char* name, long fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? std::strtol(text, nullptr, 10) : fallback;
}

PrimaryKey OwnKey(int thread, int n) {
  return PrimaryKey::FromString("own-" + std::to_string(thread) + "-" + std::to_string(n));
}
PrimaryKey GeneratedKey(int n) {
  return PrimaryKey::FromString("gen-" + std::to_string(n));
}
PrimaryKey AnyKey(std::mt19937& random) {
  const int n = static_cast<int>(random() % (kThreads * kOwnKeys + kGeneratedKeys));
  return n < kThreads * kOwnKeys ? OwnKey(n / kOwnKeys, n % kOwnKeys)
                                 : GeneratedKey(n - kThreads * kOwnKeys);
}
SecondaryKey OwnerTag(int thread) {
  return SecondaryKey::FromString("t" + std::to_string(thread));
}
std::string KeyText(const PrimaryKey& key) {
  return std::string(reinterpret_cast<const char*>(key.data), static_cast<size_t>(key.length));
}

// The bytes of version `version` of an own key: the key and the version, then
// a filler that depends on both, 16 to 400 bytes in all.
std::string Encode(const PrimaryKey& key, uint32_t version) {
  std::string bytes = KeyText(key) + "#" + std::to_string(version) + "#";
  const size_t length = 16 + (std::hash<std::string>{}(bytes) % 385);
  while (bytes.size() < length)
    bytes.push_back(static_cast<char>('a' + (bytes.size() * version) % 26));
  return bytes;
}

std::string BytesOf(const Pt::SmartPointer<Tarn::Cacheable>& object) {
  const Pt::SmartPointer<Tarn::Buffer> data = object->getData();
  return std::string(reinterpret_cast<const char*>(data->bytes()),
                     static_cast<size_t>(data->length()));
}

// Whether `object` holds bytes that `key` can have: a generated key holds its
// own text; an own key some version of itself.
bool Plausible(const PrimaryKey& key, const Pt::SmartPointer<Tarn::Cacheable>& object) {
  if (!object || !object->getData()) return false;
  const std::string bytes = BytesOf(object);
  const std::string text = KeyText(key);
  if (text.rfind("gen-", 0) == 0) return bytes == text;
  const size_t hash = bytes.find('#', text.size() + 1);
  if (bytes.rfind(text + "#", 0) != 0 || hash == std::string::npos) return false;
  return bytes == Encode(key, static_cast<uint32_t>(std::stoul(bytes.substr(text.size() + 1))));
}

// Faults seen on any thread; the first few are kept for the report.
class Faults {
 public:
  void add(const std::string& what) {
    std::lock_guard<std::mutex> guard(mutex_);
    if (++count_ <= 10) first_.push_back(what);
  }
  int count() {
    std::lock_guard<std::mutex> guard(mutex_);
    return count_;
  }
  std::string report() {
    std::lock_guard<std::mutex> guard(mutex_);
    std::string text;
    for (const std::string& what : first_) text += what + "\n";
    return text;
  }

 private:
  std::mutex mutex_;
  int count_ = 0;
  std::vector<std::string> first_;
};

struct Tally {
  std::atomic<long> started{0}, answered{0}, repeated{0}, failed{0};
};

// One per request: counts its calls, and checks each against its request.
class CountingReceiver : public Tarn::CacheableReceiver {
 public:
  CountingReceiver(Tally& tally, Faults& faults, const PrimaryKey& key)
      : tally_(tally), faults_(faults), key_(key) {}
  // Sets the id find returned; false when a call already came with another.
  bool expectId(int id) {
    id_ = id;
    const int seen = seenId_.load();
    return seen == 0 || seen == id;
  }

  void found(int id, const Tarn::CacheKey<32>& key,
             const Pt::SmartPointer<Tarn::Cacheable>& object) override {
    if (!Plausible(key_, object)) faults_.add("found wrong bytes for " + KeyText(key_));
    called(id, key);
  }
  void cancelled(int id, const Tarn::CacheKey<32>& key) override { called(id, key); }
  void failed(int id, const Tarn::CacheKey<32>& key, const Pt::Exception& error) override {
    ++tally_.failed;
    faults_.add(std::string("failed: ") + error.what());
    called(id, key);
  }

 private:
  void called(int id, const Tarn::CacheKey<32>& key) {
    ++tally_.answered;
    if (calls_.fetch_add(1) != 0) ++tally_.repeated;
    seenId_ = id;
    // The id is checked once find has returned it (a memory hit calls first).
    const int expected = id_.load();
    if (!(key == key_) || (expected != 0 && id != expected)) {
      faults_.add("a receiver of " + KeyText(key_) + " was called for another request");
    }
  }
  Tally& tally_;
  Faults& faults_;
  const PrimaryKey key_;
  std::atomic<int> id_{0};
  std::atomic<int> seenId_{0};
  std::atomic<int> calls_{0};
};

// What one thread knows of its own keys: the version stored, if any.
using Model = std::map<PrimaryKey, std::optional<uint32_t>>;

struct StressRun {
  Tarn::Cache* cache = nullptr;
  Tally tally;
  Faults faults;
  long opsPerThread = 0;
  uint32_t seed = 0;
};

class Worker {
 public:
  Worker(StressRun& run, int index) : run_(run), index_(index), random_(run.seed + index) {
    for (int n = 0; n < kOwnKeys; ++n) model_[OwnKey(index, n)] = std::nullopt;
  }
  void operator()();
  const Model& model() const { return model_; }

 private:
  void step();
  void startLookup(bool create);
  void insertOwn(const PrimaryKey& key);
  void checkOwn(const PrimaryKey& key, Tarn::Serialize& sync);
  void checkOwnKeyList();
  void checkStatistics();
  void checkInvariants();
  void fault(const std::string& what) {
    run_.faults.add("thread " + std::to_string(index_) + ": " + what);
  }

  StressRun& run_;
  const int index_;
  std::mt19937 random_;
  Model model_;
  uint32_t nextVersion_ = 1;
  std::vector<int> recentIds_;
};

void Worker::operator()() {
  Tarn::Serialize sync(run_.cache);
  for (long i = 0; i < run_.opsPerThread; ++i) {
    const PrimaryKey own = OwnKey(index_, static_cast<int>(random_() % kOwnKeys));
    const PrimaryKey generated = GeneratedKey(static_cast<int>(random_() % kGeneratedKeys));
    const unsigned choice = random_() % 1000;
    if (choice < 120) {
      insertOwn(own);
    } else if (choice < 180) {
      run_.cache->erase(own);
      model_[own] = std::nullopt;
    } else if (choice < 230) {
      run_.cache->purge(AnyKey(random_));
    } else if (choice < 270) {
      run_.cache->erase(generated);
    } else if (choice < 450) {
      startLookup(false);
    } else if (choice < 560) {
      startLookup(true);
    } else if (choice < 620) {
      const auto& object = sync.findCreate(generated, SecondaryKey::FromString("gen"), "tile");
      if (object && !Plausible(generated, object)) fault("findCreate gave wrong bytes");
    } else if (choice < 680) {
      const PrimaryKey any = AnyKey(random_);
      const auto& object = sync.find(any);
      if (object && !Plausible(any, object)) fault("find gave wrong bytes");
    } else if (choice < 780) {
      checkOwn(own, sync);
    } else if (choice < 850) {
      if (!recentIds_.empty()) run_.cache->cancel(recentIds_[random_() % recentIds_.size()]);
    } else if (choice < 852) {
      run_.cache->cancelAll();
    } else if (choice < 900) {
      run_.cache->isCached(AnyKey(random_));
    } else if (choice < 940) {
      checkOwnKeyList();
    } else if (choice < 980) {
      checkStatistics();
    } else if (choice < 981) {
      run_.cache->commit();
    } else {
      checkInvariants();
    }
  }
}

void Worker::startLookup(bool create) {
  const PrimaryKey key =
      create ? GeneratedKey(static_cast<int>(random_() % kGeneratedKeys)) : AnyKey(random_);
  Pt::SmartPointer<CountingReceiver> receiver(new CountingReceiver(run_.tally, run_.faults, key));
  // Counted before the call: a memory hit is answered before it returns.
  ++run_.tally.started;
  const int id =
      create ? run_.cache->findCreate(key, SecondaryKey::FromString("gen"), "tile", receiver.get())
             : run_.cache->find(key, receiver.get());
  if (id == 0) {
    if (create) fault("findCreate returned no id");
    --run_.tally.started;
    return;
  }
  if (!receiver->expectId(id)) fault("a memory hit was answered with another id");
  if (recentIds_.size() < 8) {
    recentIds_.push_back(id);
  } else {
    recentIds_[random_() % recentIds_.size()] = id;
  }
}

// An insert does not replace a stored entry, so a new version goes in after
// an erase of the old one.
void Worker::insertOwn(const PrimaryKey& key) {
  const uint32_t version = nextVersion_++;
  const std::string bytes = Encode(key, version);
  run_.cache->erase(key);
  run_.cache->insert(
      key, OwnerTag(index_),
      Tarn::Cacheable::Create(
          "tile", Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()))
          .get());
  model_[key] = version;
}

// Only this thread changes its own keys, so what the cache says of them is
// exact. A blocking find may still come back empty: another thread may have
// cancelled the request this one joined.
void Worker::checkOwn(const PrimaryKey& key, Tarn::Serialize& sync) {
  const std::optional<uint32_t> version = model_[key];
  if (run_.cache->isCached(key) != version.has_value())
    fault("isCached disagrees on " + KeyText(key));
  const auto& object = sync.find(key);
  if (object && !version) fault("found erased " + KeyText(key));
  if (object && version && BytesOf(object) != Encode(key, *version)) {
    fault("found a stale version of " + KeyText(key));
  }
}

void Worker::checkOwnKeyList() {
  std::vector<PrimaryKey> listed;
  run_.cache->findPrimaryKeys(OwnerTag(index_), listed);
  std::vector<PrimaryKey> expected;
  for (const auto& [key, version] : model_) {
    if (version) expected.push_back(key);
  }
  if (listed != expected) fault("findPrimaryKeys disagrees with the model");
}

void Worker::checkStatistics() {
  Tarn::Statistics s;
  run_.cache->statistics(s);
  const int keys = kThreads * kOwnKeys + kGeneratedKeys;
  if (s.memoryInUse < 0 || s.memoryInUse > kTarget + kSlack) fault("memory out of bounds");
  if (s.entriesInMemory < 0 || s.entriesInMemory > keys) fault("entries in memory out of range");
  if (s.fileEntries < 0 || s.fileEntries > keys) fault("file entries out of range");
}

void Worker::checkInvariants() {
  Tarn::CacheManager& manager = Tarn::CacheInternals::Of(*run_.cache);
  const std::string index = manager.checkInvariants();
  if (!index.empty()) fault("index: " + index);
  Tarn::FileManager& store = manager.fileManager();
  Pt::MutexLock guard(store.lock());
  const std::string space = store.freeSpace().checkInvariants();
  if (!space.empty()) fault("free space: " + space);
}

Tarn::Config StressConfig() {
  Tarn::Config config = Tarn::ZeroedConfig();
  config.memoryTarget = kTarget;
  config.memorySlack = kSlack;
  config.workerThreads = 3;
  config.createIfMissing = true;
  return config;
}

// After the reopen: every own key holds exactly its model's version or is
// absent; every generated key present holds its own text.
void CheckReopened(Tarn::Cache& cache, const std::vector<Worker>& workers, Faults& faults) {
  Tarn::Serialize sync(&cache);
  for (size_t thread = 0; thread < workers.size(); ++thread) {
    for (const auto& [key, version] : workers[thread].model()) {
      const auto& object = sync.find(key);
      if (!version && object) faults.add("reopened: erased " + KeyText(key) + " is back");
      if (version && (!object || BytesOf(object) != Encode(key, *version))) {
        faults.add("reopened: " + KeyText(key) + " lost version " + std::to_string(*version));
      }
    }
  }
  for (int n = 0; n < kGeneratedKeys; ++n) {
    const auto& object = sync.find(GeneratedKey(n));
    if (object && !Plausible(GeneratedKey(n), object))
      faults.add("reopened: wrong generated bytes");
  }
  Tarn::FileManager& store = Tarn::CacheInternals::Of(cache).fileManager();
  Pt::MutexLock guard(store.lock());
  const std::string space = store.freeSpace().checkInvariants();
  if (!space.empty()) faults.add("reopened free space: " + space);
}

TEST(CacheStress, EveryRequestEndsOnceAndTheFileMatchesTheModel) {
  StressRun run;
  run.seed = static_cast<uint32_t>(EnvOr("TARN_STRESS_SEED", std::random_device{}()));
  const long ops = EnvOr("TARN_STRESS_OPS", kDefaultOps);
  run.opsPerThread = std::max(1L, ops / kThreads);
  std::printf(
      "stress: seed %u (TARN_STRESS_SEED), %ld operations on %d threads (TARN_STRESS_OPS)\n",
      run.seed, run.opsPerThread * kThreads, kThreads);
  TarnTest::TempDir dir;
  const std::wstring path = dir.wfile("stress.tarn");
  Pt::SmartPointer<TarnTest::NamedFactory> factory(new TarnTest::NamedFactory("tile"));
  const std::vector<Pt::SmartPointer<Tarn::CacheableFactory>> factories{factory};
  std::vector<Worker> workers;
  workers.reserve(kThreads);
  for (int i = 0; i < kThreads; ++i) workers.emplace_back(run, i);
  {
    Tarn::Cache cache(path.c_str(), StressConfig(), factories);
    run.cache = &cache;
    std::vector<std::thread> threads;
    for (Worker& worker : workers) threads.emplace_back(std::ref(worker));
    for (std::thread& thread : threads) thread.join();
    cache.commit();
    Tarn::Statistics s;
    cache.statistics(s);
    std::printf(
        "stress: %ld requests; inserted %d, erased %d, purged %d, memory hits %d, file reads %d, "
        "generated %d\n",
        run.tally.started.load(), s.inserted, s.erased, s.purged, s.memoryHits, s.fileReads,
        s.generated);
    Tarn::CacheInternals::Of(cache).fileManager().checkInvariants();  // asserts in debug builds
    const std::string index = Tarn::CacheInternals::Of(cache).checkInvariants();
    if (!index.empty()) run.faults.add("index after the run: " + index);
  }  // the destructor cancels whatever still waits
  EXPECT_EQ(run.tally.answered.load(), run.tally.started.load()) << "requests not answered once";
  EXPECT_EQ(run.tally.repeated.load(), 0);
  EXPECT_EQ(run.tally.failed.load(), 0);

  Tarn::Cache reopened(path.c_str(), StressConfig(), factories);
  CheckReopened(reopened, workers, run.faults);
  EXPECT_EQ(run.faults.count(), 0) << "seed " << run.seed << "\n" << run.faults.report();
}

}  // namespace
