// The memcached tier against real memcached servers started by the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <stdexcept>
#include <thread>
#include <vector>

#include "memcached/MemcachedServer.h"
#include "memcached/TierKey.h"
#include "memcached/TierReceiver.h"
#include "support/TempDir.h"
#include "tarn/MemcachedTier.h"

namespace TarnTest {
namespace {

using namespace std::chrono_literals;
using Tarn::TierLookupStatus;
using Clock = std::chrono::steady_clock;

// Generous: the tier promises an answer by the deadline plus scheduling
// time; a loaded machine may take much of a second to schedule.
constexpr auto kSlack = 1s;

class MemcachedTierTest : public ::testing::Test {
 protected:
  Tarn::MemcachedTierConfig configFor(const std::vector<std::string>& servers) {
    Tarn::MemcachedTierConfig config;
    config.servers = servers;
    config.retryDelay = 200ms;
    return config;
  }

  std::shared_ptr<Tarn::MemcachedTier> make(const std::vector<std::string>& servers) {
    return Tarn::MakeMemcachedTier(configFor(servers));
  }

  // Looks `key` up and waits for the answer (deadline + kSlack at most).
  TierLookupStatus lookup(Tarn::SharedTier& tier, const std::string& key,
                          std::string* value = nullptr,
                          std::chrono::milliseconds deadline = 2000ms) {
    TierReceiver receiver;
    tier.lookup(key, Clock::now() + deadline, receiver);
    EXPECT_TRUE(receiver.waitFor(deadline + kSlack)) << "no answer for " << key;
    if (value != nullptr) *value = receiver.value();
    return receiver.status();
  }

  // Which of `servers` holds the stored key of `key` (-1: none).
  static int holder(std::vector<MemcachedServer*> servers, const std::string& key) {
    for (std::size_t i = 0; i < servers.size(); ++i) {
      if (RawClient(servers[i]->port()).get(Tarn::Memcached::StoredKey(key))) return int(i);
    }
    return -1;
  }

