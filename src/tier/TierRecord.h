// TierRecord: the bytes this library stores in a shared tier.
//
// Key: the namespace, the type name and the primary key, each preceded by
// its length in one byte. The tier maps this to its own key rules (it may
// hash it).
//
// Value: a 20-byte header, then the type name, the secondary key, the key
// echoed in full, and the object's encoded bytes (the same bytes the cache
// file holds). Integers are little-endian:
//
//   offset  size  field
//        0     4  magic "TRTV" (0x56545254)
//        4     2  version (1)
//        6     1  type name length (1..44)
//        7     1  secondary key length (0..16)
//        8     2  key length (the key as above)
//       10     2  reserved, 0
//       12     4  payload length
//       16     4  CRC-32C of bytes 0..15 followed by every byte from 20 on
//       20        type name, secondary key, key, payload
//
// A value is taken only when it is exactly as long as its header says, its
// magic, version and checksum are right, and its type and echoed key are
// those looked up; anything else is refused and never decoded.
// doc/shared-tier-records.md describes the same with the reasons.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

#include "tarn/CacheKey.h"

namespace Tarn {

inline constexpr uint32_t kTierRecordMagic = 0x56545254;  // "TRTV" in file order
inline constexpr uint16_t kTierRecordVersion = 1;
inline constexpr size_t kTierRecordHeaderSize = 20;
inline constexpr size_t kTierRecordChecksumOffset = 16;
inline constexpr size_t kMaxTierNamespace = 64;
inline constexpr size_t kMaxTierTypeName = 44;

// Why a value was refused.
enum class TierRecordCheck {
  Valid,
  TooShort,        // shorter than the header
  Foreign,         // wrong magic: not written by this library
  UnknownVersion,  // a version this build does not read
  BadLength,       // lengths that cannot be right, or not the value's size
  Corrupted,       // the checksum does not match
  WrongType,       // written for another type than the one looked up
  WrongKey,        // the echoed key is not the key looked up
};

// The tier key of `primaryKey` under `type` in `keyNamespace`.
std::string TierKey(std::string_view keyNamespace, std::string_view type,
                    const PrimaryKey& primaryKey);

// The value holding `payload` for `key` (made by TierKey).
std::string EncodeTierRecord(std::string_view key, std::string_view type,
                             const SecondaryKey& secondaryKey, const uint8_t* payload,
                             uint32_t length);

// The size EncodeTierRecord would give, without building it.
size_t TierRecordSize(std::string_view key, std::string_view type, const SecondaryKey& secondaryKey,
                      uint32_t length);

struct TierRecordView {
  SecondaryKey secondaryKey{};
  std::string_view payload;  // points into the value checked
};

// Checks `value` against the key and type looked up; on Valid fills `view`.
TierRecordCheck CheckTierRecord(std::string_view value, std::string_view key, std::string_view type,
                                TierRecordView& view);

}  // namespace Tarn
