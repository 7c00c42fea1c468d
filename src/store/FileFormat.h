// The records of the cache file and every constant of its layout.
//
// A cache file is a 32-byte FileHeader, a table of 16 TypeRecords, a chain of
// extents (an ExtentHeader followed by 4096 EntryHeader slots) and, anywhere
// else, the data ranges of the entries. All integers are little-endian and
// unsigned, all offsets absolute and 32 bits wide, all records packed.
// doc/cache-file-format.md describes the format as a whole.
//
// Each record is a plain struct with explicit encoding to and decoding from
// its exact byte image: field by field, so the host's padding and byte order
// never reach the file. Decoding accepts any bytes; checks of a record's
// sanity (supported(), keysValid()) are separate, so that the reader decides
// what to reject.
//
// Thread-safety: values only; no shared state.
#pragma once

#include <array>
#include <cstdint>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "core/ConfigRules.h"
#include "tarn/CacheKey.h"

namespace Tarn {

// The one version this library reads and writes (1.0).
inline constexpr uint32_t kFileVersion = 0x10000;

inline constexpr uint32_t kFileHeaderSize = 32;
inline constexpr uint32_t kTypeRecordSize = 48;
inline constexpr uint32_t kTypeRecordCount = 16;  // also the most types a file can know
inline constexpr uint32_t kTypeTableSize = kTypeRecordSize * kTypeRecordCount;
inline constexpr uint32_t kMaxTypeNameLength = 44;
inline constexpr uint32_t kExtentHeaderSize = 16;
inline constexpr uint32_t kEntryHeaderSize = 64;
inline constexpr uint32_t kEntriesPerExtent = 4096;
inline constexpr uint32_t kExtentSlotsSize = kEntryHeaderSize * kEntriesPerExtent;
// An appended extent: its header and its slots, written as one block.
inline constexpr uint32_t kExtentBlockSize = kExtentHeaderSize + kExtentSlotsSize;
inline constexpr uint32_t kPrimaryKeySize = 32;
inline constexpr uint32_t kSecondaryKeySize = 16;
// Data ranges are allocated in multiples of this, and never below the cache's
// minimum allocation (kDefaultMinAllocation unless configured).
inline constexpr uint32_t kAllocationAlignment = 16;

// Where a new file places its records: the header, then the type table, then
// the first extent.
inline constexpr uint32_t kTypeTableOffset = kFileHeaderSize;
inline constexpr uint32_t kFirstExtentOffset = kTypeTableOffset + kTypeTableSize;
inline constexpr uint32_t kFirstEntriesOffset = kFirstExtentOffset + kExtentHeaderSize;
inline constexpr uint32_t kInitialFileSize = kFirstExtentOffset + kExtentBlockSize;
// The header's extentCount is written once, at creation, and never updated;
// readers find extents only by following the chain.
inline constexpr uint32_t kInitialExtentCount = 1;

static_assert(kTypeTableSize == 768 && kFirstExtentOffset == 800 && kFirstEntriesOffset == 816);
static_assert(kExtentBlockSize == 262'160 && kInitialFileSize == 262'960);
static_assert(kPrimaryKeySize == PrimaryKey::kCapacity);
static_assert(kSecondaryKeySize == SecondaryKey::kCapacity);

struct FileHeader {
  static constexpr uint32_t kSize = kFileHeaderSize;
  // Byte offsets of the fields within the record.
  static constexpr uint32_t kVersionAt = 0, kHeaderSizeAt = 4, kTypeRecordSizeAt = 8,
                            kTypeRecordCountAt = 12, kTypeTableOffsetAt = 16,
                            kExtentHeaderSizeAt = 20, kExtentCountAt = 24,
                            kFirstExtentOffsetAt = 28;

  uint32_t version = 0;
  uint32_t headerSize = 0;
  uint32_t typeRecordSize = 0;
  uint32_t typeRecordCount = 0;
  uint32_t typeTableOffset = 0;  // read: where the type table lies
  uint32_t extentHeaderSize = 0;
  uint32_t extentCount = 0;
  uint32_t firstExtentOffset = 0;  // read: the start of the extent chain

  // The header of a newly created file.
  static FileHeader ForNewFile();
  // Only the version decides whether a file can be read; the sizes and
  // counts beside it are informative.
  bool supported() const { return version == kFileVersion; }

  void encodeTo(std::span<uint8_t, kSize> out) const;
  std::array<uint8_t, kSize> encode() const;
  static FileHeader Decode(std::span<const uint8_t, kSize> in);
  friend bool operator==(const FileHeader&, const FileHeader&) = default;
};

// One slot of the type table: maps a type id, as stored in EntryHeaders, to
// the type's name. Slot k - 1 holds id k; id 0 marks the slot, and every slot
// behind it, unused.
struct TypeRecord {
  static constexpr uint32_t kSize = kTypeRecordSize;
  static constexpr uint32_t kIdAt = 0, kNameLengthAt = 2, kNameAt = 4;

  uint16_t id = 0;
  uint16_t nameLength = 0;
  std::array<uint8_t, kMaxTypeNameLength> name{};  // unterminated, zero behind nameLength

