// Relocation at close: the live entries at the end of the file move into
// free ranges nearer its start, and the file is cut back behind the last
// range still claimed, so that a file under churn stays near the size of
// what it holds.
//
// It runs in the destructor, once every operation has ended and the file is
// flushed, and only when the file is more than relocationTrigger() times the
// bytes it must hold. Each round plans its moves (RelocationPlan, at most
// kRoundBytes of data) and carries them out in an order that keeps the file
// sound at every point, against a kill and against a power loss:
// 1. each entry's bytes are copied into its new range, then the file is
//    flushed: the new ranges were free, so no header on disk points at them
//    (every delete header is durable: the close flushed before this);
// 2. each entry's header is rewritten in its own slot with the new range,
//    then the file is flushed. The old and the new header differ only in
//    their data offset and allocated length, which lie in the same 16 bytes
//    of the slot; a slot starts on a 16-byte boundary, so a write torn at a
//    sector boundary leaves either header whole. Until this flush, both
//    ranges hold the entry's bytes, and whichever header the slot holds is
//    sound;
// 3. only then are the old ranges free.
// After the rounds the file is truncated behind the last claimed range and
// synced: no record points behind it.
//
// A failure at any step ends the relocation and leaves the file uncut: a
// failed copy changes no header; after a failed header write or flush, both
// ranges of every move of the round stay out of use until the file is
// opened again (the next open works out which one the slot names). Nothing
// is lost. The failure is counted and posted (kCloseRelocate).
#include <algorithm>
#include <atomic>
#include <cassert>
#include <cstring>
#include <utility>
#include <vector>

#include "core/RaiseSites.h"
#include "platform/InvariantCheck.h"
#include "store/FileManager.h"
#include "store/FileReceiverBase.h"
#include "store/RelocationPlan.h"

namespace Tarn {
namespace {

// Most bytes of data one round copies, and most rounds per close.
constexpr uint64_t kRoundBytes = uint64_t{8} << 20;
constexpr int kMaxRounds = 8;
// A file more than this many times what it must hold is relocated at close.
constexpr double kDefaultRelocationTrigger = 1.1;

std::atomic<double> relocationTrigger{kDefaultRelocationTrigger};
std::atomic<uint64_t> relocatedEntries{0};

static_assert(EntryHeader::kDataOffsetAt / 16 == (EntryHeader::kAllocatedLengthAt + 3) / 16,
              "a header's range must lie in one 16-byte piece of its slot");

// Counts the failure of one relocation write; its operation ends with it.
class RelocationWriteReceiver : public FileReceiverBase {
 public:
  RelocationWriteReceiver(std::atomic<int>* failures, FileOperationRef operation)
      : FileReceiverBase(std::move(operation)), failures_(failures) {}
  void ioCompleted(Pt::IoRequest& /*request*/) override {}
  void ioFailed(Pt::IoRequest& /*request*/, const Pt::Exception& /*cause*/) override {
    failures_->fetch_add(1);
  }

