#include "core/Crc32c.h"

#include <array>

namespace Tarn {
namespace {

constexpr uint32_t kPolynomial = 0x82F63B78;  // 0x1EDC6F41 bit-reversed

using Tables = std::array<std::array<uint32_t, 256>, 8>;

// tables[0] is the byte-wise table; tables[k][b] is the CRC of byte b
// followed by k zero bytes, which lets one step fold eight bytes at once.
constexpr Tables MakeTables() {
  Tables tables{};
  for (uint32_t byte = 0; byte < 256; ++byte) {
    uint32_t crc = byte;
    for (int bit = 0; bit < 8; ++bit) crc = (crc >> 1) ^ ((crc & 1) ? kPolynomial : 0);
    tables[0][byte] = crc;
  }
  for (uint32_t byte = 0; byte < 256; ++byte) {
    for (size_t k = 1; k < 8; ++k) {
      const uint32_t previous = tables[k - 1][byte];
      tables[k][byte] = (previous >> 8) ^ tables[0][previous & 0xFF];
    }
  }
  return tables;
}

constexpr Tables kTables = MakeTables();

// Eight bytes read as two little-endian words, whatever the host's order.
uint32_t Word(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

uint32_t Crc32c(const uint8_t* data, size_t length, uint32_t crc) {
  crc = ~crc;
  while (length >= 8) {
    const uint32_t low = Word(data) ^ crc;
    const uint32_t high = Word(data + 4);
    crc = kTables[7][low & 0xFF] ^ kTables[6][(low >> 8) & 0xFF] ^ kTables[5][(low >> 16) & 0xFF] ^
          kTables[4][low >> 24] ^ kTables[3][high & 0xFF] ^ kTables[2][(high >> 8) & 0xFF] ^
          kTables[1][(high >> 16) & 0xFF] ^ kTables[0][high >> 24];
    data += 8;
    length -= 8;
  }
  while (length-- > 0) crc = (crc >> 8) ^ kTables[0][(crc ^ *data++) & 0xFF];
  return ~crc;
}

}  // namespace Tarn