  TempDir dir_;
};

TEST(TierKeyTest, StoredKeyIsAShortPrintableHashOfTheWholeKey) {
  // MurmurHash3_x64_128 reference value: the mapping is the same everywhere.
  EXPECT_EQ(Tarn::Memcached::StoredKey("The quick brown fox jumps over the lazy dog"),
            "tarn:e34bbc7bbc071b6c7a433ca9c49a9347");
  EXPECT_EQ(Tarn::Memcached::StoredKey(""), "tarn:00000000000000000000000000000000");
  const std::string longKey(1000, ' ');
  std::string other = longKey;
  other.back() = '\n';
  const std::string stored = Tarn::Memcached::StoredKey(longKey);
  EXPECT_EQ(stored.size(), 37u);
  EXPECT_EQ(stored.find_first_not_of("tarn:0123456789abcdef"), std::string::npos);
  EXPECT_NE(stored, Tarn::Memcached::StoredKey(other));
  // Every tail length reaches the hash.
  std::string prefix;
  for (int i = 0; i < 40; ++i) {
    EXPECT_NE(Tarn::Memcached::StoredKey(prefix), Tarn::Memcached::StoredKey(prefix + 'x')) << i;
    prefix += 'x';
  }
}

TEST(MemcachedTierConfigTest, BadConfigurationsAreRejected) {
  struct Case {
    const char* what;
    void (*change)(Tarn::MemcachedTierConfig&);
  };
  const Case cases[] = {
      {"no server", [](Tarn::MemcachedTierConfig& c) { c.servers.clear(); }},
      {"no port", [](Tarn::MemcachedTierConfig& c) { c.servers = {"localhost"}; }},
      {"port 0", [](Tarn::MemcachedTierConfig& c) { c.servers = {"localhost:0"}; }},
      {"port too large", [](Tarn::MemcachedTierConfig& c) { c.servers = {"localhost:65536"}; }},
      {"port not a number", [](Tarn::MemcachedTierConfig& c) { c.servers = {"localhost:11x"}; }},
      {"bare IPv6", [](Tarn::MemcachedTierConfig& c) { c.servers = {"::1:11211"}; }},
      {"no host", [](Tarn::MemcachedTierConfig& c) { c.servers = {":11211"}; }},
      {"zero receive timeout", [](Tarn::MemcachedTierConfig& c) { c.receiveTimeout = 0ms; }},
      {"zero connect timeout", [](Tarn::MemcachedTierConfig& c) { c.connectTimeout = 0ms; }},
      {"no failure allowed", [](Tarn::MemcachedTierConfig& c) { c.failuresBeforeEjection = 0; }},
      {"no queue", [](Tarn::MemcachedTierConfig& c) { c.publishQueueBytes = 0; }},
      {"no lookup thread", [](Tarn::MemcachedTierConfig& c) { c.lookupThreads = 0; }},
  };
  for (const Case& c : cases) {
    Tarn::MemcachedTierConfig config;
    config.servers = {"127.0.0.1:11211"};
    c.change(config);
    EXPECT_THROW(Tarn::MakeMemcachedTier(config), std::invalid_argument) << c.what;
  }
  Tarn::MemcachedTierConfig good;
  good.servers = {"127.0.0.1:1", "[::1]:2", "memcached.example:11211"};
  EXPECT_NO_THROW(Tarn::MakeMemcachedTier(good));
}

TEST_F(MemcachedTierTest, PublishedValueComesBackByteForByte) {
  MemcachedServer server(dir_.path());
  auto tier = make({server.address()});
  const std::string key =
      std::string("a key with spaces,\n\r\0 controls", 30) + std::string(400, 'k');
  const std::string value = std::string("\0\r\nEND\r\nbinary", 14) + std::string(100000, 'v');
  tier->publish(key, value);
  ASSERT_TRUE(tier->drainPublishes(5s));
  std::string got;
  EXPECT_EQ(lookup(*tier, key, &got), TierLookupStatus::Hit);
  EXPECT_EQ(got, value);
  EXPECT_EQ(lookup(*tier, key + "?"), TierLookupStatus::Miss);
  const auto counters = tier->counters();
  EXPECT_EQ(counters.publishesSent, 1u);
  EXPECT_EQ(counters.hits, 1u);
  EXPECT_EQ(counters.misses, 1u);
  EXPECT_EQ(counters.lookups, 2u);
  EXPECT_TRUE(tier->healthy());
}

TEST_F(MemcachedTierTest, ValuesAboveTheLimitAreDroppedAndTheLimitItselfFits) {
  MemcachedServer server(dir_.path());
  auto tier = make({server.address()});
  // The default limit must fit in memcached's default 1 MiB item.
  const std::size_t limit = tier->maxValueSize();
  tier->publish("largest", std::string(limit, 'x'));
  tier->publish("too large", std::string(limit + 1, 'x'));
  ASSERT_TRUE(tier->drainPublishes(5s));
  EXPECT_EQ(lookup(*tier, "largest"), TierLookupStatus::Hit);
  EXPECT_EQ(lookup(*tier, "too large"), TierLookupStatus::Miss);
  EXPECT_EQ(tier->counters().publishesSent, 1u);
  EXPECT_EQ(tier->counters().publishesDropped, 1u);
}

TEST_F(MemcachedTierTest, AFullPublishQueueDropsWhatDoesNotFit) {
  BlackHole hole;  // the publisher blocks on it, so the queue fills
  auto config = configFor({hole.address()});
  config.publishQueueBytes = 1000;
  config.receiveTimeout = 2000ms;
  auto tier = Tarn::MakeMemcachedTier(config);
  for (int i = 0; i < 20; ++i) tier->publish("k" + std::to_string(i), std::string(300, 'v'));
  // At most one item in flight and three queued (each 302 or 303 bytes).
  EXPECT_GE(tier->counters().publishesDropped, 16u);
}

TEST_F(MemcachedTierTest, TwoServersShareTheKeys) {
  MemcachedServer a(dir_.path()), b(dir_.path());
  auto tier = make({a.address(), b.address()});
  for (int i = 0; i < 200; ++i)
    tier->publish("key " + std::to_string(i), "value " + std::to_string(i));
  ASSERT_TRUE(tier->drainPublishes(10s));
  int held[2] = {0, 0};
  for (int i = 0; i < 200; ++i) {
    const int where = holder({&a, &b}, "key " + std::to_string(i));
    ASSERT_GE(where, 0) << i;
    ++held[where];
  }
  EXPECT_GT(held[0], 40);
  EXPECT_GT(held[1], 40);
}

// Two servers, 60 keys published; returns which server holds each.
std::vector<int> PublishSixty(Tarn::MemcachedTier& tier, MemcachedServer& a, MemcachedServer& b,
                              int (*holder)(std::vector<MemcachedServer*>, const std::string&)) {
  for (int i = 0; i < 60; ++i)
    tier.publish("key " + std::to_string(i), "value " + std::to_string(i));
  EXPECT_TRUE(tier.drainPublishes(10s));
  std::vector<int> where;
  for (int i = 0; i < 60; ++i) where.push_back(holder({&a, &b}, "key " + std::to_string(i)));
  return where;
}

TEST_F(MemcachedTierTest, AKilledServerCostsOnlyItsOwnKeys) {
  MemcachedServer a(dir_.path()), b(dir_.path());
  auto tier = make({a.address(), b.address()});
  const std::vector<int> where = PublishSixty(*tier, a, b, &holder);
  b.kill();
  for (int i = 0; i < 60; ++i) {
    std::string value;
    const TierLookupStatus status = lookup(*tier, "key " + std::to_string(i), &value);
    if (where[i] == 0) {
      EXPECT_EQ(status, TierLookupStatus::Hit) << i;
      EXPECT_EQ(value, "value " + std::to_string(i));
    } else {
      EXPECT_NE(status, TierLookupStatus::Hit) << i;
    }
  }
  EXPECT_EQ(tier->counters().ejections, 1u);
  EXPECT_TRUE(tier->healthy());
}

TEST_F(MemcachedTierTest, ARestartedServerIsUsedAgainAfterTheRetryDelay) {
  MemcachedServer a(dir_.path()), b(dir_.path());
  auto tier = make({a.address(), b.address()});
  const std::vector<int> where = PublishSixty(*tier, a, b, &holder);
  const int onB = int(std::find(where.begin(), where.end(), 1) - where.begin());
  ASSERT_LT(onB, 60);
  const std::string key = "key " + std::to_string(onB);
  b.kill();
  while (tier->counters().ejections == 0) {
    ASSERT_NE(lookup(*tier, key), TierLookupStatus::Hit);
  }
  b.restart();
  ASSERT_TRUE(RawClient(b.port()).set(Tarn::Memcached::StoredKey(key), "back"));
  // The retry delay is 200 ms; ten seconds of asking is a bounded wait.
  std::string value;
  const auto giveUp = Clock::now() + 10s;
  while (lookup(*tier, key, &value) != TierLookupStatus::Hit && Clock::now() < giveUp) {
    std::this_thread::sleep_for(20ms);
  }
  EXPECT_EQ(value, "back");
  tier->publish(key, "published again");
  ASSERT_TRUE(tier->drainPublishes(5s));
  EXPECT_EQ(RawClient(b.port()).get(Tarn::Memcached::StoredKey(key)), "published again");
}

TEST_F(MemcachedTierTest, ASilentServerCostsEachLookupItsDeadlineThenIsEjected) {
  BlackHole hole;
  auto config = configFor({hole.address()});
  config.receiveTimeout = 300ms;
  config.retryDelay = 60s;
  auto tier = Tarn::MakeMemcachedTier(config);
  for (int i = 0; i < 6; ++i) {
    TierReceiver receiver;
    const auto deadline = Clock::now() + 20ms;
    tier->lookup("key " + std::to_string(i), deadline, receiver);
    ASSERT_TRUE(receiver.waitFor(20ms + kSlack)) << i;
    EXPECT_TRUE(receiver.status() == TierLookupStatus::Timeout ||
                receiver.status() == TierLookupStatus::Unavailable)
        << i;
  }
  // Two timed-out requests eject the only server; the tier then says so and
  // answers at once.
  const auto giveUp = Clock::now() + 10s;
  while (tier->healthy() && Clock::now() < giveUp) std::this_thread::sleep_for(10ms);
  EXPECT_FALSE(tier->healthy());
  EXPECT_EQ(tier->counters().ejections, 1u);
  TierReceiver receiver;
  tier->lookup("after", Clock::now() + 10s, receiver);
  EXPECT_EQ(receiver.calls(), 1);
  EXPECT_EQ(receiver.status(), TierLookupStatus::Unavailable);
  tier->publish("after", "dropped");
  EXPECT_GE(tier->counters().publishesDropped, 1u);
}

TEST_F(MemcachedTierTest, DestroyingTheTierAnswersEveryLookupInFlightOnce) {
  BlackHole hole;
  auto config = configFor({hole.address()});
  config.lookupThreads = 2;
  config.receiveTimeout = 500ms;
  auto tier = Tarn::MakeMemcachedTier(config);
  std::vector<TierReceiver> receivers(20);
  for (std::size_t i = 0; i < receivers.size(); ++i) {
    tier->lookup("key " + std::to_string(i), Clock::now() + 60s, receivers[i]);
  }
  tier.reset();
  for (std::size_t i = 0; i < receivers.size(); ++i) {
    EXPECT_EQ(receivers[i].calls(), 1) << i;
    EXPECT_EQ(receivers[i].status(), TierLookupStatus::Unavailable) << i;
  }
}

TEST_F(MemcachedTierTest, ConcurrentLookupsAreEachAnsweredOnceWhileAServerDies) {
  MemcachedServer a(dir_.path()), b(dir_.path());
  auto config = configFor({a.address(), b.address()});
  config.lookupThreads = 3;
  auto tier = Tarn::MakeMemcachedTier(config);
  for (int i = 0; i < 50; ++i) tier->publish("key " + std::to_string(i), "value");
  ASSERT_TRUE(tier->drainPublishes(10s));
  constexpr int kThreads = 4, kLookups = 150;
  std::vector<std::vector<TierReceiver>> receivers(kThreads);
  for (auto& row : receivers) row = std::vector<TierReceiver>(kLookups);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      for (int i = 0; i < kLookups; ++i) {
        // Deadlines from already passed to comfortably far.
        const auto deadline = Clock::now() + std::chrono::milliseconds((i % 4) * 20 - 1);
        tier->lookup("key " + std::to_string(i % 60), deadline, receivers[t][i]);
        if (i % 10 == 0) tier->publish("key " + std::to_string(i % 60), "again");
      }
    });
  }
  b.kill();
  for (auto& thread : threads) thread.join();
  for (auto& row : receivers) {
    for (auto& receiver : row) ASSERT_TRUE(receiver.waitFor(100ms + kSlack));
  }
  tier.reset();  // no late second answer may come after this
  for (int t = 0; t < kThreads; ++t) {
    for (int i = 0; i < kLookups; ++i) ASSERT_EQ(receivers[t][i].calls(), 1) << t << " " << i;
  }
}

TEST_F(MemcachedTierTest, ALookupPastItsDeadlineIsAnsweredAtOnce) {
  MemcachedServer server(dir_.path());
  auto tier = make({server.address()});
  TierReceiver receiver;
  tier->lookup("late", Clock::now() - 1ms, receiver);
  EXPECT_EQ(receiver.calls(), 1);
  EXPECT_EQ(receiver.status(), TierLookupStatus::Timeout);
}

}  // namespace
}  // namespace TarnTest
