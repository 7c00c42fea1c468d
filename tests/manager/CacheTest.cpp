// The cache's life and its operations that store, evict, erase and cancel,
// observed through what a user sees: receiver calls, statistics, the file
// after a reopen, posted exceptions.
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <tuple>

#include "platform/IoFaultInjection.h"
#include "store/FileFormat.h"
#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "work/WorkManager.h"

namespace {

using Pt::IoFaultInjection;
using TarnTest::RecordingReceiver;

class CacheTest : public TarnTest::CacheFixture {};

TEST_F(CacheTest, InsertedObjectsSurviveAReopen) {
  open();
  for (const char* key : {"a", "b", "c"}) insert(key, 100);
  auto s = stats();
  EXPECT_EQ(std::tuple(s.inserted, s.entriesInMemory, s.memoryInUse), std::tuple(3, 3, 300));
  open();  // reopens
  s = stats();
  // File size: the new file's 262,960 bytes and three 256-byte data ranges.
  EXPECT_EQ(std::tuple(s.entriesInMemory, s.fileEntries, s.fileSize), std::tuple(0, 3, 263'728));
  for (const char* key : {"a", "b", "c"}) EXPECT_TRUE(cache_->isCached(Key(key))) << key;
  EXPECT_FALSE(cache_->isCached(Key("d")));
}

// Three objects of 40 bytes, then one that takes memory one below, exactly
// to, or one above target + slack (100 + 50): only the last evicts, down to
// the target.
TEST_F(CacheTest, EvictionStartsOnlyAboveTargetPlusSlack) {
  const struct {
    size_t last;
    int purged, inMemory, memory;
  } cases[] = {{29, 0, 4, 149}, {30, 0, 4, 150}, {31, 2, 2, 71}};
  auto config = DefaultConfig();
  config.memoryTarget = 100;
  config.memorySlack = 50;
  for (const auto& test : cases) {
    SCOPED_TRACE(test.last);
    open(config);
    for (const char* key : {"a", "b", "c"}) insert(key, 40);
    insert("d", test.last);
    const auto s = stats();
    EXPECT_EQ(std::tuple(s.purged, s.entriesInMemory, s.memoryInUse),
              std::tuple(test.purged, test.inMemory, test.memory));
    EXPECT_TRUE(cache_->isCached(Key("a")));  // evicted or not, still in the file
    close();
    std::remove(dir_.file("cache.tarn").c_str());
  }
}

TEST_F(CacheTest, RefusedObjectsChangeNothing) {
  open();
  // A plain object verifies only with data of at least one byte.
  for (const auto& data : {Pt::SmartPointer<Tarn::Buffer>(), Tarn::Buffer::Create(0, nullptr)}) {
    cache_->insert(Key("empty"), Secondary(""), Tarn::Cacheable::Create("tile", data).get());
    EXPECT_FALSE(cache_->isCached(Key("empty")));
  }
  const auto unknown = Tarn::Cacheable::Create("nope", Tarn::Buffer::Create(1, "x"));
  EXPECT_THROW(cache_->insert(Key("n"), Secondary(""), unknown.get()),
               Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(cache_->insert(Tarn::PrimaryKey{33, {}}, Secondary(""), Object(1).get()),
               std::invalid_argument);
  EXPECT_THROW(cache_->find(Key("a"), nullptr), std::invalid_argument);
  EXPECT_EQ(std::pair(stats().inserted, stats().fileEntries), std::pair(0, 0));
}

TEST_F(CacheTest, EraseWhileTheWriteIsInFlightLeavesNothingAfterReopen) {
  open();
  IoFaultInjection::Add({.action = IoFaultInjection::Action::HoldBack, .length = 256});
  insert("a", 100);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  cache_->erase(Key("a"));
  EXPECT_FALSE(cache_->isCached(Key("a")));
  EXPECT_EQ(stats().erased, 1);
  IoFaultInjection::ReleaseHeld();
  close();  // waits for the write, then for the deferred delete header
  EXPECT_TRUE(TarnTest::AllZero(TarnTest::ReadFileBytes(dir_.file("cache.tarn")), 816, 880));
  open();
  EXPECT_FALSE(cache_->isCached(Key("a")));
}

// commit() waits for the whole chain of an insert: its data write and the
// header write that the data's completion queues, not only what the device
// had queued when commit began.
TEST_F(CacheTest, CommitWaitsForTheHeaderThatFollowsTheData) {
  using namespace std::chrono_literals;
  open();
  const IoFaultInjection::Kind write = IoFaultInjection::Kind::Write;
  IoFaultInjection::Add(
      {.action = IoFaultInjection::Action::HoldBack, .kind = write, .length = 256});
  IoFaultInjection::Add({.action = IoFaultInjection::Action::HoldBack,
                         .kind = write,
                         .offset = Tarn::kFirstEntriesOffset});
  insert("a", 100);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));  // the data
  auto committed = std::async(std::launch::async, [&] { cache_->commit(); });
  ASSERT_EQ(committed.wait_for(50ms), std::future_status::timeout) << "returned with the data held";
  IoFaultInjection::ReleaseHeld();
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));  // the header, queued once the data landed
  EXPECT_EQ(committed.wait_for(100ms), std::future_status::timeout)
      << "commit returned before the entry's header was written";
  IoFaultInjection::ReleaseHeld();
  EXPECT_EQ(committed.wait_for(20s), std::future_status::ready);
}

