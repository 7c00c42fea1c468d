// Serialize: blocking lookups over a real cache, the four-receiver pool shared
// by concurrent callers, and what is left of the pool after calls that throw.
#include "tarn/Serialize.h"

#include <atomic>
#include <chrono>
#include <future>
#include <string>

#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"

namespace {

using Fault = Pt::IoFaultInjection;
using Found = Pt::SmartPointer<Tarn::Cacheable>;
using Pending = std::future<Found>;

class SerializeTest : public TarnTest::CacheFixture {
 protected:
  // Four workers, enough for four generations to be in create() at once;
  // "file" is on disk only and "mem" in memory only.
  void SetUp() override {
    open();
    insert("file", 100);
    Tarn::Config config = DefaultConfig();
    config.workerThreads = 4;
    open(config);
    cache_->insert(Key("mem"), Secondary("s"), held.get());
  }
  // Each on a Serialize of its own, as separate threads would use them.
  Found find(const std::string& key) { return Tarn::Serialize(cache_.get()).find(Key(key)); }
  Pending findCreateAsync(const std::string& key) {
    return std::async(std::launch::async, [this, key] {
      return Tarn::Serialize(cache_.get()).findCreate(Key(key), Secondary("s"), "tile");
    });
  }
  // Bounded so that a lost receiver fails the test instead of hanging it.
  static Found Delivered(Pending& call) {
    EXPECT_EQ(call.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    return call.get();
  }
  // An object's bytes; the test factory makes them from the key.
  static std::string Bytes(const Found& o) {
    if (!o) return "<null>";
    return {reinterpret_cast<const char*>(o->getData()->bytes()), size_t(o->getData()->length())};
  }

  const Found held = Object(10);
};

// Served from memory, file or a generation, null when missing; a throwing
// call leaves the previous outcome as it was, and a failing create is posted
// before the call returns null.
TEST_F(SerializeTest, FindsAndGeneratesAndLeavesNoStaleOutcome) {
  Tarn::Serialize serialize(cache_.get());
  EXPECT_EQ(serialize.find(Key("mem")).get(), held.get());
  EXPECT_EQ(serialize.find(Key("none")), nullptr);  // not the previous call's object
  EXPECT_EQ(Bytes(find("file")).size(), 100u);      // decoded, not generated
  const Found& result = serialize.findCreate(Key("made"), Secondary("s"), "tile");
  const Found made = result;
  EXPECT_EQ(Bytes(made), "made");
  EXPECT_THROW(serialize.findCreate(Key("u"), Secondary("s"), "nope"),
               Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(serialize.find(Tarn::PrimaryKey{33, {}}), std::invalid_argument);
  EXPECT_EQ(result.get(), made.get());
  EXPECT_EQ(serialize.find(Key("u")), nullptr);
  TarnTest::PostedExceptions posted;
  factory_->createBehaviour = TarnTest::NamedFactory::Behaviour::Throw;
  EXPECT_EQ(serialize.findCreate(Key("broken"), Secondary("s"), "tile"), nullptr);
  ASSERT_EQ(posted.count(), 1u);
  EXPECT_STREQ(posted.at(0)->where().file, "test/NamedFactory");
}

// After calls that threw, three generations held at the gate and one read
// held at the device still take all four receivers; a fifth caller, whose
// key is in memory, is served only once the read gives its receiver back.
// Cancelled calls return null while their generations go on.
TEST_F(SerializeTest, AFifthCallerWaitsForAReceiverToComeBack) {
  EXPECT_THROW(Tarn::Serialize(cache_.get()).findCreate(Key("u"), Secondary("s"), "nope"),
               Tarn::ExFactoryClassNotFound);
  factory_->closeGate();
  Fault::Add({.action = Fault::Action::HoldBack, .kind = Fault::Kind::Read});
  Pending generations[] = {findCreateAsync("g0"), findCreateAsync("g1"), findCreateAsync("g2")};
  Pending read = std::async(std::launch::async, [this] { return find("file"); });
  ASSERT_TRUE(factory_->waitEntered(3));
  ASSERT_TRUE(Fault::WaitHeld(1));
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
  Fault::ReleaseHeld();
  EXPECT_EQ(Bytes(Delivered(read)).size(), 100u);
  EXPECT_EQ(Delivered(fifth).get(), held.get());  // while the generations still wait
  cache_->cancelAll();
  for (Pending& call : generations) EXPECT_EQ(Delivered(call), nullptr);
  factory_->openGate();
  for (const char* key : {"g0", "g1", "g2"}) EXPECT_EQ(Bytes(find(key)), key);
}

}  // namespace