 private:
  std::atomic<int>* failures_;
};

}  // namespace

void FileManager::SetRelocationTrigger(double trigger) {
  relocationTrigger.store(trigger);
}

double FileManager::RelocationTrigger() {
  return relocationTrigger.load();
}

uint64_t FileManager::RelocatedEntries() {
  return relocatedEntries.load();
}

FileManager::RelocationFigures FileManager::relocateTail() {
  Pt::MutexLock guard(lock_);
  RelocationFigures figures;
  if (!canRelocate() || amplificationLocked() <= RelocationTrigger()) return figures;
  try {
    bool moved = true;
    for (int round = 0; round < kMaxRounds && moved; ++round) moved = relocateRound(figures);
    cutBehindLastRange();
  } catch (const Pt::Exception& failure) {
    countWriteFailure();
    Pt::Exception::Post(failure);
  }
  relocatedEntries.fetch_add(figures.moved);
  PT_DEBUG_CHECK(entries_.size(), invariantsHold());
  return figures;
}

// Only a store at rest, whose tables say exactly what the file holds: every
// entry settled, no erase pending, and no write failed (a failed delete or
// link leaves records on disk that the tables no longer know).
bool FileManager::canRelocate() {
  return writeFailures() == 0 && pendingErasures_.empty() && erasing_.empty() &&
         undeletable_.empty() && givenUpSlots_.empty() && operations_.openCount() == 0;
}

// The file's length over the bytes it must hold: the live entries'
// allocations, the header, the type table and every extent's block.
double FileManager::amplificationLocked() const {
  uint64_t needed = kFileHeaderSize + kTypeTableSize + extents_.size() * uint64_t{kExtentBlockSize};
  for (const auto& entry : entries_) needed += entry.info.header.allocatedLength;
  return static_cast<double>(fileEnd()) / static_cast<double>(needed);
}

// The end of the last range that never moves: the header, the type table
// and the extents.
uint32_t FileManager::fixedEnd() const {
  uint64_t end = firstExtentEnd_;
  for (const ExtentInfo& extent : extents_) {
    end = std::max({end, uint64_t{extent.location} + kExtentHeaderSize,
                    extent.header.entriesOffset + extent.header.slotsLength()});
  }
  return static_cast<uint32_t>(end);
}

// Plans and carries out one round. False when nothing moved (nothing left
// to move, or a step failed).
bool FileManager::relocateRound(RelocationFigures& figures) {
  // Positions in entries_, which hold still: nothing enters or leaves the
  // table while the store closes. In data order, so that the plan does not
  // depend on the table's order.
  std::vector<std::pair<uint32_t, uint32_t>> byOffset;  // data offset, position
  for (uint32_t entry = 0; entry < entries_.size(); ++entry) {
    const EntryInfo& info = entries_[entry].info;
    if (info.headerOffset % kAllocationAlignment != 0) continue;  // see step 2
    byOffset.emplace_back(info.header.dataOffset, entry);
  }
  std::sort(byOffset.begin(), byOffset.end());
  std::vector<uint32_t> owners;
  std::vector<RelocationPlan::Item> items;
  owners.reserve(byOffset.size());
  items.reserve(byOffset.size());
  for (const auto& [offset, entry] : byOffset) {
    const EntryHeader& header = entries_[entry].info.header;
    items.push_back(
        {static_cast<uint32_t>(owners.size()), {header.dataOffset, header.allocatedLength}});
    owners.push_back(entry);
  }
#ifndef NDEBUG
  const FreeSpace freeBefore = freeSpace_;
#endif
  const RelocationPlan plan = RelocationPlan::Make(items, fixedEnd(), freeSpace_, kRoundBytes);
  assert(plan.check(items, freeBefore, minAllocation_, kRoundBytes).empty());
  if (plan.moves().empty()) return false;
  if (!copyData(plan, owners)) {
    for (const RelocationPlan::Move& move : plan.moves())
      freeSpace_.add(move.to.offset, move.to.length);
    return false;
  }
  if (!rewriteHeaders(plan, owners)) return false;  // both ranges of each move stay taken
  for (const RelocationPlan::Move& move : plan.moves()) {
    EntryHeader& header = entries_[owners[move.id]].info.header;
    header.dataOffset = move.to.offset;
    header.allocatedLength = move.to.length;
    freeSpace_.add(move.from.offset, move.from.length);
    ++figures.moved;
    figures.bytes += move.from.length;
  }
  return true;
}

// Step 1: every entry's bytes in its new range, durable.
bool FileManager::copyData(const RelocationPlan& plan, const std::vector<uint32_t>& owners) {
  std::atomic<int> failures{0};
  try {
    for (const RelocationPlan::Move& move : plan.moves()) {
      const uint32_t length = entries_[owners[move.id]].info.header.dataLength;
      const auto request =
          Pt::IoRequest::Create(new RelocationWriteReceiver(&failures, operations_.begin()),
                                static_cast<int>(move.to.length), Pt::IoRequest::Normal);
      fileLock_.file().readAt(request->data(), length, move.from.offset, kCloseRelocate.where);
      std::memset(request->data() + length, 0, move.to.length - length);
      request->setOffset(move.to.offset);
      device_->write(request);
    }
  } catch (...) {
    operations_.waitAll();
    throw;  // the headers are untouched; the destinations are free again at the next open
  }
  return awaitDurable(failures);
}

// Step 2: every entry's header with its new range, durable.
bool FileManager::rewriteHeaders(const RelocationPlan& plan, const std::vector<uint32_t>& owners) {
  std::atomic<int> failures{0};
  for (const RelocationPlan::Move& move : plan.moves()) {
    const EntryInfo& info = entries_[owners[move.id]].info;
    EntryHeader moved = info.header;
    moved.dataOffset = move.to.offset;
    moved.allocatedLength = move.to.length;
    const auto request =
        Pt::IoRequest::Create(new RelocationWriteReceiver(&failures, operations_.begin()),
                              static_cast<int>(kEntryHeaderSize), Pt::IoRequest::Normal);
    moved.encodeTo(std::span<uint8_t, kEntryHeaderSize>(request->data(), kEntryHeaderSize));
    request->setOffset(info.headerOffset);
    device_->write(request);
  }
  return awaitDurable(failures);
}

// Waits for the round's writes and flushes. False (counted and posted) when
// a write or the flush failed.
bool FileManager::awaitDurable(const std::atomic<int>& failures) {
  operations_.waitAll();
  if (failures.load() != 0) {
    countWriteFailure();
    Pt::Exception::Post(Pt::ExSystem(EIO, kCloseRelocate.where));
    return false;
  }
  try {
    device_->flush();
  } catch (const Pt::Exception& failure) {
    countWriteFailure();
    Pt::Exception::Post(failure);
    return false;
  }
  return true;
}

// Truncates the file behind the last claimed range, when a relocation left
// free space there and no write failed. Every header that points below the
// cut is durable, and none points behind it.
void FileManager::cutBehindLastRange() {
  if (writeFailures() != 0) return;
  uint64_t end = fixedEnd();
  for (const auto& entry : entries_) {
    const EntryHeader& header = entry.info.header;
    end = std::max<uint64_t>(end, uint64_t{header.dataOffset} + header.allocatedLength);
  }
  if (end >= static_cast<uint64_t>(fileEnd())) return;
  Pt::SyncFile& file = fileLock_.file();
  file.truncate(end, kCloseRelocate.where);
  file.sync(kCloseRelocate.where);
  FreeSpace below(minAllocation_);
  for (const FileRange& range : freeSpace_.ranges()) {
    if (range.offset < end)
      below.add(range.offset,
                static_cast<uint32_t>(std::min<uint64_t>(range.end(), end) - range.offset));
  }
  freeSpace_ = std::move(below);
  fileEnd_.store(static_cast<int64_t>(end), std::memory_order_relaxed);
}

}  // namespace Tarn
