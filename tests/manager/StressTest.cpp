// Several threads insert, erase, purge, find, findCreate and cancel over a
// small key space with a small memory bound. Checked: every request that got
// a non-zero id ends with exactly one receiver call; the index and the file
// store keep their invariants (debug builds); and every key whose last
// operation was a completed insert is in the file after commit and reopen.
#include <atomic>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "manager/CacheManager.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"

namespace {

using Tarn::PrimaryKey;

// Counts its calls; a request must end with exactly one.
class OnceReceiver : public Tarn::CacheableReceiver {
 public:
  void found(int, const Tarn::CacheKey<32>&, const Pt::SmartPointer<Tarn::Cacheable>&) override {
    ++calls;
  }
  void cancelled(int, const Tarn::CacheKey<32>&) override { ++calls; }
  void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override { ++calls; }
  std::atomic<int> calls{0};
};

constexpr int kThreads = 4;
constexpr int kKeysPerThread = 8;
constexpr int kOperations = 6000;

PrimaryKey KeyOf(int n) { return PrimaryKey::FromString("key-" + std::to_string(n)); }

struct Worker {
  int index = 0;
  std::vector<bool> lastWasInsert = std::vector<bool>(kKeysPerThread, false);
  std::vector<Pt::SmartPointer<OnceReceiver>> started;  // requests that got an id
  std::vector<Pt::SmartPointer<OnceReceiver>> refused;  // finds that returned 0
};

Pt::SmartPointer<Tarn::Cacheable> Object(std::mt19937& random) {
  const std::vector<uint8_t> bytes(16 + random() % 200, 0x42);
  return Tarn::Cacheable::Create(
      "tile", Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
}

// One thread's share: inserts and erases only of its own keys, so that the
// last word on each key is known; everything else on any key.
void RunWorker(Tarn::CacheManager& manager, Worker& worker) {
  std::mt19937 random(static_cast<unsigned>(worker.index) + 1);
  int lastId = 0;
  for (int i = 0; i < kOperations; ++i) {
    const int own = static_cast<int>(random() % kKeysPerThread);
    const PrimaryKey mine = KeyOf(worker.index * kKeysPerThread + own);
    const PrimaryKey any = KeyOf(static_cast<int>(random() % (kThreads * kKeysPerThread)));
    Pt::SmartPointer<OnceReceiver> receiver(new OnceReceiver);
    switch (random() % 9) {
      case 0:
      case 1:
        manager.insert(mine, Tarn::SecondaryKey::FromString("s"), Object(random), 0);
        worker.lastWasInsert[own] = true;
        break;
      case 2:
        manager.erase(mine);
        worker.lastWasInsert[own] = false;
        break;
      case 3:
        manager.purge(any);
        break;
      case 4:
      case 5:
        lastId = manager.find(any, receiver);
        (lastId != 0 ? worker.started : worker.refused).push_back(receiver);
        break;
      case 6:
        lastId = manager.findCreate(any, Tarn::SecondaryKey{}, "tile", receiver);
        worker.started.push_back(receiver);
        break;
      case 7:
        manager.cancel(lastId);
        break;
      default:
        if (random() % 50 == 0) manager.cancelAll();
        manager.isCached(any);
        break;
    }
    if (i % 500 == 0) manager.checkInvariants();
  }
}

TEST(CacheStress, RequestsEndOnceAndCommittedInsertsSurvive) {
  TarnTest::TempDir dir;
  const std::wstring path = dir.wfile("stress.tarn");
  Tarn::Config config{};
  config.memoryTarget = 2000;
  config.memorySlack = 1000;
  config.workerThreads = 3;
  config.createIfMissing = true;
  std::vector<Worker> workers;
  for (int i = 0; i < kThreads; ++i) {
    workers.emplace_back();
    workers.back().index = i;
  }
  {
    Tarn::CacheManager manager(path.c_str(), config, TarnTest::FactoriesFor({"tile"}));
    std::vector<std::thread> threads;
    for (Worker& worker : workers) threads.emplace_back([&] { RunWorker(manager, worker); });
    for (std::thread& thread : threads) thread.join();
    manager.checkInvariants();
    manager.fileManager().commit();
    manager.fileManager().checkInvariants();
  }  // destruction cancels whatever still waits

  Tarn::CacheManager reopened(path.c_str(), config, TarnTest::FactoriesFor({"tile"}));
  for (const Worker& worker : workers) {
    for (const auto& receiver : worker.started) EXPECT_EQ(receiver->calls.load(), 1);
    for (const auto& receiver : worker.refused) EXPECT_EQ(receiver->calls.load(), 0);
    for (int own = 0; own < kKeysPerThread; ++own) {
      if (!worker.lastWasInsert[own]) continue;
      EXPECT_TRUE(reopened.fileManager().contains(KeyOf(worker.index * kKeysPerThread + own)))
          << "thread " << worker.index << " key " << own;
    }
  }
}

}  // namespace
