#include "store/FileFormat.h"

#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "store/LittleEndian.h"

namespace Tarn {
namespace {

// Copies a key's significant bytes into a stored key field, zero behind them.
template <int N, size_t M>
uint8_t StoreKey(const CacheKey<N>& key, std::array<uint8_t, M>& field) {
  static_assert(M == N);
  if (key.length < 0 || key.length > N) {
    throw std::invalid_argument("EntryHeader: key length outside its capacity");
  }
  field.fill(0);
  std::memcpy(field.data(), key.data, static_cast<size_t>(key.length));
  return static_cast<uint8_t>(key.length);
}

// Rebuilds a key from a stored length and field, clamping a damaged length.
template <size_t M>
CacheKey<static_cast<int>(M)> LoadKey(uint8_t length, const std::array<uint8_t, M>& field) {
  const int32_t used = std::min<int32_t>(length, static_cast<int32_t>(M));
  return CacheKey<static_cast<int>(M)>::FromBytes(field.data(), used);
}

}  // namespace

FileHeader FileHeader::ForNewFile() {
  return FileHeader{kFileVersion,     kFileHeaderSize,   kTypeRecordSize,     kTypeRecordCount,
                    kTypeTableOffset, kExtentHeaderSize, kInitialExtentCount, kFirstExtentOffset};
}

void FileHeader::encodeTo(std::span<uint8_t, kSize> out) const {
  uint8_t* p = out.data();
  PutU32(p + kVersionAt, version);
  PutU32(p + kHeaderSizeAt, headerSize);
  PutU32(p + kTypeRecordSizeAt, typeRecordSize);
  PutU32(p + kTypeRecordCountAt, typeRecordCount);
  PutU32(p + kTypeTableOffsetAt, typeTableOffset);
  PutU32(p + kExtentHeaderSizeAt, extentHeaderSize);
  PutU32(p + kExtentCountAt, extentCount);
  PutU32(p + kFirstExtentOffsetAt, firstExtentOffset);
}

std::array<uint8_t, FileHeader::kSize> FileHeader::encode() const {
  std::array<uint8_t, kSize> image{};
  encodeTo(image);
  return image;
}

FileHeader FileHeader::Decode(std::span<const uint8_t, kSize> in) {
  const uint8_t* p = in.data();
  return FileHeader{GetU32(p + kVersionAt),         GetU32(p + kHeaderSizeAt),
                    GetU32(p + kTypeRecordSizeAt),  GetU32(p + kTypeRecordCountAt),
                    GetU32(p + kTypeTableOffsetAt), GetU32(p + kExtentHeaderSizeAt),
                    GetU32(p + kExtentCountAt),     GetU32(p + kFirstExtentOffsetAt)};
}

TypeRecord TypeRecord::ForType(uint16_t id, std::string_view typeName) {
  if (typeName.size() > kMaxTypeNameLength) {
    throw std::length_error("TypeRecord: type name longer than 44 bytes");
  }
  TypeRecord record;
  record.id = id;
  record.nameLength = static_cast<uint16_t>(typeName.size());
  std::memcpy(record.name.data(), typeName.data(), typeName.size());
  return record;
}

std::string TypeRecord::typeName() const {
  const size_t length = std::min<size_t>(nameLength, kMaxTypeNameLength);
  return std::string(reinterpret_cast<const char*>(name.data()), length);
}

void TypeRecord::encodeTo(std::span<uint8_t, kSize> out) const {
  uint8_t* p = out.data();
  PutU16(p + kIdAt, id);
  PutU16(p + kNameLengthAt, nameLength);
  std::memcpy(p + kNameAt, name.data(), name.size());
}

std::array<uint8_t, TypeRecord::kSize> TypeRecord::encode() const {
  std::array<uint8_t, kSize> image{};
  encodeTo(image);
  return image;
}

TypeRecord TypeRecord::Decode(std::span<const uint8_t, kSize> in) {
  const uint8_t* p = in.data();
  TypeRecord record;
  record.id = GetU16(p + kIdAt);
  record.nameLength = GetU16(p + kNameLengthAt);
  std::memcpy(record.name.data(), p + kNameAt, record.name.size());
  return record;
}

std::vector<TypeRecord> DecodeTypeTable(std::span<const uint8_t, kTypeTableSize> table) {
  std::vector<TypeRecord> records;
  for (uint32_t slot = 0; slot < kTypeRecordCount; ++slot) {
    const auto image = table.subspan(size_t{slot} * kTypeRecordSize).first<kTypeRecordSize>();
    TypeRecord record = TypeRecord::Decode(image);
    if (!record.isUsed()) break;
    records.push_back(record);
  }
  return records;
}

std::array<uint8_t, kTypeTableSize> EncodeTypeTable(std::span<const TypeRecord> records) {
  std::array<uint8_t, kTypeTableSize> table{};
  for (const TypeRecord& record : records) {
    if (record.id < 1 || record.id > kTypeRecordCount) {
      throw std::out_of_range("EncodeTypeTable: type id outside 1..16");
    }
    const uint32_t slot = record.id - 1u;
    record.encodeTo(
        std::span(table).subspan(size_t{slot} * kTypeRecordSize).first<kTypeRecordSize>());
  }
  return table;
}

ExtentHeader ExtentHeader::ForNewExtent(uint32_t location) {
  return ExtentHeader{kEntryHeaderSize, kEntriesPerExtent, location + kExtentHeaderSize, 0};
}

void ExtentHeader::encodeTo(std::span<uint8_t, kSize> out) const {
  uint8_t* p = out.data();
  PutU32(p + kEntryHeaderSizeAt, entryHeaderSize);
  PutU32(p + kEntryCountAt, entryCount);
  PutU32(p + kEntriesOffsetAt, entriesOffset);
  PutU32(p + kNextExtentAt, nextExtent);
}

std::array<uint8_t, ExtentHeader::kSize> ExtentHeader::encode() const {
  std::array<uint8_t, kSize> image{};
  encodeTo(image);
  return image;
}

ExtentHeader ExtentHeader::Decode(std::span<const uint8_t, kSize> in) {
  const uint8_t* p = in.data();
  return ExtentHeader{GetU32(p + kEntryHeaderSizeAt), GetU32(p + kEntryCountAt),
                      GetU32(p + kEntriesOffsetAt), GetU32(p + kNextExtentAt)};
}

EntryHeader EntryHeader::ForEntry(uint16_t typeId, const PrimaryKey& primary,
                                  const SecondaryKey& secondary, uint32_t dataOffset,
                                  uint32_t dataLength, uint32_t allocatedLength) {
  EntryHeader header;
  header.typeId = typeId;
  header.primaryKeyLength = StoreKey(primary, header.primaryKey);
  header.secondaryKeyLength = StoreKey(secondary, header.secondaryKey);
  header.dataOffset = dataOffset;
  header.dataLength = dataLength;
  header.allocatedLength = allocatedLength;
  return header;
}

PrimaryKey EntryHeader::primaryKeyValue() const {
  return LoadKey(primaryKeyLength, primaryKey);
}

SecondaryKey EntryHeader::secondaryKeyValue() const {
  return LoadKey(secondaryKeyLength, secondaryKey);
}

void EntryHeader::encodeTo(std::span<uint8_t, kSize> out) const {
  uint8_t* p = out.data();
  PutU16(p + kTypeIdAt, typeId);
  p[kPrimaryKeyLengthAt] = primaryKeyLength;
  p[kSecondaryKeyLengthAt] = secondaryKeyLength;
  std::memcpy(p + kPrimaryKeyAt, primaryKey.data(), primaryKey.size());
  std::memcpy(p + kSecondaryKeyAt, secondaryKey.data(), secondaryKey.size());
  PutU32(p + kDataOffsetAt, dataOffset);
  PutU32(p + kDataLengthAt, dataLength);
  PutU32(p + kAllocatedLengthAt, allocatedLength);
}

std::array<uint8_t, EntryHeader::kSize> EntryHeader::encode() const {
  std::array<uint8_t, kSize> image{};
  encodeTo(image);
  return image;
}

EntryHeader EntryHeader::Decode(std::span<const uint8_t, kSize> in) {
  const uint8_t* p = in.data();
  EntryHeader header;
  header.typeId = GetU16(p + kTypeIdAt);
  header.primaryKeyLength = p[kPrimaryKeyLengthAt];
  header.secondaryKeyLength = p[kSecondaryKeyLengthAt];
  std::memcpy(header.primaryKey.data(), p + kPrimaryKeyAt, header.primaryKey.size());
  std::memcpy(header.secondaryKey.data(), p + kSecondaryKeyAt, header.secondaryKey.size());
  header.dataOffset = GetU32(p + kDataOffsetAt);
  header.dataLength = GetU32(p + kDataLengthAt);
  header.allocatedLength = GetU32(p + kAllocatedLengthAt);
  return header;
}

uint64_t AllocatedLengthFor(uint32_t dataLength, uint32_t minAllocation) {
  const uint64_t rounded = (uint64_t{dataLength} + kAllocationAlignment - 1) /
                           kAllocationAlignment * kAllocationAlignment;
  return std::max<uint64_t>(rounded, minAllocation);
}

std::vector<uint8_t> InitialFileImage() {
  std::vector<uint8_t> image(kInitialFileSize, 0);
  FileHeader::ForNewFile().encodeTo(std::span(image).first<FileHeader::kSize>());
  ExtentHeader::ForNewExtent(kFirstExtentOffset)
      .encodeTo(std::span(image).subspan(kFirstExtentOffset).first<ExtentHeader::kSize>());
  return image;
}

std::vector<uint8_t> NewExtentImage(uint32_t location) {
  std::vector<uint8_t> image(kExtentBlockSize, 0);
  ExtentHeader::ForNewExtent(location).encodeTo(std::span(image).first<ExtentHeader::kSize>());
  return image;
}

}  // namespace Tarn