TEST_F(CacheTest, PurgeDropsMemoryOnly) {
  open();
  insert("a", 10);
  for (const char* key : {"a", "never"}) cache_->purge(Key(key));
  EXPECT_EQ(std::pair(stats().purged, stats().entriesInMemory), std::pair(2, 0));
  EXPECT_TRUE(cache_->isCached(Key("a")));
}

TEST_F(CacheTest, FailedWriteIsPostedAndSettledEntriesStay) {
  TarnTest::PostedExceptions posted;
  open();
  insert("a", 10);
  cache_->commit();
  IoFaultInjection::Add({.kind = IoFaultInjection::Kind::Write, .length = 256, .error = ENOSPC});
  insert("b", 10);
  cache_->commit();
  ASSERT_TRUE(posted.waitFor(1));
  ASSERT_NE(dynamic_cast<Tarn::ExFileWriteEntry&>(*posted.at(0)).nested(), nullptr);
  EXPECT_EQ(dynamic_cast<const Pt::ExSystem&>(*posted.at(0)->nested()).code(), ENOSPC);
  open();
  EXPECT_TRUE(cache_->isCached(Key("a")));
  EXPECT_FALSE(cache_->isCached(Key("b")));
}

TEST_F(CacheTest, CancelEndsTheWaitButTheGenerationIsCached) {
  open();
  factory_->closeGate();
  Pt::SmartPointer<RecordingReceiver> receiver(new RecordingReceiver), later(new RecordingReceiver);
  const int id = cache_->findCreate(Key("g"), Secondary("s"), "tile", receiver.get());
  ASSERT_TRUE(factory_->waitEntered(1));
  cache_->cancel(id);
  cache_->cancel(id);  // nobody left to tell
  ASSERT_EQ(receiver->count(), 1u);
  EXPECT_EQ(receiver->calls()[0].kind, TarnTest::ReceiverCall::Cancelled);
  factory_->openGate();
  // A later lookup joins the generation or finds its result in memory.
  cache_->find(Key("g"), later.get());
  ASSERT_TRUE(later->waitFor(1));
  EXPECT_EQ(later->calls()[0].kind, TarnTest::ReceiverCall::Found);
  EXPECT_EQ(receiver->count(), 1u);
  EXPECT_EQ(factory_->creates.load(), 1);
}

TEST_F(CacheTest, EraseOfAQueuedGenerationMeansCreateNeverRuns) {
  auto config = DefaultConfig();
  config.workerThreads = 1;
  open(config);
  factory_->closeGate();
  Pt::SmartPointer<RecordingReceiver> first(new RecordingReceiver), second(new RecordingReceiver);
  cache_->findCreate(Key("busy"), Secondary(""), "tile", first.get());
  ASSERT_TRUE(factory_->waitEntered(1));  // the only worker is taken
  cache_->findCreate(Key("queued"), Secondary(""), "tile", second.get());
  cache_->erase(Key("queued"));
  ASSERT_EQ(second->count(), 1u);
  EXPECT_EQ(second->calls()[0].kind, TarnTest::ReceiverCall::Cancelled);
  factory_->openGate();
  ASSERT_TRUE(first->waitFor(1));
  close();
  EXPECT_EQ(factory_->creates.load(), 1);
}

TEST_F(CacheTest, DestroyingTheCacheCancelsQueuedWork) {
  auto config = DefaultConfig();
  config.workerThreads = 1;
  open(config);
  factory_->closeGate();
  Pt::SmartPointer<RecordingReceiver> running(new RecordingReceiver), queued(new RecordingReceiver);
  cache_->findCreate(Key("running"), Secondary(""), "tile", running.get());
  ASSERT_TRUE(factory_->waitEntered(1));
  cache_->findCreate(Key("queued"), Secondary(""), "tile", queued.get());
  ASSERT_EQ(Tarn::WorkManager::queuedCount(), 1u);
  std::thread closer([&] { close(); });
  // The destruction withdraws the queued request first, then waits for the
  // running one, which may finish once the queue is empty.
  while (Tarn::WorkManager::queuedCount() != 0) std::this_thread::yield();
  factory_->openGate();
  closer.join();
  EXPECT_EQ(factory_->creates.load(), 1);
  ASSERT_EQ(queued->count(), 1u);
  EXPECT_EQ(queued->calls()[0].kind, TarnTest::ReceiverCall::Cancelled);
  // stop() waited for the running generation, so its result came first.
  ASSERT_EQ(running->count(), 1u);
  EXPECT_EQ(running->calls()[0].kind, TarnTest::ReceiverCall::Found);
}

TEST_F(CacheTest, FailedConstructionLeavesTheProcessAsItWas) {
  std::ofstream(dir_.file("cache.tarn")) << "not a cache file, but long enough to read a header";
  const int users = Tarn::WorkManager::users();
  EXPECT_THROW(open(), Tarn::ExUnsupportedFileVersion);
  EXPECT_EQ(Tarn::WorkManager::users(), users);
  Tarn::CreateCacheFile(path_.c_str());
  EXPECT_NO_THROW(open());
}

}  // namespace
