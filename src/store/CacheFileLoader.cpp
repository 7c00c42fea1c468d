#include "store/CacheFileLoader.h"

#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
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

// Reads exactly `length` bytes at `offset`, or throws Pt::ExSystem at `site`.
// A file that ends first is an I/O error (EIO): errno says nothing then.
void ReadAt(int fd, uint8_t* out, size_t length, uint64_t offset, const RaiseSite& site) {
  while (length > 0) {
    const ssize_t got = ::pread(fd, out, length, static_cast<off_t>(offset));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) throw Pt::ExSystem(errno != 0 ? errno : EIO, site.where);
    if (got == 0) throw Pt::ExSystem(EIO, site.where);
    out += got;
    length -= static_cast<size_t>(got);
    offset += static_cast<uint64_t>(got);
  }
}

// A claimed range packed as offset << 32 | length, so that sorting plain
// integers orders the ranges by offset (and equal offsets by length): a
// file of a million entries sorts a million words, not a million structs.
uint64_t PackRange(uint32_t offset, uint64_t length) {
  return (uint64_t{offset} << 32) | length;
}
uint64_t RangeBegin(uint64_t packed) {
  return packed >> 32;
}
uint64_t RangeLength(uint64_t packed) {
  return packed & 0xFFFF'FFFFu;
}

// One load: the file's state while its records are read and checked.
class LoadRun {
 public:
  LoadRun(int fd, CacheFileLoader::Visitor& visitor) : fd_(fd), visitor_(visitor) {}

  CacheFileLoader::Summary run() {
    measureFile();
    readHeader();
    readTypeTable();
    walkExtents();
    computeGaps();
    return std::move(summary_);
  }

 private:
  void measureFile();
  void readHeader();
  void readTypeTable();
  void checkTypes(std::span<const TypeRecord> records) const;
  void walkExtents();
  uint32_t loadExtent(uint32_t location);
  ExtentHeader readExtentHeader(uint32_t location);
  void visitSlots(const ExtentHeader& extent);
  void visitEntry(uint32_t slotOffset, std::span<const uint8_t, kEntryHeaderSize> slot);
  void computeGaps();

  // Records [offset, offset + length) as claimed; an empty range claims
  // nothing and is only checked against the file's end.
  void claim(uint32_t offset, uint64_t length) {
    if (length == 0) {
      if (offset > summary_.fileLength) Reject(kOpenRangesDamaged);
      return;
    }
    ranges_.push_back(PackRange(offset, length));
  }

  const int fd_;
  CacheFileLoader::Visitor& visitor_;
  CacheFileLoader::Summary summary_;
  uint32_t typeCount_ = 0;        // the table's ids are exactly 1..typeCount_
  uint64_t slotBytes_ = 0;        // the slot arrays of the extents so far
  std::vector<uint64_t> ranges_;  // packed, see PackRange
  std::vector<uint8_t> slots_;    // one extent's slot array, reused
};

// Offsets and lengths travel as signed 32-bit values further on, so a file
// of 2 GiB or more is refused before anything of it is read.
void LoadRun::measureFile() {
  struct stat status {};
  if (::fstat(fd_, &status) != 0) {
    throw Pt::ExSystem(errno != 0 ? errno : EIO, kOpenReadHeader.where);
  }
  const auto length = static_cast<uint64_t>(std::max<off_t>(status.st_size, 0));
  if (length >= CacheFileLoader::kMaxFileSize) Reject(kOpenFileTooLarge);
  summary_.fileLength = length;
}

void LoadRun::readHeader() {
  std::array<uint8_t, FileHeader::kSize> image{};
  ReadAt(fd_, image.data(), image.size(), 0, kOpenReadHeader);
  summary_.header = FileHeader::Decode(image);
  if (!summary_.header.supported()) Reject(kOpenVersion);
  ranges_.reserve(2 + 2 * kEntriesPerExtent);
  claim(0, FileHeader::kSize);
}

