// A cache with a shared tier: hits are decoded and stored without a
// generation, misses generate and publish, requests for one key share one
// lookup, refused values and outages never fail a request, and the cache
// can be destroyed with lookups in flight.
#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/RaiseSites.h"
#include "manager/CacheManager.h"
#include "support/CacheFixture.h"
#include "support/FakeTier.h"
#include "support/PostedExceptions.h"
#include "tier/TierRecord.h"

namespace Tarn {
// Reaches a cache's manager, for its invariant check.
struct CacheInternals {
  static CacheManager& Of(Cache& cache) { return *cache.manager_; }
};
}  // namespace Tarn

namespace {

using Mode = TarnTest::FakeTier::Mode;
using TarnTest::ReceiverCall;
using TarnTest::RecordingReceiver;
using Receiver = Pt::SmartPointer<RecordingReceiver>;

constexpr const char* kNamespace = "test-app";

class TierCacheTest : public TarnTest::CacheFixture {
 protected:
  Tarn::TierConfig Tier(std::chrono::milliseconds deadline = std::chrono::milliseconds(2000)) {
    Tarn::TierConfig config;
    config.tier = tier_;
    config.keyNamespace = kNamespace;
    config.deadline = deadline;
    return config;
  }
  Tarn::Cache& openTiered(const Tarn::TierConfig& config) {
    cache_.reset();
    cache_ = std::make_unique<Tarn::Cache>(
        std::filesystem::path(path_), DefaultConfig(),
        std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{factory_}, config);
    return *cache_;
  }
  Tarn::Cache& openTiered() { return openTiered(Tier()); }

