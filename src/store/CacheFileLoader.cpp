#include "store/CacheFileLoader.h"

#include <algorithm>
#include <cstring>
#include <set>
#include <span>
#include <utility>

#include "core/RaiseSites.h"
#include "pt/Exception.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

[[noreturn]] void Reject(const RaiseSite& site) {
  throw ExUnsupportedFileVersion(site.where);
}

// One load: the file's state while its records are read and checked.
class LoadRun {
 public:
  LoadRun(const Pt::SyncFile& file, CacheFileLoader::Visitor& visitor)
      : file_(file), visitor_(visitor) {}

  CacheFileLoader::Summary run() {
    measureFile();
    readHeader();
    readTypeTable();
    walkExtents();
    if (!salvage_->settle()) Reject(kOpenRangesDamaged);
    summary_.gaps = salvage_->gaps(summary_.trailingBytes);
    visitExtents();
    return std::move(summary_);
  }

 private:
  void measureFile();
  void readHeader();
  void readTypeTable();
  void checkTypes(std::span<const TypeRecord> records) const;
  void walkExtents();
  std::optional<ExtentHeader> readExtentHeader(uint32_t location, bool linked);
  uint32_t loadExtent(uint32_t location, const ExtentHeader& extent);
  void collectSlots(const ExtentHeader& extent);
  void visitExtents();
  size_t visitSlots(const ExtentHeader& extent, size_t next);

  // Whether [offset, offset + length) lies inside the file.
  bool fits(uint64_t offset, uint64_t length) const {
    return offset + length <= summary_.fileLength;
  }

  const Pt::SyncFile& file_;
  CacheFileLoader::Visitor& visitor_;
  CacheFileLoader::Summary summary_;
  std::optional<EntrySalvage> salvage_;
  uint32_t typeCount_ = 0;  // the table's ids are exactly 1..typeCount_
  uint64_t slotBytes_ = 0;  // the slot arrays of the extents so far
  std::vector<std::pair<uint32_t, ExtentHeader>> extents_;  // location, header
  std::vector<uint8_t> slots_;                              // one extent's slot array, reused
};

// Offsets and lengths travel as signed 32-bit values further on, so a file
// of 2 GiB or more is refused before anything of it is read; so is one too
// short to hold its header, which no writer leaves behind.
void LoadRun::measureFile() {
  const uint64_t length = file_.length(kOpenReadHeader.where);
  if (length >= CacheFileLoader::kMaxFileSize) Reject(kOpenFileTooLarge);
  if (length < FileHeader::kSize) Reject(kOpenFileTooShort);
  summary_.fileLength = length;
  salvage_.emplace(length);
}

void LoadRun::readHeader() {
  std::array<uint8_t, FileHeader::kSize> image{};
  file_.readAt(image.data(), image.size(), 0, kOpenReadHeader.where);
  summary_.header = FileHeader::Decode(image);
  if (!summary_.header.supported()) Reject(kOpenVersion);
  salvage_->addSkeleton(0, FileHeader::kSize);
}

void LoadRun::readTypeTable() {
  const uint32_t offset = summary_.header.typeTableOffset;
  if (!fits(offset, kTypeTableSize)) Reject(kOpenTypeTableDamaged);
  std::array<uint8_t, kTypeTableSize> image{};
  file_.readAt(image.data(), image.size(), offset, kOpenReadTypeTable.where);
  salvage_->addSkeleton(offset, kTypeTableSize);
  const std::vector<TypeRecord> records = DecodeTypeTable(image);
  checkTypes(records);
  typeCount_ = static_cast<uint32_t>(records.size());
  for (const TypeRecord& record : records) visitor_.onType(record);
}

// The records in use must hold ids 1, 2, 3... in slot order, names that fit
// their field, and no name twice: entries refer to types by id and the open
// matches factories to types by name, so either ambiguity would mix types.
void LoadRun::checkTypes(std::span<const TypeRecord> records) const {
  for (size_t slot = 0; slot < records.size(); ++slot) {
    const TypeRecord& record = records[slot];
    if (record.id != slot + 1 || record.nameLength > kMaxTypeNameLength) {
      Reject(kOpenTypeTableDamaged);
    }
    for (size_t earlier = 0; earlier < slot; ++earlier) {
      const TypeRecord& other = records[earlier];
      if (other.nameLength == record.nameLength &&
          std::memcmp(other.name.data(), record.name.data(), record.nameLength) == 0) {
        Reject(kOpenTypeTableDamaged);
      }
    }
  }
}

// Follows the chain from the header's first extent until a zero link, or a
// link to bytes that are no extent header: a crash can leave a link whose
// extent never reached the disk, and the extents before it are sound. A
// location met twice would make the walk endless, so it rejects the file.
void LoadRun::walkExtents() {
  std::set<uint32_t> visited;
  uint32_t location = summary_.header.firstExtentOffset;
  bool linked = false;
  do {
    if (!visited.insert(location).second) Reject(kOpenExtentChainDamaged);
    const std::optional<ExtentHeader> extent = readExtentHeader(location, linked);
    if (!extent) {
      summary_.chainCutAt = extents_.back().first;
      return;
    }
    location = loadExtent(location, *extent);
    linked = true;
  } while (location != 0);
}

