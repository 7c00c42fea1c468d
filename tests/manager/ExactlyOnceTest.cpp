// Every request is answered exactly once, whatever a factory or an object
// throws, and a damaged entry fails its find without holding anything back.
#include <chrono>
#include <cstdio>
#include <future>
#include <string>
#include <vector>

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "store/FileFormat.h"
#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"

namespace {

using Pt::IoFaultInjection;
using TarnTest::NamedFactory;
using TarnTest::ReceiverCall;
using TarnTest::RecordingReceiver;
using Receiver = Pt::SmartPointer<RecordingReceiver>;
using Behaviour = NamedFactory::Behaviour;
using Part = NamedFactory::Part;

enum class Site { Create, Decode, Verify, Size, Encode };

const char* Name(Site site) {
  static const char* const names[] = {"create", "decode", "verify", "size", "encode"};
  return names[static_cast<int>(site)];
}

const char* Name(Behaviour behaviour) {
  switch (behaviour) {
    case Behaviour::Throw:
      return "Pt::Exception";
    case Behaviour::ThrowStd:
      return "std::runtime_error";
    default:
      return "int";
  }
}

Part PartOf(Site site) {
  switch (site) {
    case Site::Verify:
      return Part::Verify;
    case Site::Size:
      return Part::Size;
    case Site::Encode:
      return Part::Encode;
    default:
      return Part::None;
  }
}

// Whether the exception or one it nests says what was thrown: a Pt exception
// keeps its own location; anything else is wrapped at kClientThrew with its
// text (an int has none).
bool TellsOf(const Pt::Exception& error, Behaviour thrown) {
  for (const Pt::Exception* e = &error; e != nullptr; e = e->nested()) {
    const std::string what = e->what();
    const bool wrapped = std::string(e->where().file) == Tarn::kClientThrew.where.file &&
                         e->where().line == Tarn::kClientThrew.where.line;
    if (thrown == Behaviour::Throw && std::string(e->where().file) == "test/NamedFactory") {
      return true;
    }
    if (thrown == Behaviour::ThrowStd && wrapped &&
        what.find(NamedFactory::kThrownText) != std::string::npos) {
      return true;
    }
    if (thrown == Behaviour::ThrowOther && wrapped &&
        what.find("not a std::exception") != std::string::npos) {
      return true;
    }
  }
  return false;
}

class ExactlyOnceTest : public TarnTest::CacheFixture {
 protected:
  static constexpr int kReceivers = 3;

  // Starts one request for "k" that every receiver joins before it can end:
  // a generation held at the factory's gate, or a read held by the device.
  int startMerged(Site site, std::vector<Receiver>& receivers) {
    for (int i = 0; i < kReceivers; ++i) receivers.emplace_back(new RecordingReceiver);
    if (site == Site::Decode) {
      IoFaultInjection::Add(
          {.action = IoFaultInjection::Action::HoldBack, .kind = IoFaultInjection::Kind::Read});
    } else {
      factory_->closeGate();
    }
    const int id = cache_->findCreate(Key("k"), Secondary("s"), "tile", receivers[0].get());
    for (int i = 1; i < kReceivers; ++i) EXPECT_EQ(cache_->find(Key("k"), receivers[i].get()), id);
    if (site == Site::Decode) {
      EXPECT_TRUE(IoFaultInjection::WaitHeld(1));
      IoFaultInjection::ReleaseHeld();
    } else {
      EXPECT_TRUE(factory_->waitEntered(1));
      factory_->openGate();
    }
    return id;
  }

  void arm(Site site, Behaviour thrown) {
    if (site == Site::Create) factory_->createBehaviour = thrown;
    if (site == Site::Decode) factory_->decodeBehaviour = thrown;
    factory_->faultyPart = PartOf(site);
    factory_->faultyBehaviour = thrown;
  }

