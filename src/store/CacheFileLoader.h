// Reads a cache file's records with blocking reads and checks them.
//
// The loader reads the header, the type table and the extent chain of a file
// from its start, hands each record to a Visitor as it goes, and works out
// the free space: the gaps between the ranges that records claim (the
// header, the type table, every ExtentHeader and slot array, every live
// entry's allocated data range). Space behind the last claimed range is not
// a gap: the store's open cuts it off (trailingBytes says how much).
//
// A cache file is input that may be truncated, corrupted or hostile. Damage
// to its skeleton rejects it, as an unsupported file
// (ExUnsupportedFileVersion), when:
// - it is shorter than its header, or 2 GiB or larger;
// - the version is not the one this library writes;
// - the type table reaches past the end, a type record names more than 44
//   bytes, the table holds a name or an id twice, or its ids do not run
//   1, 2, 3... in slot order;
// - the first extent (the one the header names) reaches past the end or its
//   slots are not 64 bytes;
// - the extent chain loops, its extents together declare more slots than
//   the file can hold, or two of the skeleton's ranges (header, type table,
//   extent headers, slot arrays) overlap.
// A link to a further extent that points past the end of the file, or at
// bytes that are no extent header (slots that are not 64 bytes, or that
// reach past the end), ends the chain there: the extents before it load.
// Damage confined to entries drops those entries only (EntrySalvage.h says
// which and why); their slots count as free and their ranges claim nothing.
// A read that fails is a Pt::ExSystem at its raise site. Nothing is ever
// written.
//
// Thread-safety: none needed; one call reads one file.
#pragma once

#include <cstdint>
#include <vector>

#include "platform/SyncFile.h"
#include "store/EntrySalvage.h"
#include "store/FileFormat.h"
#include "store/FreeSpace.h"

namespace Tarn {

class CacheFileLoader {
 public:
  // Receives the records in file order: types, then for each extent of the
  // chain its header and then its slots in slot order, each slot as free, as
  // a live entry or as a dropped entry (whose slot is free as well). Types
  // are visited as they are read, the extents only once the whole file has
  // been checked. A throw from a visitor ends the load.
  class Visitor {
   public:
    virtual ~Visitor() = default;
    virtual void onType(const TypeRecord& /*record*/) {}
    // How many live entries onEntry will receive; called once, after the
    // checks and before the first extent is visited.
    virtual void onEntryCount(uint32_t /*liveEntries*/) {}
    virtual void onExtent(const ExtentHeader& /*header*/, uint32_t /*location*/) {}
    virtual void onFreeSlot(uint32_t /*slotOffset*/) {}
    virtual void onEntry(uint32_t /*slotOffset*/, const EntryHeader& /*header*/) {}
    virtual void onDroppedEntry(uint32_t /*slotOffset*/, const EntryHeader& /*header*/,
                                DropReason /*reason*/) {}
  };

  struct Summary {
    FileHeader header;
    uint64_t fileLength = 0;
    uint32_t extentCount = 0;
    uint32_t liveEntries = 0;
    uint32_t freeSlots = 0;       // not counting the dropped entries' slots
    uint32_t droppedEntries = 0;  // live-looking slots dropped as damaged
    // The extent whose link to a further extent was not followed (it points
    // past the end or at no extent header); 0 when the chain ended normally.
    uint32_t chainCutAt = 0;
    uint64_t dataBytes = 0;       // sum of the live entries' dataLength
    uint64_t allocatedBytes = 0;  // sum of their allocatedLength
    uint64_t trailingBytes = 0;   // behind the last claimed range: an open cuts them off
    std::vector<FileRange> gaps;  // free ranges between claimed ranges, in offset order
  };

  // The largest file the library opens or grows: offsets travel as signed
  // 32-bit values.
  static constexpr uint64_t kMaxFileSize = uint64_t{1} << 31;

  // Loads `file`, open for reading. Throws Pt::ExSystem when a read fails,
  // ExUnsupportedFileVersion when the file is rejected (the raise sites of
  // the open), or std::bad_alloc.
  static Summary Load(const Pt::SyncFile& file, Visitor& visitor);
};

}  // namespace Tarn
