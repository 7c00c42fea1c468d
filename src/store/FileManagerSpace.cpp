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
#include "store/FileWriteExtentReceiver.h"

namespace Tarn {

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
// after the block is on disk (FileWriteExtentReceiver), so the chain in the
// file never reaches bytes that are not yet written.
uint32_t FileManager::appendExtent() {
  const uint32_t location = growFileBy(kExtentBlockSize);
  const ExtentInfo previous = extents_.back();
  const ExtentHeader header = ExtentHeader::ForNewExtent(location);
  extents_.push_back({header, location});
  for (uint32_t slot = 1; slot < kEntriesPerExtent; ++slot) {
    freeEntryHeaders_.push_back(header.entriesOffset + slot * kEntryHeaderSize);
  }

  ExtentHeader relinked = previous.header;
  relinked.nextExtent = location;
  const Pt::SmartPointer<FileWriteExtentReceiver> receiver(
      new FileWriteExtentReceiver(device_, previous.location, relinked.encode()));
  const auto request = Pt::IoRequest::Create(receiver.get(), static_cast<int>(kExtentBlockSize),
                                             Pt::IoRequest::Normal);
  std::memset(request->data(), 0, kExtentBlockSize);
  header.encodeTo(std::span<uint8_t, kExtentHeaderSize>(request->data(), kExtentHeaderSize));
  request->setOffset(location);
  device_->write(request);
  return header.entriesOffset;
}

void FileManager::releaseEntry(uint32_t headerOffset, uint32_t dataOffset,
                               uint32_t allocatedLength) {
  Pt::MutexLock guard(lock_);
  freeEntryHeaders_.push_front(headerOffset);
  freeSpace_.add(dataOffset, allocatedLength);
}

void FileManager::checkInvariants() {
#ifndef NDEBUG
  Pt::MutexLock guard(lock_);
  std::set<uint32_t> slots(freeEntryHeaders_.begin(), freeEntryHeaders_.end());
  assert(slots.size() == freeEntryHeaders_.size());
  assert(freeSpace_.checkInvariants().empty());
  std::vector<FileRange> claimed = freeSpace_.ranges();
  const auto own = [&](const EntryInfo& info) {
    assert(slots.insert(info.headerOffset).second);
    claimed.push_back({info.header.dataOffset, info.header.allocatedLength});
  };
  for (const auto& [key, info] : entries_) {
    assert(key == info.header.primaryKeyValue());
    own(info);
  }
  for (const auto& [key, info] : pendingErasures_) {
    assert(info.writePending);
    own(info);
  }
  std::sort(claimed.begin(), claimed.end(),
            [](const FileRange& a, const FileRange& b) { return a.offset < b.offset; });
  for (size_t i = 1; i < claimed.size(); ++i) assert(claimed[i - 1].end() <= claimed[i].offset);
  for (size_t i = 0; i < types_.size(); ++i) {
    assert(types_[i].id == i + 1);
    for (size_t j = 0; j < i; ++j) assert(types_[j].name != types_[i].name);
  }
  assert(fileEnd() < static_cast<int64_t>(CacheFileLoader::kMaxFileSize));
#endif
}

}  // namespace Tarn
