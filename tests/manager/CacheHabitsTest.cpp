// The forms of the Cache API that follow ordinary C++ ownership: smart and
// shared pointers, borrowed factories, callables, futures, filesystem paths,
// and the defaults and refusals of Config.
#include <cstring>
#include <future>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "core/ConfigRules.h"
#include "manager/CacheAdapters.h"
#include "support/CacheFixture.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace TarnTest {
namespace {

using Tarn::Outcome;

Tarn::Config Small() {
  Tarn::Config config;
  config.workerThreads = 2;
  return config;
}

class CacheHabitsTest : public CacheFixture {
 protected:
  std::filesystem::path file_ = dir_.path() / "habits.tarn";
};

// Each way of handing over a factory that the application keeps: the cache
// works with it, and neither the cache nor the owner deletes it twice (the
// AddressSanitizer build turns a double delete into a failure).
TEST_F(CacheHabitsTest, FactoriesHeldByTheApplicationSurviveTheCache) {
  {
    NamedFactory onStack("tile");
    Tarn::Cache cache(file_, Small(), onStack);  // borrowed by reference
    EXPECT_TRUE(cache.findCreateFuture(Key("a"), Secondary("s"), "tile").get());
  }
  {
    NamedFactory onStack("tile");
    Tarn::Cache cache(file_, Small(), &onStack);  // by address: recognised on the stack
    EXPECT_TRUE(cache.findFuture(Key("a")).get());
  }
  {
    auto owned = std::make_unique<NamedFactory>("tile");
    Tarn::Cache cache(file_.string().c_str(), Small(), *owned);
    EXPECT_TRUE(cache.findFuture(Key("a")).get());
  }
  auto shared = std::make_shared<NamedFactory>("tile");
  {
    Tarn::Cache cache(file_.string(), Small(), shared);
    EXPECT_GT(shared.use_count(), 1);  // the cache keeps its own copy
    EXPECT_TRUE(cache.findCreateFuture(Key("b"), Secondary("s"), "tile").get());
  }
  EXPECT_EQ(shared.use_count(), 1);
  Pt::SmartPointer<NamedFactory> counted(new NamedFactory("tile"));
  {
    Tarn::Cache cache(file_, Small(), Pt::SmartPointer<Tarn::CacheableFactory>(counted));
    EXPECT_EQ(counted->refCount(), 2);  // ours and the cache's
  }
  EXPECT_EQ(counted->refCount(), 1);
}

TEST_F(CacheHabitsTest, ReceiversAndObjectsOnTheStackAreNotDeleted) {
  Tarn::Cache cache(file_, Small(), factory_);
  struct Counting : Tarn::CacheableReceiver {
    int calls = 0;
    void found(int, const Tarn::CacheKey<32>&, const Pt::SmartPointer<Tarn::Cacheable>&) override {
      ++calls;
    }
    void cancelled(int, const Tarn::CacheKey<32>&) override { ++calls; }
    void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override { ++calls; }
  } receiver;
  cache.insert(Key("k"), Secondary("s"), Object(10));
  EXPECT_NE(cache.find(Key("k"), &receiver), 0);  // in memory: answered at once
  EXPECT_EQ(receiver.calls, 1);
}

TEST_F(CacheHabitsTest, CallablesHearEveryKindOfOutcome) {
  Tarn::Cache cache(file_, Small(), factory_);
  std::promise<Outcome::Kind> created;
  cache.findCreate(Key("new"), Secondary("s"), "tile",
                   [&created](const Outcome& o) { created.set_value(o.kind); });
  EXPECT_EQ(created.get_future().get(), Outcome::Kind::Found);

  factory_->createBehaviour = NamedFactory::Behaviour::Throw;
  std::promise<std::string> failed;
  cache.findCreate(Key("bad"), Secondary("s"), "tile", [&failed](const Outcome& o) {
    failed.set_value(o.kind == Outcome::Kind::Failed ? o.error->what() : "not failed");
  });
  const std::string failure = failed.get_future().get();
  EXPECT_EQ(failure, std::strerror(EDOM));  // what the factory threw, unchanged

  factory_->closeGate();
  std::promise<Outcome::Kind> cancelled;
  const int id = cache.findCreate(Key("slow"), Secondary("s"), "tile",
                                  [&cancelled](const Outcome& o) { cancelled.set_value(o.kind); });
  ASSERT_TRUE(factory_->waitEntered(1));
  cache.cancel(id);
  EXPECT_EQ(cancelled.get_future().get(), Outcome::Kind::Cancelled);
  factory_->openGate();

  EXPECT_EQ(cache.find(Key("nowhere"), [](const Outcome&) { ADD_FAILURE(); }), 0);
  EXPECT_THROW(cache.find(Key("x"), Tarn::OutcomeCallback()), std::invalid_argument);
}

TEST_F(CacheHabitsTest, FuturesCarryTheObjectNullOrTheExceptionClass) {
  Tarn::Cache cache(file_, Small(), factory_);
  EXPECT_EQ(cache.findFuture(Key("nowhere")).get(), nullptr);
  EXPECT_TRUE(cache.findCreateFuture(Key("made"), Secondary("s"), "tile").get());
  factory_->createBehaviour = NamedFactory::Behaviour::Throw;
  auto failing = cache.findCreateFuture(Key("bad"), Secondary("s"), "tile");
  EXPECT_THROW(failing.get(), Pt::Exception);
  EXPECT_THROW(cache.findCreateFuture(Key("x"), Secondary("s"), "nosuchtype"),
               Tarn::ExFactoryClassNotFound);
}

TEST(CapturedExceptionTest, KeepsTheMostDerivedLibraryClass) {
  const Tarn::ExFileReadEntry read(Pt::ExWhere{"f", 1});
  EXPECT_THROW(std::rethrow_exception(Tarn::CapturedException(read)), Tarn::ExFileReadEntry);
  const Pt::ExSystem system(ENOENT, Pt::ExWhere{"f", 1});
  try {
    std::rethrow_exception(Tarn::CapturedException(system));
  } catch (const Pt::ExSystem& caught) {
    EXPECT_EQ(caught.code(), ENOENT);
  }
}

TEST(ConfigDefaultsTest, DefaultsWorkAndZeroKeepsItsMeaning) {
  const Tarn::Config defaults{};
  EXPECT_EQ(defaults.memoryTarget, 64 << 20);
  EXPECT_EQ(defaults.memorySlack, 16 << 20);
  EXPECT_TRUE(defaults.createIfMissing);
  EXPECT_EQ(defaults.fileBudget, 0);
  EXPECT_FALSE(defaults.relaxedOrdering);
  EXPECT_EQ(defaults.ioEngine, Tarn::IoEngine::Automatic);
  const Tarn::Config zero = Tarn::ZeroedConfig();
  EXPECT_EQ(zero.memoryTarget, 0);
  EXPECT_FALSE(zero.createIfMissing);
  EXPECT_EQ(zero.ioEngine, Tarn::IoEngine::Automatic);
}

TEST_F(CacheHabitsTest, NegativeSizesAreRefusedByName) {
  struct Case {
    int32_t Tarn::Config::*field;
    const char* name;
  };
  for (const Case& c : {Case{&Tarn::Config::memoryTarget, "memoryTarget"},
                        Case{&Tarn::Config::memorySlack, "memorySlack"},
                        Case{&Tarn::Config::minAllocation, "minAllocation"},
                        Case{&Tarn::Config::fileBudget, "fileBudget"}}) {
    Tarn::Config config = Small();
    config.*c.field = -1;
    try {
      Tarn::Cache cache(file_, config, factory_);
      ADD_FAILURE() << c.name;
    } catch (const std::invalid_argument& e) {
      EXPECT_NE(std::string(e.what()).find(c.name), std::string::npos) << e.what();
    }
  }
  EXPECT_FALSE(std::filesystem::exists(file_));  // refused before anything was made
}

TEST(IoEngineRuleTest, EnvironmentWinsAndUnknownValuesAreRefused) {
  using Tarn::IoEngine;
  EXPECT_EQ(Tarn::EffectiveIoEngine(IoEngine::IoUring, nullptr), IoEngine::IoUring);
  EXPECT_EQ(Tarn::EffectiveIoEngine(IoEngine::IoUring, ""), IoEngine::IoUring);
  EXPECT_EQ(Tarn::EffectiveIoEngine(IoEngine::IoUring, "threads"), IoEngine::ThreadPool);
  EXPECT_EQ(Tarn::EffectiveIoEngine(IoEngine::ThreadPool, "uring"), IoEngine::IoUring);
  EXPECT_EQ(Tarn::EffectiveIoEngine(IoEngine::ThreadPool, "auto"), IoEngine::Automatic);
  EXPECT_THROW(Tarn::EffectiveIoEngine(IoEngine::Automatic, "fast"), std::invalid_argument);
  EXPECT_THROW(Tarn::EffectiveIoEngine(static_cast<IoEngine>(7), nullptr), std::invalid_argument);
}

// The engine the suite runs on is the one TARN_IO_ENGINE names (CTest runs
// this suite once per engine).
TEST_F(CacheHabitsTest, TheChosenEngineRuns) {
  Tarn::Config config = Small();
  config.ioEngine = Tarn::IoEngine::ThreadPool;
  Tarn::Cache cache(file_, config, factory_);
  const char* chosen = std::getenv("TARN_IO_ENGINE");
  if (chosen == nullptr || std::strcmp(chosen, "threads") == 0) {
    // Unless another cache of this process started first, the Config decides.
    EXPECT_EQ(Tarn::ActiveIoEngine(), Tarn::IoEngine::ThreadPool);
  } else if (std::strcmp(chosen, "uring") == 0) {
    EXPECT_EQ(Tarn::ActiveIoEngine(), Tarn::IoEngine::IoUring);
  }
}

}  // namespace
}  // namespace TarnTest
