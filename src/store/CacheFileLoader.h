// Reads a cache file's records with blocking reads and checks them.
//
// The loader reads the header, the type table and the extent chain of a file
// from its start, hands each record to a Visitor as it goes, and works out
// the free space: the gaps between the ranges that records claim (the
// header, the type table, every ExtentHeader and slot array, every live
// entry's allocated data range). Space behind the last claimed range is not
// free: new space is always taken at the end of the file.
//
// A cache file is input that may be truncated, corrupted or hostile, so the
// loader rejects, as an unsupported file, one in which:
// - the version is not the one this library writes, or an extent's slots are
//   not 64 bytes;
// - the file is 2 GiB or larger;
// - a type record names more than 44 bytes, the table holds a name or an id
//   twice, or its ids do not run 1, 2, 3... in slot order;
// - the extent chain loops, or its extents together declare more slots than
//   the file can hold;
// - a live entry's key lengths exceed 32 or 16 bytes, or it names a type id
//   that the table lacks;
// - two claimed ranges overlap, or one reaches past the end of the file.
// A record that cannot be read whole is a Pt::ExSystem (EIO for a file that
// ends early, also when the record would start past its end). Nothing is
// ever written.
//
// Thread-safety: none needed; one call reads one file.
#pragma once

#include <cstdint>
#include <vector>

#include "store/FileFormat.h"
#include "store/FreeSpace.h"

namespace Tarn {

class CacheFileLoader {
 public:
  // Receives the records in file order: types, then for each extent of the
  // chain its header and then its slots in slot order. A throw from a
  // visitor ends the load.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    virtual void onType(const TypeRecord& /*record*/) {}
    virtual void onExtent(const ExtentHeader& /*header*/, uint32_t /*location*/) {}
    virtual void onFreeSlot(uint32_t /*slotOffset*/) {}
    virtual void onEntry(uint32_t /*slotOffset*/, const EntryHeader& /*header*/) {}
  };

  struct Summary {
    FileHeader header;
    uint64_t fileLength = 0;
    uint32_t extentCount = 0;
    uint32_t liveEntries = 0;
    uint32_t freeSlots = 0;
    uint64_t dataBytes = 0;       // sum of the live entries' dataLength
    uint64_t allocatedBytes = 0;  // sum of their allocatedLength
    uint64_t trailingBytes = 0;   // behind the last claimed range: unused until recreated
    std::vector<FileRange> gaps;  // free ranges between claimed ranges, in offset order
  };

  // The largest file the library opens or grows: offsets travel as signed
  // 32-bit values.
  static constexpr uint64_t kMaxFileSize = uint64_t{1} << 31;

  // Loads the file open for reading as `fd`. Throws Pt::ExSystem when a
  // record cannot be read whole, ExUnsupportedFileVersion when the file is
  // rejected (the raise sites of the open), or std::bad_alloc.
  static Summary Load(int fd, Visitor& visitor);
};

}  // namespace Tarn