void LoadRun::readTypeTable() {
  const uint32_t offset = summary_.header.typeTableOffset;
  std::array<uint8_t, kTypeTableSize> image{};
  ReadAt(fd_, image.data(), image.size(), offset, kOpenReadTypeTable);
  claim(offset, kTypeTableSize);
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

// Follows the chain from the header's first extent until a zero link. A
// location met twice would make the walk endless, so it rejects the file.
void LoadRun::walkExtents() {
  std::set<uint32_t> visited;
  uint32_t location = summary_.header.firstExtentOffset;
  do {
    if (!visited.insert(location).second) Reject(kOpenExtentChainDamaged);
    location = loadExtent(location);
  } while (location != 0);
}

// Reads and visits one extent; returns the location of the next.
uint32_t LoadRun::loadExtent(uint32_t location) {
  const ExtentHeader extent = readExtentHeader(location);
  // Slot arrays may not overlap, so together they fit the file. Checked
  // before the buffer is sized, so that a damaged count cannot make the
  // load ask for gigabytes, nor a chain of extents that share their slots
  // read the same bytes over and over.
  slotBytes_ += extent.slotsLength();
  if (slotBytes_ > summary_.fileLength) Reject(kOpenExtentChainDamaged);
  const auto length = static_cast<size_t>(extent.slotsLength());
  if (slots_.size() < length) slots_.resize(length);
  if (length > 0) ReadAt(fd_, slots_.data(), length, extent.entriesOffset, kOpenReadEntryHeaders);
  claim(extent.entriesOffset, length);
  ++summary_.extentCount;
  visitor_.onExtent(extent, location);
  visitSlots(extent);
  return extent.nextExtent;
}

ExtentHeader LoadRun::readExtentHeader(uint32_t location) {
  std::array<uint8_t, ExtentHeader::kSize> image{};
  ReadAt(fd_, image.data(), image.size(), location, kOpenReadExtentHeader);
  claim(location, ExtentHeader::kSize);
  const ExtentHeader extent = ExtentHeader::Decode(image);
  if (!extent.supported()) Reject(kOpenEntryHeaderSize);
  return extent;
}

// Most slots of a large file are either free or live entries that pass
// every check, so the free test reads one byte and only a live slot is
// decoded.
void LoadRun::visitSlots(const ExtentHeader& extent) {
  const uint8_t* slot = slots_.data();
  uint32_t slotOffset = extent.entriesOffset;
  for (uint32_t i = 0; i < extent.entryCount; ++i) {
    if (slot[EntryHeader::kPrimaryKeyLengthAt] == 0) {
      ++summary_.freeSlots;
      visitor_.onFreeSlot(slotOffset);
    } else {
      visitEntry(slotOffset, std::span<const uint8_t, kEntryHeaderSize>(slot, kEntryHeaderSize));
    }
    slot += kEntryHeaderSize;
    slotOffset += kEntryHeaderSize;
  }
}

void LoadRun::visitEntry(uint32_t slotOffset, std::span<const uint8_t, kEntryHeaderSize> slot) {
  const EntryHeader entry = EntryHeader::Decode(slot);
  if (!entry.keysValid() || entry.typeId == 0 || entry.typeId > typeCount_) {
    Reject(kOpenEntryDamaged);
  }
  claim(entry.dataOffset, entry.allocatedLength);
  ++summary_.liveEntries;
  summary_.dataBytes += entry.dataLength;
  summary_.allocatedBytes += entry.allocatedLength;
  visitor_.onEntry(slotOffset, entry);
}

// Sorts the claimed ranges and walks them in offset order: each must start
// at or behind the end of everything before it and end inside the file; the
// space between one range's end and the next one's start is free.
void LoadRun::computeGaps() {
  std::sort(ranges_.begin(), ranges_.end());
  uint64_t reach = 0;  // the end of the claimed ranges so far
  for (const uint64_t packed : ranges_) {
    const uint64_t begin = RangeBegin(packed);
    const uint64_t end = begin + RangeLength(packed);
    if (begin < reach || end > summary_.fileLength) Reject(kOpenRangesDamaged);
    if (begin > reach) {
      summary_.gaps.push_back(
          FileRange{static_cast<uint32_t>(reach), static_cast<uint32_t>(begin - reach)});
    }
    reach = end;
  }
  summary_.trailingBytes = summary_.fileLength - reach;
}

}  // namespace

CacheFileLoader::Summary CacheFileLoader::Load(int fd, Visitor& visitor) {
  return LoadRun(fd, visitor).run();
}

}  // namespace Tarn
