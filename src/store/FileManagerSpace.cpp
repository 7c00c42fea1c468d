// Space allocation of the file store: EntryHeader slots and data ranges, and
// the growth of the file by appended extents.
#include <algorithm>
#include <cassert>
#include <cerrno>
#include <cstring>
#include <set>

#include "core/RaiseSites.h"
#include "store/CacheFileLoader.h"
#include "store/FileManager.h"
#include "store/FileWriteExtentHeaderReceiver.h"
#include "store/FileWriteExtentReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

// Most bytes that one eviction round frees beyond what the write needs.
constexpr uint64_t kEvictionMargin = uint64_t{1} << 20;

}  // namespace

uint32_t FileManager::growFileBy(uint64_t bytes) {
  const auto end = static_cast<uint64_t>(fileEnd_.load(std::memory_order_relaxed));
  if (end + bytes >= CacheFileLoader::kMaxFileSize) {
    throw Pt::ExSystem(EFBIG, kGrowFileTooLarge.where);
  }
  fileEnd_.store(static_cast<int64_t>(end + bytes), std::memory_order_relaxed);
  return static_cast<uint32_t>(end);
}

void FileManager::allocateData(uint32_t length, uint32_t& offset, uint32_t& allocatedLength) {
  const uint64_t want = AllocatedLengthFor(length, minAllocation_);
  if (want < CacheFileLoader::kMaxFileSize) {
    if (const auto range = freeSpace_.take(static_cast<uint32_t>(want))) {
      offset = range->offset;
      allocatedLength = range->length;
      return;
    }
  }
  offset = growFileBy(want);
  allocatedLength = static_cast<uint32_t>(want);
}

uint32_t FileManager::allocateEntryHeader() {
  if (!freeEntryHeaders_.empty()) {
    const uint32_t slot = freeEntryHeaders_.front();
    freeEntryHeaders_.pop_front();
    return slot;
  }
  return appendExtent();
}

// Appends a block of kEntriesPerExtent free slots at the end of the file and
// hands out its first slot at once. The previous extent is relinked to it only
// after the block is durable (extentWritten), so the chain in the file never
// reaches bytes that are not yet written. Headers may go into its slots
// before that: they are unreachable until the link, and the device orders
// them behind the block, which covers them.
uint32_t FileManager::appendExtent() {
  FileOperationRef operation = operations_.begin();
  const uint32_t location = growFileBy(kExtentBlockSize);
  const ExtentHeader header = ExtentHeader::ForNewExtent(location);
  extents_.push_back({header, location});
  for (uint32_t slot = 1; slot < kEntriesPerExtent; ++slot) {
    freeEntryHeaders_.push_back(header.entriesOffset + slot * kEntryHeaderSize);
  }
  const auto request =
      Pt::IoRequest::Create(new FileWriteExtentReceiver(this, location, std::move(operation)),
                            static_cast<int>(kExtentBlockSize), Pt::IoRequest::Normal);
  std::memset(request->data(), 0, kExtentBlockSize);
  header.encodeTo(std::span<uint8_t, kExtentHeaderSize>(request->data(), kExtentHeaderSize));
  request->setOffset(location);
  device_->write(request);
  return header.entriesOffset;
}

void FileManager::extentWritten(uint32_t location, const FileOperationRef& operation) {
  groupSync_->afterDurable([this, location, operation](int error) {
    if (error != 0) {
      failExtent(location);
      Pt::Exception::Post(
          ExFileWriteExtent(kWriteExtentFailed.where, Pt::ExSystem(error, kWriteExtentSync.where)));
      return;
    }
    Pt::MutexLock guard(lock_);
    linkExtent(location, operation);
  });
}

// Rewrites the header of the extent before `location` with its nextExtent
// set. Nothing is written for an extent given up meanwhile.
void FileManager::linkExtent(uint32_t location, const FileOperationRef& operation) {
  for (size_t index = 1; index < extents_.size(); ++index) {
    if (extents_[index].location != location) continue;
    ExtentHeader relinked = extents_[index - 1].header;
    relinked.nextExtent = location;
    const auto request =
        Pt::IoRequest::Create(new FileWriteExtentHeaderReceiver(this, location, operation),
                              static_cast<int>(kExtentHeaderSize), Pt::IoRequest::Normal);
    relinked.encodeTo(std::span<uint8_t, kExtentHeaderSize>(request->data(), kExtentHeaderSize));
    request->setOffset(extents_[index - 1].location);
    device_->write(request);
    return;
  }
}

void FileManager::failExtent(uint32_t location) {
  countWriteFailure();
  Pt::MutexLock guard(lock_);
  for (size_t index = 1; index < extents_.size(); ++index) {
    if (extents_[index].location == location) {
      giveUpExtentsFrom(index);
      return;
    }
  }
}

