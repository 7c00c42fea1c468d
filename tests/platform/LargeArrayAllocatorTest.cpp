// The allocator of the big flat tables: blocks past the threshold are their
// own 2 MiB-aligned mappings, smaller ones come from the heap, and a vector
// keeps its elements across growth from one kind to the other.
#include "platform/LargeArrayAllocator.h"

#include <cstdint>
#include <numeric>

#include <gtest/gtest.h>

namespace {

TEST(LargeArrayAllocator, BigBlocksAreHugePageAlignedAndGrowthKeepsTheElements) {
  Pt::LargeArray<uint64_t> values;
  const size_t count = 3 * Pt::kHugePageSize / sizeof(uint64_t) + 5;  // not whole huge pages
  for (uint64_t i = 0; i < count; ++i) values.push_back(i * 7);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(values.data()) % Pt::kHugePageSize, 0u);
  for (uint64_t i = 0; i < count; ++i) ASSERT_EQ(values[i], i * 7) << i;
  values.resize(10);
  values.shrink_to_fit();  // back below the threshold: a heap block
  EXPECT_EQ(std::accumulate(values.begin(), values.end(), uint64_t{0}), 7u * 45);
}

TEST(LargeArrayAllocator, EveryByteOfABigBlockIsUsableUpToItsEnd) {
  Pt::LargeArrayAllocator<uint8_t> allocator;
  const size_t bytes = Pt::kHugeThreshold + 12345;
  uint8_t* block = allocator.allocate(bytes);
  block[0] = 1;
  block[bytes - 1] = 2;
  EXPECT_EQ(block[0] + block[bytes - 1], 3);
  allocator.deallocate(block, bytes);
  EXPECT_THROW((void)allocator.allocate(SIZE_MAX), std::bad_alloc);
}

}  // namespace