  static std::string TierKey(const std::string& key, const std::string& type = "tile") {
    return Tarn::TierKey(kNamespace, type, Key(key));
  }
  // The value another process would have published for `key`.
  static std::string Value(const std::string& key, const std::string& payload,
                           const std::string& type = "tile") {
    return Tarn::EncodeTierRecord(TierKey(key, type), type, Secondary("s2"),
                                  reinterpret_cast<const uint8_t*>(payload.data()),
                                  static_cast<uint32_t>(payload.size()));
  }
  static std::string Bytes(const Pt::SmartPointer<Tarn::Cacheable>& cacheable) {
    const auto& data = cacheable->getData();
    return std::string(reinterpret_cast<const char*>(data->bytes()),
                       static_cast<size_t>(data->length()));
  }
  Pt::SmartPointer<Tarn::Cacheable> findCreate(const std::string& key) {
    return cache_->findCreateFuture(Key(key), Secondary("s"), "tile").get();
  }
  // Waits until the workers have counted `count` outcomes of lookups.
  bool waitTierCounted(uint64_t count) {
    for (int i = 0; i < 2000; ++i) {
      const Tarn::TierStatistics s = cache_->tierStatistics();
      if (s.hits + s.misses + s.timeouts + s.unavailable + s.rejected >= count) return true;
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return false;
  }

  std::shared_ptr<TarnTest::FakeTier> tier_ = std::make_shared<TarnTest::FakeTier>();
};

// The hit path on both kinds of answer: inside lookup() and from the tier's
// own thread.
TEST_F(TierCacheTest, HitIsDecodedAndStoredWithoutGeneration) {
  for (const Mode mode : {Mode::Inline, Mode::Later}) {
    SCOPED_TRACE(mode == Mode::Inline ? "inline" : "later");
    std::filesystem::remove(path_);
    tier_->mode = mode;
    tier_->put(TierKey("a"), Value("a", "from the fleet"));
    openTiered();
    const Pt::SmartPointer<Tarn::Cacheable> found = findCreate("a");
    ASSERT_TRUE(found);
    EXPECT_EQ(Bytes(found), "from the fleet");
    EXPECT_EQ(factory_->creates, 0);
    const Tarn::TierStatistics statistics = cache_->tierStatistics();
    EXPECT_EQ(statistics.hits, 1u);
    EXPECT_EQ(statistics.published, 0u);  // it came from the tier
    cache_->commit();

    // Inserted the normal way: the file has it, under the record's
    // secondary key, and a cache without a tier reads it back.
    open();
    std::vector<Tarn::PrimaryKey> keys;
    cache_->findPrimaryKeys(Secondary("s2"), keys);
    EXPECT_EQ(keys.size(), 1u);
    const Pt::SmartPointer<Tarn::Cacheable> reread = cache_->findFuture(Key("a")).get();
    ASSERT_TRUE(reread);
    EXPECT_EQ(Bytes(reread), "from the fleet");
    EXPECT_EQ(stats().fileReads, 1);
    EXPECT_EQ(factory_->creates, 0);
    close();
  }
}

TEST_F(TierCacheTest, MissGeneratesAndPublishesOnceForTheNextProcess) {
  tier_->mode = Mode::Later;
  openTiered();
  const Pt::SmartPointer<Tarn::Cacheable> made = findCreate("b");
  ASSERT_TRUE(made);
  EXPECT_EQ(factory_->creates, 1);
  ASSERT_TRUE(tier_->waitPublished(1));
  // A second lookup is served from memory: nothing more is asked or offered.
  EXPECT_EQ(Bytes(findCreate("b")), "b");
  EXPECT_EQ(tier_->lookups, 1);
  EXPECT_EQ(tier_->publishes, 1);
  const Tarn::TierStatistics statistics = cache_->tierStatistics();
  EXPECT_EQ(statistics.misses, 1u);
  EXPECT_EQ(statistics.published, 1u);

  std::string value;
  ASSERT_TRUE(tier_->get(TierKey("b"), value));
  Tarn::TierRecordView view;
  ASSERT_EQ(Tarn::CheckTierRecord(value, TierKey("b"), "tile", view), Tarn::TierRecordCheck::Valid);
  EXPECT_EQ(view.payload, "b");
  EXPECT_TRUE(view.secondaryKey == Secondary("s"));

  // Another process with its own file finds it in the tier.
  close();
  std::filesystem::remove(path_);
  openTiered();
  ASSERT_EQ(Bytes(findCreate("b")), "b");
  EXPECT_EQ(factory_->creates, 1);
  EXPECT_EQ(cache_->tierStatistics().hits, 1u);
}

TEST_F(TierCacheTest, RequestsForOneKeyShareOneLookup) {
  tier_->mode = Mode::Held;
  openTiered();
  std::vector<Receiver> receivers;
  std::vector<int> ids;
  // A find starts the lookup; the findCreates that join make its miss
  // generate, for every one of them.
  for (int i = 0; i < 6; ++i) {
    receivers.emplace_back(new RecordingReceiver);
    ids.push_back(
        i % 3 == 0 ? cache_->find(Key("c"), receivers.back().get())
                   : cache_->findCreate(Key("c"), Secondary("s"), "tile", receivers.back().get()));
  }
  ASSERT_TRUE(tier_->waitPending(1));
  EXPECT_EQ(tier_->lookups, 1);
  EXPECT_TRUE(cache_->isCached(Key("c")));
  EXPECT_EQ(Tarn::CacheInternals::Of(*cache_).checkInvariants(), "");
  tier_->release();
  for (size_t i = 0; i < receivers.size(); ++i) {
    ASSERT_TRUE(receivers[i]->waitFor(1));
    const ReceiverCall call = receivers[i]->calls().at(0);
    EXPECT_EQ(call.kind, ReceiverCall::Found);
    EXPECT_EQ(call.requestId, ids[0]);
  }
  EXPECT_EQ(tier_->lookups, 1);
  EXPECT_EQ(factory_->creates, 1);
  EXPECT_EQ(stats().generated, 1);
  EXPECT_EQ(Tarn::CacheInternals::Of(*cache_).checkInvariants(), "");
}

// A findCreate of a type no factory serves cannot turn a find's lookup into
// a generation: it throws and leaves the find waiting as it was.
TEST_F(TierCacheTest, UnknownTypeDoesNotJoinAFindsLookup) {
  tier_->mode = Mode::Held;
  openTiered();
  Receiver finding(new RecordingReceiver);
  Receiver refused(new RecordingReceiver);
  cache_->find(Key("u"), finding.get());
  ASSERT_TRUE(tier_->waitPending(1));
  EXPECT_THROW(cache_->findCreate(Key("u"), Secondary("s"), "nosuch", refused.get()),
               Tarn::ExFactoryClassNotFound);
  EXPECT_EQ(Tarn::CacheInternals::Of(*cache_).checkInvariants(), "");
  tier_->release();
  ASSERT_TRUE(finding->waitFor(1));
  EXPECT_EQ(finding->calls().at(0).kind, ReceiverCall::Cancelled);
  EXPECT_EQ(refused->count(), 0u);
  EXPECT_EQ(factory_->creates, 0);
}

TEST_F(TierCacheTest, RefusedValuesAreCountedAndGenerated) {
  std::string truncated = Value("k2", "payload");
  truncated.pop_back();
  std::string corrupted = Value("k3", "payload");
  corrupted[corrupted.size() - 2] ^= 0x01;
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"k1", "not ours at all: some other program's value"},
      {"k2", truncated},
      {"k3", corrupted},
      {"k4", Value("someone else", "payload")},  // wrong key echoed
      {"k5", Tarn::EncodeTierRecord(TierKey("k5"), "icon", Secondary("s"), nullptr, 0)},
      {"k6", Value("k6", "payload")},  // decode throws
      {"k7", Value("k7", "payload")},  // decode returns nothing
  };
  for (const auto& [key, value] : bad) tier_->put(TierKey(key), value);
  openTiered();
  for (const auto& [key, value] : bad) {
    SCOPED_TRACE(key);
    factory_->decodeBehaviour = key == "k6"   ? TarnTest::NamedFactory::Behaviour::ThrowStd
                                : key == "k7" ? TarnTest::NamedFactory::Behaviour::ReturnNull
                                              : TarnTest::NamedFactory::Behaviour::Normal;
    const Pt::SmartPointer<Tarn::Cacheable> made = findCreate(key);
    ASSERT_TRUE(made);
    EXPECT_EQ(Bytes(made), key);  // generated, never the refused bytes
  }
  EXPECT_EQ(factory_->creates, static_cast<int>(bad.size()));
  EXPECT_EQ(factory_->decodes, 2);  // only the two values that passed the checks
  const Tarn::TierStatistics statistics = cache_->tierStatistics();
  EXPECT_EQ(statistics.rejected, bad.size());
  EXPECT_EQ(statistics.hits, 0u);
}