// The extent at `index` cannot be reached from the chain, and neither can any
// extent appended behind it, whose link starts from it. Their free slots are
// withdrawn, the entries placed in them leave the tables (their headers could
// never be found), and the next extent links from the last one still reached.
void FileManager::giveUpExtentsFrom(size_t index) {
  for (size_t i = index; i < extents_.size(); ++i) {
    const uint32_t slots = extents_[i].header.entriesOffset;
    givenUpSlots_.push_back({slots, kExtentSlotsSize});
  }
  extents_.resize(index);
  std::deque<uint32_t> kept;
  for (const uint32_t slot : freeEntryHeaders_) {
    if (!inGivenUpExtent(slot)) kept.push_back(slot);
  }
  freeEntryHeaders_.swap(kept);
  // By key, so that the slots and ranges come free in the same order
  // whatever the table's order.
  std::vector<PrimaryKey> lost;
  for (const EntryTable::Entry& entry : entries_) {
    if (inGivenUpExtent(entry.info.headerOffset)) lost.push_back(entry.key);
  }
  std::sort(lost.begin(), lost.end());
  for (const PrimaryKey& key : lost) {
    countWriteFailure();
    dropEntry(entries_.position(key));
  }
}

bool FileManager::inGivenUpExtent(uint32_t slot) const {
  for (const FileRange& range : givenUpSlots_) {
    if (slot >= range.offset && slot < range.end()) return true;
  }
  return false;
}

// A slot and a range that no header on disk points at any more become free;
// the slot is the next one handed out. A slot of a given-up extent stays out.
void FileManager::releaseSpace(uint32_t headerOffset, uint32_t dataOffset,
                               uint32_t allocatedLength) {
  if (!inGivenUpExtent(headerOffset)) freeEntryHeaders_.push_front(headerOffset);
  freeSpace_.add(dataOffset, allocatedLength);
  if (const auto evicting = evicting_.find(dataOffset); evicting != evicting_.end()) {
    evictingBytes_ -= evicting->second;
    evicting_.erase(evicting);
    spaceFreed_.broadcast();
  }
}

// Makes room for `want` bytes of data within the budget: while neither a free
// range nor the room up to the budget can take them, evicts the least
// recently used entries and, with `wait`, waits (releasing the lock) until
// their ranges are free. When nothing is left to evict, the write grows the
// file past the budget; without `wait`, it does so until the evicted ranges
// come free.
void FileManager::keepWithinBudget(uint64_t want, bool wait) {
  while (!fitsWithinBudget(want)) {
    if (evictingBytes_ == 0 && !evictForBudget(want)) return;
    if (!wait) return;
    if (evictingBytes_ > 0) spaceFreed_.wait_(lock_, -1);
  }
}

bool FileManager::fitsWithinBudget(uint64_t want) const {
  return freeSpace_.largest() >= want || static_cast<uint64_t>(fileEnd()) + want <= budget_;
}

// Erases least recently used entries until the free bytes and those coming
// free make room for `want` and a margin (so that one round serves several
// writes), and at least one. False when there was nothing to erase.
bool FileManager::evictForBudget(uint64_t want) {
  const uint64_t needed = want + std::min<uint64_t>(budget_ / 32, kEvictionMargin);
  bool evicted = false;
  while (!entries_.empty() && (!evicted || freeSpace_.totalBytes() + evictingBytes_ < needed)) {
    const EntryTable::Entry& oldest = entries_[entries_.leastRecent()];
    const PrimaryKey key = oldest.key;
    const EntryHeader& header = oldest.info.header;
    evicting_.emplace(header.dataOffset, header.allocatedLength);
    evictingBytes_ += header.allocatedLength;
    erase(key);
    budgetEvictions_.fetch_add(1, std::memory_order_relaxed);
    evicted = true;
  }
  return evicted;
}

bool FileManager::checkInvariants() {
  Pt::MutexLock guard(lock_);
  return invariantsHold();
}

// Walks every table; false at the first broken invariant.
bool FileManager::invariantsHold() const {
  std::set<uint32_t> slots(freeEntryHeaders_.begin(), freeEntryHeaders_.end());
  if (slots.size() != freeEntryHeaders_.size() || !freeSpace_.checkInvariants().empty()) {
    return false;
  }
  if (!entries_.checkInvariants()) return false;
  std::vector<const EntryInfo*> owners;
  for (const auto& [key, info, prev, next] : entries_) {
    if (key != info.header.primaryKeyValue()) return false;
    if (info.stage == Stage::Parked && erasing_.count(key) == 0) return false;
    owners.push_back(&info);
  }
  for (const auto& [key, info] : pendingErasures_) {
    if (info.stage != Stage::Data && info.stage != Stage::Header) return false;
    owners.push_back(&info);
  }
  std::vector<FileRange> claimed = freeSpace_.ranges();
  for (const EntryInfo* info : owners) {
    if (!slots.insert(info->headerOffset).second || inGivenUpExtent(info->headerOffset)) {
      return false;
    }
    claimed.push_back({info->header.dataOffset, info->header.allocatedLength});
  }
  std::sort(claimed.begin(), claimed.end(),
            [](const FileRange& a, const FileRange& b) { return a.offset < b.offset; });
  for (size_t i = 1; i < claimed.size(); ++i) {
    if (claimed[i - 1].end() > claimed[i].offset) return false;
  }
  for (size_t i = 0; i < types_.size(); ++i) {
    if (types_[i].id != i + 1) return false;
    for (size_t j = 0; j < i; ++j) {
      if (types_[j].name == types_[i].name) return false;
    }
  }
  return fileEnd() < static_cast<int64_t>(CacheFileLoader::kMaxFileSize);
}

}  // namespace Tarn
