// Serialize: blocking lookups over a real cache, the four-receiver pool shared
// by concurrent callers, and what is left of the pool after calls that throw.
#include "tarn/Serialize.h"

#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <vector>

#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"

namespace {

using Pt::IoFaultInjection;
using Found = Pt::SmartPointer<Tarn::Cacheable>;
using Pending = std::future<Found>;

class SerializeTest : public TarnTest::CacheFixture {
 protected:
  // Enough workers for four generations to be in create() at once.
  static Tarn::Config FourWorkers() {
    Tarn::Config config = DefaultConfig();
    config.workerThreads = 4;
    return config;
  }

  // Each on a Serialize of its own, as separate threads would use them.
  Found find(const std::string& key) { return Tarn::Serialize(cache_.get()).find(Key(key)); }
  Found findCreate(const std::string& key) {
    return Tarn::Serialize(cache_.get()).findCreate(Key(key), Secondary("s"), "tile");
  }
  Pending findCreateAsync(const std::string& key) {
    return std::async(std::launch::async, [this, key] { return findCreate(key); });
  }

  // The object delivered, once the call has returned; bounded so that a lost
  // receiver fails the test instead of hanging it.
  static Found Delivered(Pending& call) {
    if (call.wait_for(std::chrono::seconds(20)) == std::future_status::ready) return call.get();
    ADD_FAILURE() << "the call did not return";
    return nullptr;
  }
  // An object's bytes; the test factory makes them from the key.
  static std::string Bytes(const Found& object) {
    if (!object) return "<null>";
    const auto& data = object->getData();
    return std::string(reinterpret_cast<const char*>(data->bytes()), data->length());
  }
};

TEST_F(SerializeTest, FindServesMemoryAndFileAndReturnsNullForMissingKeys) {
  open();
  const Found held = Object(10);
  cache_->insert(Key("mem"), Secondary("s"), held.get());
  insert("file", 100);
  Tarn::Serialize serialize(cache_.get());
  EXPECT_EQ(serialize.find(Key("mem")).get(), held.get());
  // Nothing to wait for, and the previous call's object is not handed out.
  EXPECT_EQ(serialize.find(Key("none")), nullptr);

  close();
  open();
  EXPECT_EQ(Bytes(find("file")).size(), 100u);
  EXPECT_EQ(factory_->decodes.load(), 1);
}

TEST_F(SerializeTest, FindCreateGeneratesAndTurnsFailuresIntoPostedNulls) {
  open();
  EXPECT_EQ(Bytes(findCreate("made")), "made");

  TarnTest::PostedExceptions posted;
  factory_->createBehaviour = TarnTest::NamedFactory::Behaviour::Throw;
  EXPECT_EQ(findCreate("broken"), nullptr);
  ASSERT_EQ(posted.count(), 1u);  // before the call returned
  EXPECT_STREQ(posted.at(0)->where().file, "test/NamedFactory");
}

// Three generations held at the gate and one read held at the device take
// all four receivers; a fifth caller, whose key is in memory, is served only
// once the read finishes and gives its receiver back.
TEST_F(SerializeTest, AFifthCallerWaitsForAReceiverToComeBack) {
  open();
  insert("file", 100);
  close();
  open(FourWorkers());
  const Found held = Object(10);
  cache_->insert(Key("mem"), Secondary("s"), held.get());
  factory_->closeGate();
  IoFaultInjection::Rule hold;
  hold.action = IoFaultInjection::Action::HoldBack;
  hold.kind = IoFaultInjection::Kind::Read;
  IoFaultInjection::Add(hold);

  std::vector<Pending> generations;
  for (const char* key : {"g0", "g1", "g2"}) generations.push_back(findCreateAsync(key));
  Pending read = std::async(std::launch::async, [this] { return find("file"); });
  ASSERT_TRUE(factory_->waitEntered(3));
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));

  std::promise<void> calling;
  std::atomic<bool> released{false};
  Pending fifth = std::async(std::launch::async, [&] {
    calling.set_value();
    Found found = find("mem");
    EXPECT_TRUE(released) << "served while all four receivers were lent";
    return found;
  });
  calling.get_future().wait();
  released = true;
  IoFaultInjection::ReleaseHeld();
  EXPECT_EQ(Bytes(Delivered(read)).size(), 100u);
  EXPECT_EQ(Delivered(fifth).get(), held.get());  // while the generations still wait

  factory_->openGate();
  for (size_t i = 0; i < generations.size(); ++i) {
    EXPECT_EQ(Bytes(Delivered(generations[i])), "g" + std::to_string(i));
  }
}

TEST_F(SerializeTest, CancelledRequestReturnsNull) {
  open();
  factory_->closeGate();
  Pending waiting = findCreateAsync("c");
  ASSERT_TRUE(factory_->waitEntered(1));
  cache_->cancelAll();
  EXPECT_EQ(Delivered(waiting), nullptr);
  factory_->openGate();
  // The generation went on; the receiver that heard cancelled serves again.
  EXPECT_EQ(Bytes(find("c")), "c");
}

TEST_F(SerializeTest, CallsThatThrowLoseNoReceiverAndLeaveNoStaleOutcome) {
  open(FourWorkers());
  Tarn::Serialize serialize(cache_.get());
  const Found& result = serialize.findCreate(Key("kept"), Secondary("s"), "tile");
  const Found kept = result;
  ASSERT_NE(kept, nullptr);

  Tarn::PrimaryKey tooLong = Key("x");
  tooLong.length = 33;
  EXPECT_THROW(serialize.findCreate(Key("u"), Secondary("s"), "nope"),
               Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(serialize.find(tooLong), std::invalid_argument);
  EXPECT_EQ(result.get(), kept.get());  // left as it was
  EXPECT_EQ(serialize.find(Key("u")), nullptr);

  // All four receivers can still be lent at once, each to its own call.
  factory_->closeGate();
  std::vector<Pending> calls;
  for (const char* key : {"a", "b", "c", "d"}) calls.push_back(findCreateAsync(key));
  EXPECT_TRUE(factory_->waitEntered(1 + 4));
  factory_->openGate();
  for (size_t i = 0; i < calls.size(); ++i) {
    EXPECT_EQ(Bytes(Delivered(calls[i])), std::string(1, static_cast<char>('a' + i)));
  }
}

}  // namespace