TEST_F(TierCacheTest, AnOutagePostsOneExceptionUntilTheTierAnswersAgain) {
  TarnTest::PostedExceptions posted;
  tier_->mode = Mode::Down;
  openTiered();
  std::vector<std::future<Pt::SmartPointer<Tarn::Cacheable>>> outcomes;
  for (int i = 0; i < 20; ++i) {
    outcomes.push_back(
        cache_->findCreateFuture(Key("d" + std::to_string(i)), Secondary("s"), "tile"));
  }
  for (auto& outcome : outcomes) EXPECT_TRUE(outcome.get());  // never failed
  tier_->mode = Mode::Unhealthy;
  EXPECT_TRUE(findCreate("unhealthy"));
  EXPECT_EQ(posted.count(), 1u);
  ASSERT_TRUE(posted.waitFor(1));
  EXPECT_EQ(std::string(posted.at(0)->what()).rfind("Shared Tier Unavailable!", 0), 0u);
  EXPECT_EQ(cache_->tierStatistics().unavailable, 21u);

  // The tier answers (a miss), then goes down again: a second outage.
  tier_->mode = Mode::Inline;
  EXPECT_TRUE(findCreate("back"));
  tier_->mode = Mode::Down;
  EXPECT_TRUE(findCreate("down again"));
  EXPECT_TRUE(findCreate("still down"));
  EXPECT_EQ(posted.count(), 2u);
}

TEST_F(TierCacheTest, TimeoutGeneratesAndCounts) {
  tier_->mode = Mode::Silent;
  openTiered(Tier(std::chrono::milliseconds(20)));
  EXPECT_EQ(Bytes(findCreate("t")), "t");
  EXPECT_EQ(cache_->tierStatistics().timeouts, 1u);
  EXPECT_EQ(factory_->creates, 1);
}