  void disarm() {
    factory_->createBehaviour = Behaviour::Normal;
    factory_->decodeBehaviour = Behaviour::Normal;
    factory_->faultyPart = Part::None;
  }
};

// create, decode, verify, size and encode, each throwing a Pt exception, a
// std::exception and an int: every receiver merged on the request hears
// failed() once, nothing is posted, and the key can be looked up again.
TEST_F(ExactlyOnceTest, AnyThrowFailsEveryMergedReceiverOnce) {
  for (const Site site : {Site::Create, Site::Decode, Site::Verify, Site::Size, Site::Encode}) {
    for (const Behaviour thrown : {Behaviour::Throw, Behaviour::ThrowStd, Behaviour::ThrowOther}) {
      SCOPED_TRACE(std::string(Name(site)) + " throws " + Name(thrown));
      TarnTest::PostedExceptions posted;
      open();
      // The read case needs the key in the file only; the others must make it.
      if (site == Site::Decode) insert("k", 40), open();
      arm(site, thrown);
      std::vector<Receiver> receivers;
      const int id = startMerged(site, receivers);
      for (const Receiver& receiver : receivers) {
        ASSERT_TRUE(receiver->waitFor(1));
        const ReceiverCall call = receiver->calls()[0];
        EXPECT_EQ(std::pair(call.kind, call.requestId), std::pair(ReceiverCall::Failed, id));
        ASSERT_NE(call.error, nullptr);
        EXPECT_TRUE(TellsOf(*call.error, thrown)) << call.error->what();
      }
      // The key is free again: a file entry is read anew, anything else
      // generated anew.
      EXPECT_EQ(cache_->isCached(Key("k")), site == Site::Decode);
      disarm();
      Receiver retry(new RecordingReceiver);
      cache_->findCreate(Key("k"), Secondary("s"), "tile", retry.get());
      ASSERT_TRUE(retry->waitFor(1));
      EXPECT_EQ(retry->calls()[0].kind, ReceiverCall::Found);
      close();  // would cancel any receiver still waiting
      for (const Receiver& receiver : receivers) EXPECT_EQ(receiver->count(), 1u);
      EXPECT_EQ(posted.count(), 0u);
      std::remove(dir_.file("cache.tarn").c_str());
    }
  }
}

// The application's own insert of an object that throws: the exception comes
// back to the caller, the generation it overtook tells its receiver failed()
// once and is not answered again when it ends.
TEST_F(ExactlyOnceTest, ThrowingInsertFailsTheWaitersAndReachesTheCaller) {
  for (const Part part : {Part::Verify, Part::Size, Part::Encode}) {
    for (const Behaviour thrown : {Behaviour::Throw, Behaviour::ThrowStd, Behaviour::ThrowOther}) {
      SCOPED_TRACE(std::to_string(static_cast<int>(part)) + " throws " + Name(thrown));
      TarnTest::PostedExceptions posted;
      open();
      factory_->closeGate();
      Receiver waiting(new RecordingReceiver);
      cache_->findCreate(Key("k"), Secondary("s"), "tile", waiting.get());
      ASSERT_TRUE(factory_->waitEntered(1));
      const uint8_t bytes[] = {1, 2, 3};
      const Pt::SmartPointer<Tarn::Cacheable> faulty =
          TarnTest::FaultyObject("tile", Tarn::Buffer::Create(3, bytes), part, thrown);
      bool threw = false;
      try {
        cache_->insert(Key("k"), Secondary("s"), faulty.get());
      } catch (...) {
        threw = true;
      }
      EXPECT_TRUE(threw);
      ASSERT_EQ(waiting->count(), 1u);
      EXPECT_TRUE(TellsOf(*waiting->calls()[0].error, thrown));
      EXPECT_FALSE(cache_->isCached(Key("k")));
      factory_->openGate();
      close();  // waits for the generation, whose insert finds its request over
      EXPECT_EQ(waiting->count(), 1u);
      EXPECT_EQ(posted.count(), 0u);
      std::remove(dir_.file("cache.tarn").c_str());
    }
  }
}

// An entry whose header claims more data than its allocation, or more than a
// request can carry, opens; its find fails (or finds nothing, if the open
// dropped it) and then commit() and the destructor return: no receiver of
// the failed read is left counted.
TEST_F(ExactlyOnceTest, DamagedEntryLengthFailsTheFindAndHoldsNothing) {
  for (const uint32_t dataLength : {0u, 0x80000000u, 0xFFFFFFFFu}) {
    SCOPED_TRACE(dataLength);
    open();
    insert("k", 100);
    close();
    std::vector<uint8_t> bytes = TarnTest::ReadFileBytes(dir_.file("cache.tarn"));
    const size_t header = Tarn::kFirstEntriesOffset;  // the first slot holds "k"
    ASSERT_EQ(bytes.at(header + Tarn::EntryHeader::kPrimaryKeyLengthAt), Key("k").length);
    const uint32_t length =
        dataLength != 0
            ? dataLength
            : TarnTest::U32At(bytes, header + Tarn::EntryHeader::kAllocatedLengthAt) + 1;
    for (int i = 0; i < 4; ++i) {
      bytes[header + Tarn::EntryHeader::kDataLengthAt + i] =
          static_cast<uint8_t>(length >> (8 * i));
    }
    ASSERT_TRUE(TarnTest::WriteFileBytes(dir_.file("cache.tarn"), bytes));

    open();
    // A hang is a failure, not a stuck suite: the find, commit and close run
    // on their own thread and get a generous limit.
    Receiver receiver(new RecordingReceiver);
    auto outcome = std::async(std::launch::async, [&] {
      const int id = cache_->find(Key("k"), receiver.get());
      if (id != 0) receiver->waitFor(1);
      cache_->commit();
      close();
      return id;
    });
    if (outcome.wait_for(std::chrono::seconds(60)) != std::future_status::ready) {
      ADD_FAILURE() << "find, commit or close of a damaged entry hangs";
      std::fflush(nullptr);
      std::_Exit(1);
    }
    if (outcome.get() != 0) {
      ASSERT_EQ(receiver->count(), 1u);
      EXPECT_EQ(receiver->calls()[0].kind, ReceiverCall::Failed);
      EXPECT_EQ(receiver->calls()[0].error->where().line, Tarn::kReadEntryDamaged.where.line);
    }
    std::remove(dir_.file("cache.tarn").c_str());
  }
}

}  // namespace
