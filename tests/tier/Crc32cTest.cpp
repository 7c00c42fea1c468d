// CRC-32C against published check values, and the eight-byte steps against
// a bit-at-a-time reference over every length and alignment.
#include "core/Crc32c.h"

#include <gtest/gtest.h>

#include <cstring>
#include <numeric>
#include <string>
#include <vector>

namespace {

uint32_t Crc(const std::vector<uint8_t>& bytes) {
  return Tarn::Crc32c(bytes.data(), bytes.size());
}

// The definition, one bit at a time.
uint32_t Reference(const uint8_t* data, size_t length) {
  uint32_t crc = 0xFFFFFFFF;
  for (size_t i = 0; i < length; ++i) {
    crc ^= data[i];
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? 0x82F63B78 : 0);
  }
  return ~crc;
}

TEST(Crc32cTest, KnownVectors) {
  const std::string check = "123456789";
  EXPECT_EQ(Tarn::Crc32c(reinterpret_cast<const uint8_t*>(check.data()), check.size()),
            0xE3069283u);
  EXPECT_EQ(Tarn::Crc32c(nullptr, 0), 0u);
  // iSCSI's test patterns (RFC 3720, B.4).
  EXPECT_EQ(Crc(std::vector<uint8_t>(32, 0x00)), 0x8A9136AAu);
  EXPECT_EQ(Crc(std::vector<uint8_t>(32, 0xFF)), 0x62A8AB43u);
  std::vector<uint8_t> ascending(32);
  std::iota(ascending.begin(), ascending.end(), uint8_t{0});
  EXPECT_EQ(Crc(ascending), 0x46DD794Eu);
  std::vector<uint8_t> descending(ascending.rbegin(), ascending.rend());
  EXPECT_EQ(Crc(descending), 0x113FDB5Cu);
}

TEST(Crc32cTest, EveryLengthAndAlignmentMatchesTheBitwiseDefinition) {
  std::vector<uint8_t> bytes(100);
  for (size_t i = 0; i < bytes.size(); ++i) bytes[i] = static_cast<uint8_t>(i * 37 + 11);
  for (size_t offset = 0; offset < 8; ++offset) {
    for (size_t length = 0; offset + length <= bytes.size(); ++length) {
      ASSERT_EQ(Tarn::Crc32c(bytes.data() + offset, length),
                Reference(bytes.data() + offset, length))
          << "offset " << offset << " length " << length;
    }
  }
}

TEST(Crc32cTest, ContinuingAcrossCallsEqualsOneCall) {
  const std::string text = "The quick brown fox jumps over the lazy dog, twice over";
  const auto* data = reinterpret_cast<const uint8_t*>(text.data());
  const uint32_t whole = Tarn::Crc32c(data, text.size());
  for (size_t split = 0; split <= text.size(); ++split) {
    EXPECT_EQ(Tarn::Crc32c(data + split, text.size() - split, Tarn::Crc32c(data, split)), whole)
        << "split at " << split;
  }
}

}  // namespace
