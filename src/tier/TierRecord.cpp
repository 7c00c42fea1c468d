#include "tier/TierRecord.h"

#include <cstring>

#include "core/Crc32c.h"
#include "store/LittleEndian.h"

namespace Tarn {
namespace {

void AppendLengthPrefixed(std::string& out, std::string_view field) {
  out.push_back(static_cast<char>(static_cast<uint8_t>(field.size())));
  out.append(field);
}

const uint8_t* Bytes(std::string_view text) {
  return reinterpret_cast<const uint8_t*>(text.data());
}

// The checksum covers the header before its own field and everything after
// the header.
uint32_t RecordChecksum(std::string_view record) {
  const uint32_t head = Crc32c(Bytes(record), kTierRecordChecksumOffset);
  return Crc32c(Bytes(record) + kTierRecordHeaderSize, record.size() - kTierRecordHeaderSize, head);
}

}  // namespace

std::string TierKey(std::string_view keyNamespace, std::string_view type,
                    const PrimaryKey& primaryKey) {
  std::string key;
  key.reserve(3 + keyNamespace.size() + type.size() + static_cast<size_t>(primaryKey.length));
  AppendLengthPrefixed(key, keyNamespace);
  AppendLengthPrefixed(key, type);
  AppendLengthPrefixed(key, std::string_view(reinterpret_cast<const char*>(primaryKey.data),
                                             static_cast<size_t>(primaryKey.length)));
  return key;
}

size_t TierRecordSize(std::string_view key, std::string_view type, const SecondaryKey& secondaryKey,
                      uint32_t length) {
  return kTierRecordHeaderSize + type.size() + static_cast<size_t>(secondaryKey.length) +
         key.size() + length;
}

std::string EncodeTierRecord(std::string_view key, std::string_view type,
                             const SecondaryKey& secondaryKey, const uint8_t* payload,
                             uint32_t length) {
  const size_t secondaryLength = static_cast<size_t>(secondaryKey.length);
  std::string record(kTierRecordHeaderSize, '\0');
  uint8_t* header = reinterpret_cast<uint8_t*>(record.data());
  PutU32(header, kTierRecordMagic);
  PutU16(header + 4, kTierRecordVersion);
  header[6] = static_cast<uint8_t>(type.size());
  header[7] = static_cast<uint8_t>(secondaryLength);
  PutU16(header + 8, static_cast<uint16_t>(key.size()));
  PutU32(header + 12, length);
  record.reserve(TierRecordSize(key, type, secondaryKey, length));
  record.append(type);
  record.append(reinterpret_cast<const char*>(secondaryKey.data), secondaryLength);
  record.append(key);
  record.append(reinterpret_cast<const char*>(payload), length);
  PutU32(reinterpret_cast<uint8_t*>(record.data()) + kTierRecordChecksumOffset,
         RecordChecksum(record));
  return record;
}

TierRecordCheck CheckTierRecord(std::string_view value, std::string_view key, std::string_view type,
                                TierRecordView& view) {
  if (value.size() < kTierRecordHeaderSize) return TierRecordCheck::TooShort;
  const uint8_t* header = Bytes(value);
  if (GetU32(header) != kTierRecordMagic) return TierRecordCheck::Foreign;
  if (GetU16(header + 4) != kTierRecordVersion) return TierRecordCheck::UnknownVersion;
  const size_t typeLength = header[6];
  const size_t secondaryLength = header[7];
  const size_t keyLength = GetU16(header + 8);
  const size_t payloadLength = GetU32(header + 12);
  if (typeLength == 0 || typeLength > kMaxTierTypeName ||
      secondaryLength > static_cast<size_t>(SecondaryKey::kCapacity) || GetU16(header + 10) != 0 ||
      value.size() - kTierRecordHeaderSize !=
          uint64_t{typeLength} + secondaryLength + keyLength + payloadLength) {
    return TierRecordCheck::BadLength;
  }
  if (GetU32(header + kTierRecordChecksumOffset) != RecordChecksum(value)) {
    return TierRecordCheck::Corrupted;
  }
  size_t at = kTierRecordHeaderSize;
  if (value.substr(at, typeLength) != type) return TierRecordCheck::WrongType;
  at += typeLength;
  const std::string_view secondary = value.substr(at, secondaryLength);
  at += secondaryLength;
  if (value.substr(at, keyLength) != key) return TierRecordCheck::WrongKey;
  at += keyLength;
  view.secondaryKey = SecondaryKey{};
  view.secondaryKey.length = static_cast<int32_t>(secondaryLength);
  std::memcpy(view.secondaryKey.data, secondary.data(), secondaryLength);
  view.payload = value.substr(at);
  return TierRecordCheck::Valid;
}

}  // namespace Tarn
