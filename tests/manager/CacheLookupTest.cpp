// find and findCreate: served from memory, by joining a request in progress,
// from the file, or by generation; and every way each of them can fail.
#include <chrono>
#include <cstdio>
#include <future>
#include <thread>
#include <tuple>
#include <utility>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"

namespace {

using Pt::IoFaultInjection;
using TarnTest::ReceiverCall;
using TarnTest::RecordingReceiver;
using Receiver = Pt::SmartPointer<RecordingReceiver>;

class CacheLookupTest : public TarnTest::CacheFixture {
 protected:
  // A cache whose file holds "a" (100 bytes, secondary "s") but whose
  // memory does not.
  void openWithFileOnlyEntry() {
    open();
    insert("a", 100);
    open();  // reopens
  }
  static ReceiverCall OnlyCall(const Receiver& receiver) {
    EXPECT_TRUE(receiver->waitFor(1));
    EXPECT_EQ(receiver->count(), 1u);
    return receiver->calls().at(0);
  }
};

TEST_F(CacheLookupTest, MemoryHitIsDeliveredBeforeFindReturns) {
  open();
  insert("a", 10);
  Receiver receiver(new RecordingReceiver);
  const int id = cache_->find(Key("a"), receiver.get());
  ASSERT_EQ(receiver->count(), 1u);  // already, on this thread
  const ReceiverCall call = receiver->calls()[0];
  EXPECT_EQ(std::tuple(call.kind, call.requestId, call.thread),
            std::tuple(ReceiverCall::Found, id, std::this_thread::get_id()));
  EXPECT_EQ(stats().memoryHits, 1);
  EXPECT_EQ(cache_->find(Key("never"), receiver.get()), 0);
  EXPECT_EQ(receiver->count(), 1u);
}

// A file entry whose bytes are in the page cache is read on the finding
// thread: found() arrives before find returns, and with no lock of the cache
// held, so that another thread can look up and read meanwhile (it would hang
// on a held lock: found gives up waiting for it after a generous while).
TEST_F(CacheLookupTest, CachedFileReadIsFoundOnTheCallingThreadWithNoLockHeld) {
  open();
  insert("a", 100);
  insert("b", 100);
  open();  // reopens: both entries in the file only, their bytes in the page cache
  struct Probing : RecordingReceiver {
    void found(int requestId, const Tarn::CacheKey<32>& key,
               const Pt::SmartPointer<Tarn::Cacheable>& cacheable) override {
      prober = std::thread([this] {
        const Receiver other(new RecordingReceiver);
        cache->find(Key("b"), other.get());
        probeFound = other->waitFor(1) && other->calls()[0].kind == ReceiverCall::Found &&
                     cache->isCached(Key("a"));
        probeEnded.set_value();
      });
      probeEndedInTime =
          probeEnded.get_future().wait_for(std::chrono::seconds(20)) == std::future_status::ready;
      RecordingReceiver::found(requestId, key, cacheable);
    }
    Tarn::Cache* cache = nullptr;
    std::thread prober;  // joined by the test once find has returned
    std::promise<void> probeEnded;
    bool probeEndedInTime = false, probeFound = false;
  };
  const Pt::SmartPointer<Probing> receiver(new Probing);
  receiver->cache = cache_.get();
  const int id = cache_->find(Key("a"), receiver.get());
  ASSERT_EQ(receiver->count(), 1u);  // already, on this thread
  receiver->prober.join();
  const ReceiverCall call = receiver->calls()[0];
  EXPECT_EQ(std::tuple(call.kind, call.requestId, call.thread),
            std::tuple(ReceiverCall::Found, id, std::this_thread::get_id()));
  EXPECT_EQ(call.cacheable->getData()->length(), 100);
  EXPECT_TRUE(receiver->probeEndedInTime);
  EXPECT_TRUE(receiver->probeFound);
  EXPECT_EQ(stats().fileReads, 2);
}

TEST_F(CacheLookupTest, RacingFindsOfAFileEntryShareOneRead) {
  openWithFileOnlyEntry();
  IoFaultInjection::Add(
      {.action = IoFaultInjection::Action::HoldBack, .kind = IoFaultInjection::Kind::Read});
  Receiver first(new RecordingReceiver), second(new RecordingReceiver);
  const int id = cache_->find(Key("a"), first.get());
  EXPECT_EQ(cache_->find(Key("a"), second.get()), id);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_EQ(IoFaultInjection::HeldCount(), 1u);
  IoFaultInjection::ReleaseHeld();
  const ReceiverCall a = OnlyCall(first), b = OnlyCall(second);
  EXPECT_EQ(a.kind, ReceiverCall::Found);
  EXPECT_EQ(a.cacheable.get(), b.cacheable.get());
  EXPECT_EQ(a.cacheable->getData()->length(), 100);  // exactly the data, not the allocation
  EXPECT_EQ(std::pair(stats().fileReads, stats().memoryHits),
            std::pair(1, 1));  // one read, one join
}

// A cancel ends the wait at once; the read goes on and its object is cached.
TEST_F(CacheLookupTest, CancelDuringAReadKeepsItsResult) {
  openWithFileOnlyEntry();
  IoFaultInjection::Add(
      {.action = IoFaultInjection::Action::HoldBack, .kind = IoFaultInjection::Kind::Read});
  Receiver waiting(new RecordingReceiver), later(new RecordingReceiver);
  const int id = cache_->find(Key("a"), waiting.get());
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  cache_->cancel(id);
  EXPECT_EQ(waiting->count(), 1u);
  EXPECT_EQ(waiting->calls()[0].kind, ReceiverCall::Cancelled);
  IoFaultInjection::ReleaseHeld();
  EXPECT_EQ(cache_->find(Key("a"), later.get()), id);  // joins the read or hits its result
  EXPECT_EQ(OnlyCall(later).kind, ReceiverCall::Found);
  EXPECT_EQ(waiting->count(), 1u);
  EXPECT_EQ(stats().fileReads, 1);
}

TEST_F(CacheLookupTest, FindCreateReadsAFileEntryInsteadOfCreating) {
  openWithFileOnlyEntry();
  Receiver receiver(new RecordingReceiver);
  cache_->findCreate(Key("a"), Secondary("other"), "tile", receiver.get());
  EXPECT_EQ(OnlyCall(receiver).kind, ReceiverCall::Found);
  EXPECT_EQ(factory_->creates.load(), 0);
}

TEST_F(CacheLookupTest, GenerationIsStoredWithItsSecondaryKeyAndJoined) {
  open();
  factory_->closeGate();
  Receiver creator(new RecordingReceiver), joiner(new RecordingReceiver);
  const int id = cache_->findCreate(Key("g"), Secondary("tiles"), "tile", creator.get());
  EXPECT_TRUE(cache_->isCached(Key("g")));  // pending counts
  EXPECT_EQ(cache_->find(Key("g"), joiner.get()), id);
  factory_->openGate();
  const ReceiverCall made = OnlyCall(creator);
  EXPECT_EQ(std::pair(made.kind, made.requestId), std::pair(ReceiverCall::Found, id));
  EXPECT_EQ(OnlyCall(joiner).cacheable.get(), made.cacheable.get());
  std::vector<Tarn::PrimaryKey> keys;
  cache_->findPrimaryKeys(Secondary("tiles"), keys);
  EXPECT_EQ(keys, std::vector<Tarn::PrimaryKey>{Key("g")});
  EXPECT_EQ(std::pair(stats().generated, factory_->creates.load()), std::pair(1, 1));
}

TEST_F(CacheLookupTest, UnknownTypeThrowsAndLeavesNothingBehind) {
  open();
  Receiver receiver(new RecordingReceiver);
  EXPECT_THROW(cache_->findCreate(Key("x"), Secondary(""), "nope", receiver.get()),
               Tarn::ExFactoryClassNotFound);
  EXPECT_FALSE(cache_->isCached(Key("x")));
  EXPECT_EQ(receiver->count(), 0u);
  EXPECT_EQ(cache_->find(Key("x"), receiver.get()), 0);
}

// Every failure of a lookup reaches its receiver as failed(), with the class
// and location that say what went wrong.
TEST_F(CacheLookupTest, FailuresReachTheReceiver) {
  using B = TarnTest::NamedFactory::Behaviour;
  const struct {
    const char* what;
    B create, decode;
    bool failRead, fromFile;
    int line;  // where the delivered exception was raised
  } cases[] = {
      {"create throws", B::Throw, B::Normal, false, false, 1},
      {"create returns nothing", B::ReturnNull, B::Normal, false, false,
       Tarn::kGenerateNoObject.where.line},
      {"decode throws", B::Normal, B::Throw, false, true, 82},
      {"decode returns nothing", B::Normal, B::ReturnNull, false, true, 82},
      {"read fails", B::Normal, B::Normal, true, true, 103},
  };
  for (const auto& failure : cases) {
    SCOPED_TRACE(failure.what);
    failure.fromFile ? openWithFileOnlyEntry() : static_cast<void>(open());
    factory_->createBehaviour = failure.create;
    factory_->decodeBehaviour = failure.decode;
    if (failure.failRead) IoFaultInjection::Add({.kind = IoFaultInjection::Kind::Read});
    Receiver receiver(new RecordingReceiver);
    const int id = cache_->findCreate(Key(failure.fromFile ? "a" : "new"), Secondary(""), "tile",
                                      receiver.get());
    const ReceiverCall call = OnlyCall(receiver);
    EXPECT_EQ(std::pair(call.kind, call.requestId), std::pair(ReceiverCall::Failed, id));
    ASSERT_NE(call.error, nullptr);
    EXPECT_EQ(call.error->where().line, failure.line);
    EXPECT_FALSE(cache_->isCached(Key("new")));  // the request is over
    close();
    std::remove(dir_.file("cache.tarn").c_str());
  }
}

TEST_F(CacheLookupTest, SecondaryKeysFollowWritesErasesAndReopens) {
  open();
  insert("a", 10, "shared");
  insert("b", 10, "shared");
  insert("c", 10, "other");
  cache_->erase(Key("a"));
  open();  // reopens
  std::vector<Tarn::PrimaryKey> keys;
  cache_->findPrimaryKeys(Secondary("shared"), keys);
  EXPECT_EQ(keys, std::vector<Tarn::PrimaryKey>{Key("b")});
  insert("d", 10, "shared");
  cache_->findPrimaryKeys(Secondary("shared"), keys);
  EXPECT_EQ(keys, (std::vector<Tarn::PrimaryKey>{Key("b"), Key("d")}));
}

}  // namespace
