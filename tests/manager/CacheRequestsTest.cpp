// Requests as the receivers see them: an id names one use of one slot, so an
// old id whose slot has gone to another key reaches nothing; and every
// receiver of a request is told, even when another one throws.
#include <cstdio>
#include <stdexcept>
#include <string>
#include <utility>

#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"

namespace {

using TarnTest::ReceiverCall;
using TarnTest::RecordingReceiver;
using Receiver = Pt::SmartPointer<RecordingReceiver>;

class CacheRequestsTest : public TarnTest::CacheFixture {
 protected:
  // A cache on a new file, with a new factory whose gate is closed.
  void openAfresh() {
    close();
    std::remove(dir_.file("cache.tarn").c_str());
    factory_ = Pt::SmartPointer<TarnTest::NamedFactory>(new TarnTest::NamedFactory("tile"));
    open();
    factory_->closeGate();
  }
};

// "old" is purged while its generation runs; "new" takes the freed slot. The
// old id, and the old key, must then leave "new" and its receiver alone.
TEST_F(CacheRequestsTest, AStaleIdOrKeyTouchesNothingOfTheSlotsNextUse) {
  const struct {
    const char* what;
    void (*act)(Tarn::Cache& cache, int staleId);
  } cases[] = {
      {"cancel of the old id", [](Tarn::Cache& cache, int id) { cache.cancel(id); }},
      {"erase of the old key", [](Tarn::Cache& cache, int) { cache.erase(Key("old")); }},
      {"purge of the old key", [](Tarn::Cache& cache, int) { cache.purge(Key("old")); }},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(test.what);
    openAfresh();
    Receiver old(new RecordingReceiver), current(new RecordingReceiver);
    const int oldId = cache_->findCreate(Key("old"), Secondary(""), "tile", old.get());
    ASSERT_TRUE(factory_->waitEntered(1));
    cache_->purge(Key("old"));
    ASSERT_EQ(old->count(), 1u);
    const int newId = cache_->findCreate(Key("new"), Secondary(""), "tile", current.get());
    ASSERT_EQ(newId, oldId + 65536) << "the test needs the slot to be reused";

    test.act(*cache_, oldId);
    EXPECT_EQ(current->count(), 0u);
    EXPECT_TRUE(cache_->isCached(Key("new")));
    factory_->openGate();
    ASSERT_TRUE(current->waitFor(1));
    const ReceiverCall call = current->calls()[0];
    EXPECT_EQ(std::pair(call.kind, call.requestId), std::pair(ReceiverCall::Found, newId));
    EXPECT_EQ(old->count(), 1u);
    close();
    EXPECT_EQ(current->count(), 1u);
  }
}

// Records its call, then throws: a Pt::Exception or a foreign one.
class ThrowingReceiver : public RecordingReceiver {
 public:
  explicit ThrowingReceiver(bool foreign) : foreign_(foreign) {}
  void found(int id, const Tarn::CacheKey<32>& key,
             const Pt::SmartPointer<Tarn::Cacheable>& cacheable) override {
    RecordingReceiver::found(id, key, cacheable);
    raise();
  }
  void cancelled(int id, const Tarn::CacheKey<32>& key) override {
    RecordingReceiver::cancelled(id, key);
    raise();
  }
  void failed(int id, const Tarn::CacheKey<32>& key, const Pt::Exception& error) override {
    RecordingReceiver::failed(id, key, error);
    raise();
  }

 private:
  void raise() {
    if (foreign_) throw std::runtime_error("receiver gave up");
    throw Pt::Exception(Pt::ExReason{L"receiver gave up", Pt::ExWhere{"Receiver.cpp", 1}});
  }
  const bool foreign_;
};

// Three receivers join one generation; the middle one throws. Whatever the
// outcome, the other two are told, and the throw is posted.
TEST_F(CacheRequestsTest, AThrowingReceiverDoesNotKeepTheOthersFromBeingTold) {
  using B = TarnTest::NamedFactory::Behaviour;
  const struct {
    ReceiverCall::Kind outcome;
    bool foreign;
  } cases[] = {
      {ReceiverCall::Found, false},
      {ReceiverCall::Cancelled, true},
      {ReceiverCall::Failed, false},
      {ReceiverCall::Found, true},
  };
  for (const auto& test : cases) {
    SCOPED_TRACE(testing::Message() << "outcome " << test.outcome << " foreign " << test.foreign);
    TarnTest::PostedExceptions posted;
    openAfresh();
    factory_->createBehaviour = test.outcome == ReceiverCall::Failed ? B::Throw : B::Normal;
    const Receiver receivers[] = {Receiver(new RecordingReceiver),
                                  Receiver(new ThrowingReceiver(test.foreign)),
                                  Receiver(new RecordingReceiver)};
    int id = 0;
    for (const Receiver& receiver : receivers) {
      id = cache_->findCreate(Key("k"), Secondary(""), "tile", receiver.get());
    }
    ASSERT_TRUE(factory_->waitEntered(1));
    if (test.outcome == ReceiverCall::Cancelled) cache_->cancel(id);
    factory_->openGate();
    for (const Receiver& receiver : receivers) {
      ASSERT_TRUE(receiver->waitFor(1));
      EXPECT_EQ(receiver->calls()[0].kind, test.outcome);
    }
    // The failure itself may be posted too; the receiver's throw is among them.
    ASSERT_TRUE(posted.waitFor(1));
    bool seen = false;
    for (size_t i = 0; i < posted.count(); ++i) {
      seen =
          seen || std::string(posted.at(i)->what()).find("receiver gave up") != std::string::npos;
    }
    EXPECT_TRUE(seen);
    close();
    for (const Receiver& receiver : receivers) EXPECT_EQ(receiver->count(), 1u);
  }
}

}  // namespace
