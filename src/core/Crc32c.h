// CRC-32C (Castagnoli, reflected polynomial 0x82F63B78), the checksum of the
// records this library stores in a shared tier.
//
// Computed in software, eight bytes per step (slice-by-8) with tables built
// once at compile time. Crc32c("123456789") is 0xE3069283.
//
// Thread-safety: a pure function.
#pragma once

#include <cstddef>
#include <cstdint>

namespace Tarn {

// The CRC-32C of `length` bytes at `data`, continuing from `crc` (the result
// of a previous call over the bytes before them; 0 to start).
uint32_t Crc32c(const uint8_t* data, size_t length, uint32_t crc = 0);

}  // namespace Tarn