// The extent header at `location`, or nullopt when a linked one is not an
// extent header; the first extent of the chain is part of the skeleton and
// rejects the file instead.
std::optional<ExtentHeader> LoadRun::readExtentHeader(uint32_t location, bool linked) {
  if (!fits(location, ExtentHeader::kSize)) {
    if (linked) return std::nullopt;
    Reject(kOpenExtentChainDamaged);
  }
  std::array<uint8_t, ExtentHeader::kSize> image{};
  file_.readAt(image.data(), image.size(), location, kOpenReadExtentHeader.where);
  const ExtentHeader extent = ExtentHeader::Decode(image);
  if (!extent.supported()) {
    if (linked) return std::nullopt;
    Reject(kOpenEntryHeaderSize);
  }
  if (!fits(extent.entriesOffset, extent.slotsLength())) {
    if (linked) return std::nullopt;
    Reject(kOpenExtentChainDamaged);
  }
  return extent;
}

// Reads one extent's slots; returns the location of the next extent.
uint32_t LoadRun::loadExtent(uint32_t location, const ExtentHeader& extent) {
  // Slot arrays may not overlap, so together they fit the file. Checked
  // before the slots are read, so that a chain of extents that share their
  // slots cannot make the load read the same bytes over and over.
  slotBytes_ += extent.slotsLength();
  if (slotBytes_ > summary_.fileLength) Reject(kOpenExtentChainDamaged);
  const auto length = static_cast<size_t>(extent.slotsLength());
  if (slots_.size() < length) slots_.resize(length);
  if (length > 0) {
    file_.readAt(slots_.data(), length, extent.entriesOffset, kOpenReadEntryHeaders.where);
  }
  salvage_->addSkeleton(location, ExtentHeader::kSize);
  salvage_->addSkeleton(extent.entriesOffset, length);
  extents_.emplace_back(location, extent);
  collectSlots(extent);
  return extent.nextExtent;
}

// Most slots of a large file are either free or live entries that pass
// every check, so the free test reads one byte and only a live slot is
// decoded and checked.
void LoadRun::collectSlots(const ExtentHeader& extent) {
  const uint8_t* slot = slots_.data();
  uint32_t slotOffset = extent.entriesOffset;
  salvage_->reserveSlots(extent.entryCount);
  for (uint32_t i = 0; i < extent.entryCount; ++i) {
    if (slot[EntryHeader::kPrimaryKeyLengthAt] != 0) {
      const EntryHeader entry =
          EntryHeader::Decode(std::span<const uint8_t, kEntryHeaderSize>(slot, kEntryHeaderSize));
      salvage_->addSlot(slotOffset, entry, CheckEntry(entry, typeCount_, summary_.fileLength));
    }
    slot += kEntryHeaderSize;
    slotOffset += kEntryHeaderSize;
  }
}

// Visits the extents in chain order with their slots, now that each live
// slot's fate is known, and counts what the summary reports.
void LoadRun::visitExtents() {
  summary_.extentCount = static_cast<uint32_t>(extents_.size());
  const Pt::LargeArray<EntrySalvage::Slot>& live = salvage_->slots();
  visitor_.onEntryCount(static_cast<uint32_t>(std::count_if(
      live.begin(), live.end(), [](const EntrySalvage::Slot& slot) { return !slot.dropped; })));
  size_t next = 0;  // the next live-looking slot, in chain and slot order
  for (const auto& [location, extent] : extents_) {
    visitor_.onExtent(extent, location);
    next = visitSlots(extent, next);
  }
}

size_t LoadRun::visitSlots(const ExtentHeader& extent, size_t next) {
  const Pt::LargeArray<EntrySalvage::Slot>& live = salvage_->slots();
  uint32_t slotOffset = extent.entriesOffset;
  for (uint32_t i = 0; i < extent.entryCount; ++i, slotOffset += kEntryHeaderSize) {
    if (next == live.size() || live[next].offset != slotOffset) {
      ++summary_.freeSlots;
      visitor_.onFreeSlot(slotOffset);
      continue;
    }
    const EntrySalvage::Slot& slot = live[next++];
    if (slot.dropped) {
      ++summary_.droppedEntries;
      visitor_.onDroppedEntry(slotOffset, slot.header, *slot.dropped);
    } else {
      ++summary_.liveEntries;
      summary_.dataBytes += slot.header.dataLength;
      summary_.allocatedBytes += slot.header.allocatedLength;
      visitor_.onEntry(slotOffset, slot.header);
    }
  }
  return next;
}

}  // namespace

CacheFileLoader::Summary CacheFileLoader::Load(const Pt::SyncFile& file, Visitor& visitor) {
  return LoadRun(file, visitor).run();
}

}  // namespace Tarn
