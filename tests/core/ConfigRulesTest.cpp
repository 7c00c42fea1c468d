#include "core/ConfigRules.h"

#include <gtest/gtest.h>

namespace Tarn {
namespace {

TEST(ConfigRules, EffectiveValues) {
  // Worker threads: the configured count up to eight; zero (or less) means one
  // and a half per processor, rounded up and also capped.
  EXPECT_EQ(EffectiveWorkerThreads(20, 64), 8);
  EXPECT_EQ(EffectiveWorkerThreads(3, 64), 3);
  EXPECT_EQ(EffectiveWorkerThreads(0, 4), 6);
  EXPECT_EQ(EffectiveWorkerThreads(0, 6), 8);
  EXPECT_EQ(EffectiveWorkerThreads(0, 3), 5);
  EXPECT_EQ(EffectiveWorkerThreads(-4, 4), 6);
  EXPECT_EQ(EffectiveWorkerThreads(0, 0), 2);  // an unknown processor count counts as 1

  EXPECT_EQ(EffectiveMinAllocation(-5), 256);
  EXPECT_EQ(EffectiveMinAllocation(0), 256);
  EXPECT_EQ(EffectiveMinAllocation(1), 1);

  // Worker priority: 0 low, 2 high, anything else normal.
  EXPECT_EQ(EffectiveWorkerPriority(0), 1);
  EXPECT_EQ(EffectiveWorkerPriority(2), 3);
  EXPECT_EQ(EffectiveWorkerPriority(3), 2);
}

}  // namespace
}  // namespace Tarn