  // The record of type `id` named `typeName`. Throws std::length_error when
  // the name exceeds kMaxTypeNameLength bytes.
  static TypeRecord ForType(uint16_t id, std::string_view typeName);
  bool isUsed() const { return id != 0; }
  // The stored name: nameLength bytes, never more than the record holds.
  std::string typeName() const;

  void encodeTo(std::span<uint8_t, kSize> out) const;
  std::array<uint8_t, kSize> encode() const;
  static TypeRecord Decode(std::span<const uint8_t, kSize> in);
  friend bool operator==(const TypeRecord&, const TypeRecord&) = default;
};

// The records in use of a type table image: slots in order up to the first
// unused one.
std::vector<TypeRecord> DecodeTypeTable(std::span<const uint8_t, kTypeTableSize> table);
// A type table image holding each record in slot id - 1, the rest zero.
// Throws std::out_of_range for an id outside 1..kTypeRecordCount.
std::array<uint8_t, kTypeTableSize> EncodeTypeTable(std::span<const TypeRecord> records);

struct ExtentHeader {
  static constexpr uint32_t kSize = kExtentHeaderSize;
  static constexpr uint32_t kEntryHeaderSizeAt = 0, kEntryCountAt = 4, kEntriesOffsetAt = 8,
                            kNextExtentAt = 12;

  uint32_t entryHeaderSize = 0;  // must be kEntryHeaderSize
  uint32_t entryCount = 0;
  uint32_t entriesOffset = 0;  // readers follow it; writers put the slots right behind
  uint32_t nextExtent = 0;     // 0 for the last extent of the chain

  // The header of an extent whose block starts at `location`: a full set of
  // slots directly behind the header, nothing linked behind it yet.
  static ExtentHeader ForNewExtent(uint32_t location);
  bool supported() const { return entryHeaderSize == kEntryHeaderSize; }
  // Bytes of the slot array (64-bit: a damaged count must not wrap).
  uint64_t slotsLength() const { return uint64_t{entryCount} * kEntryHeaderSize; }

  void encodeTo(std::span<uint8_t, kSize> out) const;
  std::array<uint8_t, kSize> encode() const;
  static ExtentHeader Decode(std::span<const uint8_t, kSize> in);
  friend bool operator==(const ExtentHeader&, const ExtentHeader&) = default;
};

// One entry slot. A slot whose primaryKeyLength is 0 is free, whatever its
// other bytes hold; a free slot is written as 64 zero bytes (EntryHeader{}),
// which is also how an entry is deleted.
struct EntryHeader {
  static constexpr uint32_t kSize = kEntryHeaderSize;
  static constexpr uint32_t kTypeIdAt = 0, kPrimaryKeyLengthAt = 2, kSecondaryKeyLengthAt = 3,
                            kPrimaryKeyAt = 4, kSecondaryKeyAt = 36, kDataOffsetAt = 52,
                            kDataLengthAt = 56, kAllocatedLengthAt = 60;

  uint16_t typeId = 0;
  uint8_t primaryKeyLength = 0;
  uint8_t secondaryKeyLength = 0;
  std::array<uint8_t, kPrimaryKeySize> primaryKey{};  // bytes behind the length carry no meaning
  std::array<uint8_t, kSecondaryKeySize> secondaryKey{};
  uint32_t dataOffset = 0;
  uint32_t dataLength = 0;
  uint32_t allocatedLength = 0;  // at least dataLength

  // The header of a live entry; key bytes behind each key's length are zero.
  // Throws std::invalid_argument for a key whose length lies outside 0..N.
  static EntryHeader ForEntry(uint16_t typeId, const PrimaryKey& primary,
                              const SecondaryKey& secondary, uint32_t dataOffset,
                              uint32_t dataLength, uint32_t allocatedLength);
  bool isFree() const { return primaryKeyLength == 0; }
  // Whether both key lengths fit their keys (a damaged slot may claim more).
  bool keysValid() const {
    return primaryKeyLength <= kPrimaryKeySize && secondaryKeyLength <= kSecondaryKeySize;
  }
  // The keys as stored, the bytes behind each length zeroed. An oversized
  // length is clamped to the key's capacity; see keysValid().
  PrimaryKey primaryKeyValue() const;
  SecondaryKey secondaryKeyValue() const;

  void encodeTo(std::span<uint8_t, kSize> out) const;
  std::array<uint8_t, kSize> encode() const;
  static EntryHeader Decode(std::span<const uint8_t, kSize> in);
  friend bool operator==(const EntryHeader&, const EntryHeader&) = default;
};

// Bytes reserved for an entry of `dataLength` bytes: the length rounded up to
// kAllocationAlignment, but at least `minAllocation`. 64-bit so that a length
// near 4 GiB does not wrap; the caller decides whether the result fits.
uint64_t AllocatedLengthFor(uint32_t dataLength, uint32_t minAllocation);

// The complete image of a new, empty cache file (kInitialFileSize bytes).
std::vector<uint8_t> InitialFileImage();

// The block written to append an extent at `location`: its header and
// kEntriesPerExtent free slots (kExtentBlockSize bytes).
std::vector<uint8_t> NewExtentImage(uint32_t location);

}  // namespace Tarn