// A value one byte above the tier's limit is not offered; one at the limit
// is.
TEST_F(TierCacheTest, ValueAboveTheTiersLimitIsNotOffered) {
  const size_t recordSize = Tarn::TierRecordSize(TierKey("k1"), "tile", Secondary("s"), 2);
  tier_->maxValue = recordSize - 1;
  openTiered();
  ASSERT_TRUE(findCreate("k1"));
  // Offered after the receivers are told: wait for the refusal to count.
  for (int i = 0; i < 2000 && cache_->tierStatistics().tooLarge == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  tier_->maxValue = recordSize;
  ASSERT_TRUE(findCreate("k2"));
  ASSERT_TRUE(tier_->waitPublished(1));
  const Tarn::TierStatistics statistics = cache_->tierStatistics();
  EXPECT_EQ(statistics.tooLarge, 1u);
  EXPECT_EQ(statistics.published, 1u);
  std::string value;
  EXPECT_FALSE(tier_->get(TierKey("k1"), value));
  EXPECT_TRUE(tier_->get(TierKey("k2"), value));
}

TEST_F(TierCacheTest, FindAsksTheTierButNeverGenerates) {
  TarnTest::PostedExceptions posted;  // the unhealthy tier below is reported
  tier_->mode = Mode::Later;
  tier_->put(TierKey("f"), Value("f", "found in the tier"));
  openTiered();
  const Pt::SmartPointer<Tarn::Cacheable> found = cache_->findFuture(Key("f")).get();
  ASSERT_TRUE(found);
  EXPECT_EQ(Bytes(found), "found in the tier");
  EXPECT_TRUE(cache_->isCached(Key("f")));

  // Nowhere: the receiver hears cancelled; nothing is generated or offered.
  Receiver receiver(new RecordingReceiver);
  const int id = cache_->find(Key("nowhere"), receiver.get());
  EXPECT_NE(id, 0);
  ASSERT_TRUE(receiver->waitFor(1));
  EXPECT_EQ(receiver->calls().at(0).kind, ReceiverCall::Cancelled);
  EXPECT_FALSE(cache_->findFuture(Key("nowhere")).get());
  tier_->mode = Mode::Unhealthy;
  EXPECT_FALSE(cache_->findFuture(Key("nowhere")).get());
  EXPECT_EQ(factory_->creates, 0);
  EXPECT_EQ(tier_->publishes, 0);
  EXPECT_FALSE(cache_->isCached(Key("nowhere")));
}

TEST_F(TierCacheTest, FindAsksUnderEveryTypeInTheFactoriesOrder) {
  Pt::SmartPointer<TarnTest::NamedFactory> icons(new TarnTest::NamedFactory("icon"));
  tier_->mode = Mode::Later;
  tier_->put(TierKey("i", "icon"), Value("i", "an icon", "icon"));
  cache_ = std::make_unique<Tarn::Cache>(
      std::filesystem::path(path_), DefaultConfig(),
      std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{factory_, icons}, Tier());
  const Pt::SmartPointer<Tarn::Cacheable> found = cache_->findFuture(Key("i")).get();
  ASSERT_TRUE(found);
  EXPECT_EQ(found->getType(), "icon");
  EXPECT_EQ(tier_->lookups, 2);  // "tile" first, then "icon"
  EXPECT_EQ(icons->decodes, 1);
}

// The destructor waits for lookups that the tier answers only at their
// deadline; every receiver hears exactly one outcome, and no answer reaches
// a cache that is gone (the sanitizer builds would see it).
TEST_F(TierCacheTest, DestructionWaitsForLookupsInFlight) {
  for (const Mode mode : {Mode::Silent, Mode::Held, Mode::Later}) {
    tier_->mode = mode;
    openTiered(Tier(std::chrono::milliseconds(30)));
    std::vector<Receiver> receivers;
    for (int i = 0; i < 16; ++i) {
      receivers.emplace_back(new RecordingReceiver);
      const std::string key = "w" + std::to_string(i);
      if (i % 2) {
        cache_->find(Key(key), receivers.back().get());
      } else {
        cache_->findCreate(Key(key), Secondary("s"), "tile", receivers.back().get());
      }
    }
    close();
    for (const Receiver& receiver : receivers) EXPECT_EQ(receiver->count(), 1u);
  }
}

TEST_F(TierCacheTest, EraseEndsALookupAndItsLateAnswerIsDropped) {
  tier_->mode = Mode::Held;
  tier_->put(TierKey("e"), Value("e", "late"));
  openTiered();
  Receiver receiver(new RecordingReceiver);
  cache_->findCreate(Key("e"), Secondary("s"), "tile", receiver.get());
  ASSERT_TRUE(tier_->waitPending(1));
  cache_->erase(Key("e"));
  ASSERT_TRUE(receiver->waitFor(1));
  EXPECT_EQ(receiver->calls().at(0).kind, ReceiverCall::Cancelled);
  tier_->release();
  ASSERT_TRUE(waitTierCounted(1));
  close();  // the answer's work is done once the workers are
  open();
  EXPECT_FALSE(cache_->isCached(Key("e")));
  EXPECT_EQ(factory_->creates, 0);
}

TEST_F(TierCacheTest, ConstructorRefusesABadTierConfig) {
  Tarn::TierConfig longNamespace = Tier();
  longNamespace.keyNamespace.assign(65, 'n');
  EXPECT_THROW(openTiered(longNamespace), std::invalid_argument);
  EXPECT_THROW(openTiered(Tier(std::chrono::milliseconds(0))), std::invalid_argument);
  Tarn::TierConfig longest = Tier();
  longest.keyNamespace.assign(64, 'n');
  EXPECT_NO_THROW(openTiered(longest));
}

TEST_F(TierCacheTest, NoTierMeansNoTierTraffic) {
  openTiered(Tarn::TierConfig());
  Receiver receiver(new RecordingReceiver);
  EXPECT_EQ(cache_->find(Key("n"), receiver.get()), 0);  // nowhere, as without a tier
  ASSERT_TRUE(findCreate("n"));
  const Tarn::TierStatistics statistics = cache_->tierStatistics();
  EXPECT_EQ(statistics.misses + statistics.published, 0u);
  EXPECT_EQ(tier_->lookups, 0);
}

}  // namespace
