// Clearing the file store: every entry erased through the ordinary erase
// path, then the file cut back to its first extent once nothing in it is
// live. The cut is ordered so that a crash between any two of its steps
// leaves a sound file:
// 1. sync: every delete header of the erase is durable (also with relaxed
//    ordering, where the erases only waited for completion), so no slot of
//    any extent holds a live header any more;
// 2. the first extent's header with no link, then sync: the chain ends at
//    the first extent, and the extents behind it are unreachable;
// 3. truncate behind the first extent, then sync: the cut bytes hold
//    nothing that any record reaches.
#include <algorithm>
#include <vector>

#include "core/RaiseSites.h"
#include "platform/InvariantCheck.h"
#include "store/FileManager.h"

namespace Tarn {

int32_t FileManager::eraseAll() {
  Pt::MutexLock guard(lock_);
  std::vector<PrimaryKey> keys;
  keys.reserve(entries_.size());
  for (const auto& entry : entries_) keys.push_back(entry.key);
  // In key order, so that the slots come free in the same order whatever
  // the table's order.
  std::sort(keys.begin(), keys.end());
  int32_t erased = 0;
  for (const PrimaryKey& key : keys) erased += erase(key) ? 1 : 0;
  return erased;
}

bool FileManager::shrinkIfEmpty() {
  operations_.waitThrough(operations_.lastStarted());
  Pt::MutexLock guard(lock_);
  if (!canShrink()) return false;
  Pt::SyncFile& file = fileLock_.file();
  unlinkExtentsBehindFirst(file);
  // From here on the chain on disk holds the first extent only.
  file.truncate(firstExtentEnd_, kClearShrink.where);
  dropTablesBehindFirstExtent();
  file.sync(kClearShrink.where);
  return true;
}

// Nothing is live and nothing is in flight: no entry, no operation (an
// operation started after the wait began would have an entry, or a read of
// one, or an extent of a write), and no key whose delete header failed (its
// old header may still be on disk). With the lock held none can start.
bool FileManager::canShrink() {
  return entries_.empty() && pendingErasures_.empty() && undeletable_.empty() &&
         operations_.openCount() == 0 && fileEnd() > firstExtentEnd_;
}

// Steps 1 and 2 above. When either fails, the link on disk is unknown: the
// extents behind the first are given up, so that no header goes into a slot
// that the chain might no longer reach.
void FileManager::unlinkExtentsBehindFirst(Pt::SyncFile& file) {
  ExtentInfo& first = extents_.front();
  ExtentHeader unlinked = first.header;
  unlinked.nextExtent = 0;
  const auto image = unlinked.encode();
  try {
    file.sync(kClearShrink.where);
    file.writeAt(image.data(), image.size(), first.location, kClearShrink.where);
    file.sync(kClearShrink.where);
  } catch (const Pt::ExSystem&) {
    countWriteFailure();
    giveUpExtentsFrom(1);
    throw;
  }
  first.header = unlinked;
  giveUpExtentsFrom(1);  // no entry is left in them; their slots go
}

// The file now ends behind the first extent: every table forgets what lay
// behind it, and space is appended from there again.
void FileManager::dropTablesBehindFirstExtent() {
  const uint32_t end = firstExtentEnd_;
  const ExtentHeader& first = extents_.front().header;
  const uint64_t slotsEnd = first.entriesOffset + first.slotsLength();
  std::deque<uint32_t> slots;
  for (const uint32_t slot : freeEntryHeaders_) {
    if (slot >= first.entriesOffset && slot < slotsEnd) slots.push_back(slot);
  }
  freeEntryHeaders_.swap(slots);
  std::vector<FileRange> givenUp;
  for (const FileRange& range : givenUpSlots_) {
    if (range.offset < end) givenUp.push_back(range);
  }
  givenUpSlots_.swap(givenUp);
  FreeSpace below(minAllocation_);
  for (const FileRange& range : freeSpace_.ranges()) {
    if (range.offset < end) below.add(range.offset, std::min(range.end(), end) - range.offset);
  }
  freeSpace_ = std::move(below);
  fileEnd_.store(end, std::memory_order_relaxed);
  PT_DEBUG_CHECK(entries_.size(), invariantsHold());
}

}  // namespace Tarn
