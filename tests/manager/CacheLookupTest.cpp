// find and findCreate: served from memory, by joining a request in progress,
// from the file, or by generation; and every way each of them can fail.
#include <cstdio>
#include <functional>
#include <thread>

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
    close();
    open();
  }
  static int HoldReads() {
    IoFaultInjection::Rule hold;
    hold.action = IoFaultInjection::Action::HoldBack;
    hold.kind = IoFaultInjection::Kind::Read;
    return IoFaultInjection::Add(hold);
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
  EXPECT_EQ(call.kind, ReceiverCall::Found);
  EXPECT_EQ(call.requestId, id);
  EXPECT_EQ(call.thread, std::this_thread::get_id());
  EXPECT_EQ(stats().memoryHits, 1);
  EXPECT_EQ(cache_->find(Key("never"), receiver.get()), 0);
  EXPECT_EQ(receiver->count(), 1u);
}

TEST_F(CacheLookupTest, RacingFindsOfAFileEntryShareOneRead) {
  openWithFileOnlyEntry();
  HoldReads();
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
  EXPECT_EQ(factory_->decodes.load(), 1);
  const auto statistics = stats();
  EXPECT_EQ(statistics.fileReads, 1);
  EXPECT_EQ(statistics.memoryHits, 1);  // the join
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
  EXPECT_EQ(made.kind, ReceiverCall::Found);
  EXPECT_EQ(made.requestId, id);
  EXPECT_EQ(OnlyCall(joiner).cacheable.get(), made.cacheable.get());
  std::vector<Tarn::PrimaryKey> keys;
  cache_->findPrimaryKeys(Secondary("tiles"), keys);
  EXPECT_EQ(keys, std::vector<Tarn::PrimaryKey>{Key("g")});
  EXPECT_EQ(stats().generated, 1);
  EXPECT_EQ(factory_->creates.load(), 1);
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
  struct Case {
    const char* what;
    std::function<void()> arrange;
    bool fromFile;
    int line;  // where the delivered exception was raised
  };
  const Case cases[] = {
      {"create throws",
       [this] { factory_->createBehaviour = TarnTest::NamedFactory::Behaviour::Throw; }, false, 1},
      {"create returns nothing",
       [this] { factory_->createBehaviour = TarnTest::NamedFactory::Behaviour::ReturnNull; }, false,
       Tarn::kGenerateNoObject.where.line},
      {"decode throws",
       [this] { factory_->decodeBehaviour = TarnTest::NamedFactory::Behaviour::Throw; }, true, 82},
      {"decode returns nothing",
       [this] { factory_->decodeBehaviour = TarnTest::NamedFactory::Behaviour::ReturnNull; }, true,
       82},
      {"read fails",
       [] {
         IoFaultInjection::Rule fail;
         fail.kind = IoFaultInjection::Kind::Read;
         IoFaultInjection::Add(fail);
       },
       true, 103},
  };
  for (const Case& failure : cases) {
    SCOPED_TRACE(failure.what);
    factory_->createBehaviour = TarnTest::NamedFactory::Behaviour::Normal;
    factory_->decodeBehaviour = TarnTest::NamedFactory::Behaviour::Normal;
    IoFaultInjection::Clear();
    failure.fromFile ? openWithFileOnlyEntry() : static_cast<void>(open());
    failure.arrange();
    Receiver receiver(new RecordingReceiver);
    const int id = cache_->findCreate(Key(failure.fromFile ? "a" : "new"), Secondary(""), "tile",
                                      receiver.get());
    const ReceiverCall call = OnlyCall(receiver);
    EXPECT_EQ(call.kind, ReceiverCall::Failed);
    EXPECT_EQ(call.requestId, id);
    ASSERT_NE(call.error, nullptr);
    EXPECT_EQ(call.error->where().line, failure.line);
    // The request is over: nothing waits on the key any more.
    EXPECT_EQ(cache_->isCached(Key("new")), false);
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
  close();
  open();
  std::vector<Tarn::PrimaryKey> keys;
  cache_->findPrimaryKeys(Secondary("shared"), keys);
  EXPECT_EQ(keys, std::vector<Tarn::PrimaryKey>{Key("b")});
  insert("d", 10, "shared");
  cache_->findPrimaryKeys(Secondary("shared"), keys);
  EXPECT_EQ(keys, (std::vector<Tarn::PrimaryKey>{Key("b"), Key("d")}));
}

}  // namespace
