// A cache file under churn across open/close cycles: each cycle opens the
// cache, checks that every entry of the model reads back exact (the bytes
// encode the key and its version) and that no erased key is there, then
// replaces (erase, insert a new version) or erases keys drawn at random, with
// sizes drawn log-uniformly from 50 B to 64 KiB, and closes. After each close
// the file's space amplification is read with the loader: its size over the
// bytes it must hold (the live entries' allocations, the header, the type
// table and each extent's block).
//
// TARN_CHURN_CYCLES scales the cycles down (sanitizer builds);
// TARN_CHURN_SEED repeats a run.
#include <cmath>
#include <cstdlib>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/RaiseSites.h"
#include "platform/SyncFile.h"
#include "store/CacheFileLoader.h"
#include "store/SpaceReport.h"
#include "support/CacheFixture.h"

namespace {

constexpr uint32_t kSmallest = 50, kLargest = 64 * 1024;
constexpr unsigned kEraseOneIn = 4;  // the other operations replace
constexpr double kAmplificationBar = 1.3;
constexpr double kAmplificationBound = 3.0;

struct ChurnCase {
  int keys;
  int cycles;
  int opsPerCycle;
  int warmUpCycles;  // cycles whose amplification is not held to the bar
};

constexpr ChurnCase kTwentyKeys{20, 300, 40, 20};
constexpr ChurnCase kTwoThousandKeys{2'000, 100, 300, 10};
const ChurnCase kCases[] = {kTwentyKeys, kTwoThousandKeys};

unsigned EnvOr(const char* name, unsigned fallback) {
  const char* text = std::getenv(name);
  return text != nullptr && *text != '\0' ? static_cast<unsigned>(std::stoul(text)) : fallback;
}

struct Version {
  uint32_t number;
  uint32_t size;
};

// The bytes of `version` of `key`: both numbers first, then a pattern that
// depends on both, so that a stale or misplaced entry cannot match.
std::vector<uint8_t> Payload(uint32_t key, const Version& version) {
  std::vector<uint8_t> bytes(version.size);
  for (uint32_t i = 0; i < version.size; ++i) {
    bytes[i] = static_cast<uint8_t>(key * 131 + version.number * 31 + i);
  }
  for (int i = 0; i < 4; ++i) {
    bytes[i] = static_cast<uint8_t>(key >> (8 * i));
    bytes[4 + i] = static_cast<uint8_t>(version.number >> (8 * i));
  }
  return bytes;
}

class Churn : public TarnTest::CacheFixture, public testing::WithParamInterface<ChurnCase> {
 protected:
  static Tarn::Config SmallMemory() {
    Tarn::Config config = DefaultConfig();
    config.memoryTarget = 256 << 10;  // most finds after a reopen read the file
    return config;
  }
  static Tarn::PrimaryKey KeyOf(uint32_t key) { return Key("churn-" + std::to_string(key)); }

  // Runs the cycles; returns the amplification after each close.
  std::vector<double> run() {
    const ChurnCase& shape = GetParam();
    const unsigned seed = EnvOr("TARN_CHURN_SEED", static_cast<unsigned>(shape.keys));
    const unsigned cycles = std::min<unsigned>(shape.cycles, EnvOr("TARN_CHURN_CYCLES", 1u << 30));
    RecordProperty("seed", static_cast<int>(seed));
    random_.seed(seed);
    model_.assign(shape.keys, std::nullopt);
    std::vector<double> figures;
    for (unsigned cycle = 0; cycle < cycles && !HasFailure(); ++cycle) {
      open(SmallMemory());
      checkEveryEntry();
      churn(shape.opsPerCycle);
      close();
      figures.push_back(Tarn::SpaceAmplification(dir_.file("cache.tarn")));
    }
    return figures;
  }

  void churn(int operations) {
    for (int op = 0; op < operations; ++op) {
      const uint32_t key = static_cast<uint32_t>(random_() % model_.size());
      cache_->erase(KeyOf(key));
      model_[key].reset();
      if (random_() % kEraseOneIn == 0) continue;
      std::uniform_real_distribution<double> exponent(std::log(kSmallest), std::log(kLargest));
      const Version version{++lastVersion_, static_cast<uint32_t>(std::exp(exponent(random_)))};
      const std::vector<uint8_t> bytes = Payload(key, version);
      cache_->insert(
          KeyOf(key), Secondary("s"),
          Tarn::Cacheable::Create(
              "tile", Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()))
              .get());
      model_[key] = version;
    }
  }

  // Every key the model holds reads back with exactly its last version's
  // bytes; no other key is there.
  void checkEveryEntry() {
    Tarn::Serialize sync(cache_.get());
    int live = 0;
    for (uint32_t key = 0; key < model_.size() && !HasFailure(); ++key) {
      if (!model_[key]) {
        EXPECT_FALSE(cache_->isCached(KeyOf(key))) << "erased key " << key << " is back";
        continue;
      }
      ++live;
      const Pt::SmartPointer<Tarn::Cacheable>& found = sync.find(KeyOf(key));
      ASSERT_TRUE(found) << "key " << key << " version " << model_[key]->number << " is lost";
      const Pt::SmartPointer<Tarn::Buffer>& data = found->getData();
      const std::vector<uint8_t> expected = Payload(key, *model_[key]);
      ASSERT_TRUE(data &&
                  std::vector<uint8_t>(data->bytes(), data->bytes() + data->length()) == expected)
          << "key " << key << " does not hold version " << model_[key]->number;
    }
    EXPECT_EQ(stats().fileEntries, live);
  }

  std::mt19937 random_;
  std::vector<std::optional<Version>> model_;
  uint32_t lastVersion_ = 0;
};

class ChurnWithinBar : public Churn {};
class ChurnBounded : public Churn {};

// The bar: after the warm-up the file stays within 1.3 times what it must
// hold, at the end of every cycle.
TEST_P(ChurnWithinBar, AtTheEndOfEveryCycleAfterWarmUp) {
  const std::vector<double> figures = run();
  for (size_t cycle = GetParam().warmUpCycles; cycle < figures.size(); ++cycle) {
    EXPECT_LE(figures[cycle], kAmplificationBar) << "after cycle " << cycle;
  }
}

// A weaker bound that holds however the free space is used: the file does
// not grow without bound while its live data stays the same.
TEST_P(ChurnBounded, AtTheEnd) {
  const std::vector<double> figures = run();
  ASSERT_FALSE(figures.empty());
  EXPECT_LE(figures.back(), kAmplificationBound) << "after " << figures.size() << " cycles";
}

std::string KeysName(const testing::TestParamInfo<ChurnCase>& info) {
  return std::to_string(info.param.keys);
}

INSTANTIATE_TEST_SUITE_P(Keys, ChurnBounded, testing::Values(kTwoThousandKeys), KeysName);

// Disabled until the space behind the last live range is reused at open:
// every reopen appends behind it, so with 20 keys the file keeps growing
// (measured: 21x after 150 cycles, 28x after 300).
INSTANTIATE_TEST_SUITE_P(DISABLED_Keys, ChurnBounded, testing::Values(kTwentyKeys), KeysName);

// Disabled until the file meets the bar. Measured: 20 keys, 28x after 300
// cycles (growing with every reopen, as above); 2,000 keys, between 1.25 and
// 1.37 after the warm-up, above 1.3 after 27 of the 90 cycles.
INSTANTIATE_TEST_SUITE_P(DISABLED_Keys, ChurnWithinBar, testing::ValuesIn(kCases), KeysName);

}  // namespace
