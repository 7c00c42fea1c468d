#include "core/ConfigRules.h"

#include <gtest/gtest.h>

#include <cstring>

#include "tarn/Statistics.h"

namespace Tarn {
namespace {

TEST(WorkerThreads, DefaultIsOneAndAHalfPerProcessorRoundedUpAndCapped) {
  EXPECT_EQ(EffectiveWorkerThreads(0, 4), 6);
  EXPECT_EQ(EffectiveWorkerThreads(0, 6), 8);  // 9, capped
  EXPECT_EQ(EffectiveWorkerThreads(0, 12), 8);
  EXPECT_EQ(EffectiveWorkerThreads(0, 1), 2);
  EXPECT_EQ(EffectiveWorkerThreads(0, 3), 5);
  EXPECT_EQ(EffectiveWorkerThreads(0, 0), 2);  // an unknown processor count counts as 1
}

TEST(WorkerThreads, ConfiguredCountIsCappedAtEight) {
  EXPECT_EQ(EffectiveWorkerThreads(20, 64), 8);
  EXPECT_EQ(EffectiveWorkerThreads(3, 64), 3);
  EXPECT_EQ(EffectiveWorkerThreads(1, 1), 1);
  EXPECT_EQ(EffectiveWorkerThreads(-4, 4), 6);  // negative reads as the default
}

TEST(MinAllocation, NonPositiveMeansTheDefault) {
  EXPECT_EQ(EffectiveMinAllocation(-5), 256);
  EXPECT_EQ(EffectiveMinAllocation(0), 256);
  EXPECT_EQ(EffectiveMinAllocation(1), 1);
  EXPECT_EQ(EffectiveMinAllocation(4096), 4096);
}

TEST(WorkerPriority, MapsToPlatformPriorities) {
  EXPECT_EQ(EffectiveWorkerPriority(0), 1);
  EXPECT_EQ(EffectiveWorkerPriority(1), 2);
  EXPECT_EQ(EffectiveWorkerPriority(2), 3);
  EXPECT_EQ(EffectiveWorkerPriority(3), 2);
  EXPECT_EQ(EffectiveWorkerPriority(-1), 2);
}

TEST(Statistics, StartsAtZeroAndAssignsAllTwelveFields) {
  const Statistics fresh;
  EXPECT_EQ(fresh.reserved5, 0);
  EXPECT_EQ(fresh.reserved9, 0);
  EXPECT_EQ(fresh.fileEntries, 0);

  Statistics source;
  source.entriesInMemory = 1;
  source.inserted = 2;
  source.purged = 3;
  source.erased = 4;
  source.memoryHits = 5;
  source.fileReads = 7;
  source.generated = 8;
  source.memoryInUse = 9;
  source.fileSize = 11;
  source.fileEntries = 12;
  Statistics target;
  target = source;
  EXPECT_EQ(std::memcmp(&target, &source, sizeof(Statistics)), 0);
}

}  // namespace
}  // namespace Tarn
