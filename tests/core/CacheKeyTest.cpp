#include "tarn/CacheKey.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>

namespace Tarn {
namespace {

// A key of `bytes`, the rest of its array filled with `filler`.
PrimaryKey Key(std::initializer_list<uint8_t> bytes, uint8_t filler = 0) {
  PrimaryKey key;
  std::fill(std::begin(key.data), std::end(key.data), filler);
  key.length = static_cast<int32_t>(bytes.size());
  std::copy(bytes.begin(), bytes.end(), key.data);
  return key;
}

// Keys order by length first, then by their bytes as unsigned values; bytes
// beyond the length never count.
TEST(CacheKey, OrderIsLengthFirstThenUnsignedBytes) {
  const struct {
    PrimaryKey lower, higher;
    bool equal;
  } kCases[] = {
      {Key({0xFF, 0xFF}), Key({0x00, 0x00, 0x00}), false},
      {Key({0x01, 0x7F}), Key({0x01, 0x80}), false},
      {Key({0x00, 0xFF}), Key({0x01, 0x00}), false},
      {Key({}, 0x11), Key({0x00}), false},
      {Key({1, 2, 3}, 0x00), Key({1, 2, 3}, 0xEE), true},
      {Key({}, 0x11), Key({}, 0x99), true},
  };
  for (const auto& [lower, higher, equal] : kCases) {
    EXPECT_EQ(lower < higher, !equal);
    EXPECT_FALSE(higher < lower);
    EXPECT_EQ(lower == higher, equal);
  }
  // A damaged length compares the whole array and never reads beyond it.
  PrimaryKey damaged = Key({}, 0x42);
  damaged.length = 1000;
  const PrimaryKey copy = damaged;
  EXPECT_TRUE(copy == damaged && !(copy < damaged));
}

TEST(CacheKey, FromBytesCopiesZeroesTheRestAndRejectsBadLengths) {
  const uint8_t bytes[40] = {7, 8, 9};
  const SecondaryKey key = SecondaryKey::FromBytes(bytes, 2);
  EXPECT_EQ(key.view(), std::string_view("\x07\x08"));
  EXPECT_TRUE(std::all_of(key.data + 2, key.data + 16, [](uint8_t b) { return b == 0; }));
  EXPECT_NO_THROW(PrimaryKey::FromBytes(bytes, 32));
  EXPECT_THROW(PrimaryKey::FromBytes(bytes, 33), std::length_error);
  EXPECT_THROW(SecondaryKey::FromBytes(bytes, 17), std::length_error);
  EXPECT_THROW(PrimaryKey::FromBytes(bytes, -1), std::length_error);
  EXPECT_THROW(PrimaryKey::FromBytes(nullptr, 1), std::invalid_argument);
  EXPECT_EQ(PrimaryKey::FromBytes(nullptr, 0).length, 0);
}

}  // namespace
}  // namespace Tarn
