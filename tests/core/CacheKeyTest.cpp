#include "tarn/CacheKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

namespace Tarn {
namespace {

PrimaryKey Key(std::initializer_list<uint8_t> bytes, uint8_t filler = 0) {
  PrimaryKey key;
  std::fill(std::begin(key.data), std::end(key.data), filler);
  key.length = static_cast<int32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), key.data);
  return key;
}

TEST(CacheKeyOrder, ShorterKeySortsFirstWhateverItsBytes) {
  const PrimaryKey shortHigh = Key({0xFF, 0xFF});
  const PrimaryKey longLow = Key({0x00, 0x00, 0x00});
  EXPECT_TRUE(shortHigh < longLow);
  EXPECT_FALSE(longLow < shortHigh);
  EXPECT_FALSE(shortHigh == longLow);
}

TEST(CacheKeyOrder, EqualLengthsCompareBytesAsUnsigned) {
  // 0x80 would sort below 0x7F if bytes were compared as signed chars.
  EXPECT_TRUE(Key({0x01, 0x7F}) < Key({0x01, 0x80}));
  EXPECT_FALSE(Key({0x01, 0x80}) < Key({0x01, 0x7F}));
  EXPECT_TRUE(Key({0x00, 0xFF}) < Key({0x01, 0x00}));
}

TEST(CacheKeyOrder, BytesBeyondLengthNeverCount) {
  const PrimaryKey a = Key({1, 2, 3}, 0x00);
  const PrimaryKey b = Key({1, 2, 3}, 0xEE);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a < b);
  EXPECT_FALSE(b < a);
}

TEST(CacheKeyOrder, EmptyKeysAreAllEqual) {
  const PrimaryKey a = Key({}, 0x11);
  const PrimaryKey b = Key({}, 0x99);
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a < b || b < a);
  EXPECT_TRUE(a < Key({0x00}));
}

TEST(CacheKeyOrder, InvalidLengthNeverReadsPastTheKey) {
  // A damaged length larger than the key compares its whole array only; the
  // address sanitizer would flag a read beyond it.
  PrimaryKey a = Key({}, 0x42);
  PrimaryKey b = Key({}, 0x42);
  a.length = b.length = 1000;
  EXPECT_TRUE(a == b);
  EXPECT_FALSE(a < b);
}

TEST(CacheKeyBuild, FromBytesCopiesAndZeroesTheRest) {
  const uint8_t bytes[] = {7, 8, 9};
  const SecondaryKey key = SecondaryKey::FromBytes(bytes, 3);
  EXPECT_EQ(key.length, 3);
  EXPECT_EQ(key.data[2], 9);
  EXPECT_TRUE(std::all_of(key.data + 3, key.data + 16, [](uint8_t b) { return b == 0; }));
  EXPECT_EQ(PrimaryKey::FromString("abc").view(), "abc");
}

TEST(CacheKeyBuild, RejectsLengthsOutsideTheKey) {
  const uint8_t bytes[40] = {};
  EXPECT_NO_THROW(PrimaryKey::FromBytes(bytes, 32));
  EXPECT_THROW(PrimaryKey::FromBytes(bytes, 33), std::length_error);
  EXPECT_THROW(SecondaryKey::FromBytes(bytes, 17), std::length_error);
  EXPECT_THROW(PrimaryKey::FromBytes(bytes, -1), std::length_error);
  EXPECT_THROW(SecondaryKey::FromString("seventeen bytes!!"), std::length_error);
  EXPECT_THROW(PrimaryKey::FromBytes(nullptr, 1), std::invalid_argument);
  EXPECT_EQ(PrimaryKey::FromBytes(nullptr, 0).length, 0);
}

}  // namespace
}  // namespace Tarn
