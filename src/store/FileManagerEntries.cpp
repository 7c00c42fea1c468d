// The entry flows of the file store: write, settle, erase, and what happens
// when one of their writes fails. Each step changes the tables under one hold
// of the lock and then queues its write, so that the file never holds a
// header that points at data not yet durable, nor two live headers for one
// key.
#include <algorithm>
#include <cstring>
#include <stdexcept>

#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "platform/InvariantCheck.h"
#include "store/FileManager.h"
#include "store/FileReadEntryReceiver.h"
#include "store/FileWriteEntryHeaderReceiver.h"
#include "store/FileWriteEntryReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

// Bytes of entry writes that may be queued before write() waits for some to
// end. Each write is charged at least kMinWriteCharge, so the count of queued
// writes is bounded too.
constexpr uint64_t kWriteBacklogBytes = uint64_t{32} << 20;
constexpr uint64_t kMinWriteCharge = 1024;

}  // namespace

void FileManager::write(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                        const std::string& type, int32_t length, const uint8_t* data) {
  if (length < 0 || (length > 0 && data == nullptr)) {
    throw std::invalid_argument("FileManager::write: no data");
  }
  EntryInfo info;
  {
    Pt::MutexLock guard(lock_);
    info = reserveEntry(primaryKey, secondaryKey, type, static_cast<uint32_t>(length));
    PT_DEBUG_CHECK(entries_.size(), invariantsHold());
  }
  // The data is copied and queued outside the lock; the header follows once
  // the data is durable (entryDataWritten).
  const uint32_t allocated = info.header.allocatedLength;
  const auto request = Pt::IoRequest::Create(
      new FileWriteEntryReceiver(this, primaryKey, info.serial, info.operation),
      static_cast<int>(allocated), Pt::IoRequest::Normal);
  if (length > 0) std::memcpy(request->data(), data, static_cast<size_t>(length));
  std::memset(request->data() + length, 0, allocated - static_cast<uint32_t>(length));
  request->setOffset(info.header.dataOffset);
  device_->write(request);
}

// Takes a slot and a data range and enters the entry in the tables, where it
// is visible at once. Nothing is reserved when a precondition fails.
FileManager::EntryInfo FileManager::reserveEntry(const PrimaryKey& primaryKey,
                                                 const SecondaryKey& secondaryKey,
                                                 const std::string& type, uint32_t length) {
  if (entries_.contains(primaryKey)) {
    throw std::invalid_argument("FileManager::write: the key is already stored");
  }
  const uint32_t id = typeIdLocked(type);
  if (id == 0) {
    throw WithSubject(ExFactoryClassNotFound(kInsertUnknownType.where), TypeSubject(type));
  }
  // Validates both key lengths before anything is taken.
  EntryHeader header =
      EntryHeader::ForEntry(static_cast<uint16_t>(id), primaryKey, secondaryKey, 0, length, 0);
  keepWithinBudget(AllocatedLengthFor(length, minAllocation_), false);
  FileOperationRef operation =
      operations_.begin(std::max<uint64_t>(length, kMinWriteCharge) + kEntryHeaderSize);
  const uint32_t slot = allocateEntryHeader();
  try {
    allocateData(length, header.dataOffset, header.allocatedLength);
  } catch (...) {
    freeEntryHeaders_.push_front(slot);  // the slot goes back where it came from
    throw;
  }
  EntryInfo info{header, slot, NextSerial(), Stage::Data, std::move(operation), {}};
  enterEntry(primaryKey, info);
  secondaryIndex_.add(secondaryKey, primaryKey);
  return info;
}

void FileManager::awaitRoom(uint32_t length) {
  operations_.waitForRoom(kWriteBacklogBytes);
  Pt::MutexLock guard(lock_);
  keepWithinBudget(AllocatedLengthFor(length, minAllocation_), true);
}

void FileManager::entryDataWritten(const PrimaryKey& primaryKey, uint32_t serial,
                                   const FileOperationRef& operation) {
  groupSync_->afterDurable([this, primaryKey, serial, operation](int error) {
    if (error != 0) {
      failEntryWrite(primaryKey, serial);
      Pt::Exception::Post(WithSubject(
          ExFileWriteEntry(kWriteEntryFailed.where, Pt::ExSystem(error, kWriteEntrySync.where)),
          KeySubject(primaryKey)));
      return;
    }
    Pt::MutexLock guard(lock_);
    issueHeaderOrPark(primaryKey, serial);
  });
}

// The data of write `serial` is durable. Its header goes out now, unless the
// entry was erased meanwhile (then nothing on disk points at its slot and
// range, which are free at once) or an earlier header of the key may still
// be on disk (then the header waits until that one is durably deleted).
void FileManager::issueHeaderOrPark(const PrimaryKey& primaryKey, uint32_t serial) {
  const uint32_t entry = entries_.position(primaryKey);
  if (entry == EntryTable::kNone || entries_[entry].info.serial != serial) {
    auto [it, end] = pendingErasures_.equal_range(primaryKey);
    for (; it != end; ++it) {
      if (it->second.serial != serial) continue;
      const EntryHeader& header = it->second.header;
      releaseSpace(it->second.headerOffset, header.dataOffset, header.allocatedLength);
      pendingErasures_.erase(it);
      return;
    }
    return;  // given up with its extent
  }
  EntryInfo& info = entries_[entry].info;
  if (undeletable_.count(primaryKey) != 0) {
    dropEntry(entry);
    countWriteFailure();
    return;
  }
  if (erasing_.count(primaryKey) != 0) {
    info.stage = Stage::Parked;
    return;
  }
  writeEntryHeader(info);
}

void FileManager::writeEntryHeader(EntryInfo& info) {
  info.stage = Stage::Header;
  const PrimaryKey key = info.header.primaryKeyValue();
  const auto request = Pt::IoRequest::Create(
      new FileWriteEntryHeaderReceiver(this, key, info.serial, info.operation),
      static_cast<int>(kEntryHeaderSize), Pt::IoRequest::Normal);
  info.header.encodeTo(std::span<uint8_t, kEntryHeaderSize>(request->data(), kEntryHeaderSize));
  request->setOffset(info.headerOffset);
  device_->write(request);
}

void FileManager::finishEntryWrite(const PrimaryKey& primaryKey, uint32_t serial) {
  Pt::MutexLock guard(lock_);
  if (EntryInfo* info = entries_.find(primaryKey); info != nullptr && info->serial == serial) {
    info->stage = Stage::Settled;
    info->operation.reset();
    return;
  }
  // The entry was erased while its header was in flight: the delete header
  // can be written now that nothing else will land on its slot.
  auto [it, end] = pendingErasures_.equal_range(primaryKey);
  for (; it != end; ++it) {
    if (it->second.serial != serial) continue;
    const EntryInfo erased = it->second;
    pendingErasures_.erase(it);
    writeDeleteHeader(primaryKey, erased, erased.eraseOperation);
    return;
  }
}

// The data write failed (or the sync meant to make it durable): the range
// holds unknown bytes and no header was written, so the entry leaves the
// tables and its slot and range are free again.
void FileManager::failEntryWrite(const PrimaryKey& primaryKey, uint32_t serial) {
  countWriteFailure();
  Pt::MutexLock guard(lock_);
  const uint32_t entry = entries_.position(primaryKey);
  if (entry != EntryTable::kNone && entries_[entry].info.serial == serial) {
    dropEntry(entry);
    return;
  }
  issueHeaderOrPark(primaryKey, serial);  // erased meanwhile: releases it
}

// The header write failed: the slot may hold a torn header. The entry leaves
// the tables, and a delete header goes over the slot as for an erase.
void FileManager::failEntryHeader(const PrimaryKey& primaryKey, uint32_t serial,
                                  const FileOperationRef& operation) {
  countWriteFailure();
  Pt::MutexLock guard(lock_);
  EntryInfo failed;
  const uint32_t entry = entries_.position(primaryKey);
  if (entry != EntryTable::kNone && entries_[entry].info.serial == serial) {
    failed = entries_[entry].info;
    forgetEntry(entry);
    ++erasing_[primaryKey];
  } else {
    auto [it, end] = pendingErasures_.equal_range(primaryKey);
    while (it != end && it->second.serial != serial) ++it;
    if (it == end) return;
    failed = it->second;  // already counted in erasing_ by its erase
    pendingErasures_.erase(it);
    writeDeleteHeader(primaryKey, failed, failed.eraseOperation);
    return;
  }
  writeDeleteHeader(primaryKey, failed, operation);
}

// Takes an entry whose header is not on disk out of the tables.
void FileManager::dropEntry(uint32_t entry) {
  const EntryInfo& info = entries_[entry].info;
  releaseSpace(info.headerOffset, info.header.dataOffset, info.header.allocatedLength);
  forgetEntry(entry);
}

void FileManager::enterEntry(const PrimaryKey& primaryKey, const EntryInfo& info) {
  entries_.insert(primaryKey, info);  // as the most recent
}

// Takes the entry out of the table (and its recency) and the secondary index.
void FileManager::forgetEntry(uint32_t entry) {
  const EntryTable::Entry& forgotten = entries_[entry];
  secondaryIndex_.remove(forgotten.info.header.secondaryKeyValue(), forgotten.key);
  entries_.eraseAt(entry);
}

bool FileManager::holds(const PrimaryKey& primaryKey, uint32_t serial) {
  Pt::MutexLock guard(lock_);
  const EntryInfo* info = entries_.find(primaryKey);
  return info != nullptr && info->serial == serial;
}

bool FileManager::erase(const PrimaryKey& primaryKey) {
  Pt::MutexLock guard(lock_);
  const uint32_t entry = entries_.position(primaryKey);
  if (entry == EntryTable::kNone) return false;
  EntryInfo& info = entries_[entry].info;
  switch (info.stage) {
    case Stage::Settled:  // the header is on disk: delete it now
      ++erasing_[primaryKey];
      writeDeleteHeader(primaryKey, info, operations_.begin());
      break;
    case Stage::Header:  // a delete now could land before the header: wait
      ++erasing_[primaryKey];
      info.eraseOperation = operations_.begin();
      pendingErasures_.emplace(primaryKey, info);
      break;
    case Stage::Data:  // no header yet: the slot is freed when the data settles
      info.eraseOperation = operations_.begin();
      pendingErasures_.emplace(primaryKey, info);
      break;
    case Stage::Parked:  // no header on disk and none coming
      releaseSpace(info.headerOffset, info.header.dataOffset, info.header.allocatedLength);
      break;
  }
  forgetEntry(entry);
  PT_DEBUG_CHECK(entries_.size(), invariantsHold());
  return true;
}

void FileManager::writeDeleteHeader(const PrimaryKey& key, const EntryInfo& info,
                                    FileOperationRef operation) {
  const FileDeleteEntryReceiver::Target target{key, info.headerOffset, info.header.dataOffset,
                                               info.header.allocatedLength};
  const auto request =
      Pt::IoRequest::Create(new FileDeleteEntryReceiver(this, target, std::move(operation)),
                            static_cast<int>(kEntryHeaderSize), Pt::IoRequest::Normal);
  std::memset(request->data(), 0, kEntryHeaderSize);
  request->setOffset(info.headerOffset);
  device_->write(request);
}

void FileManager::deleteWritten(const FileDeleteEntryReceiver::Target& target,
                                const FileOperationRef& operation) {
  groupSync_->afterDurable([this, target, operation](int error) {
    if (error != 0) {
      failDelete(target);
      Pt::Exception::Post(WithSubject(
          ExFileReadEntry(kDeleteHeaderFailed.where, Pt::ExSystem(error, kDeleteSync.where)),
          KeySubject(target.primaryKey)));
      return;
    }
    Pt::MutexLock guard(lock_);
    releaseSpace(target.headerOffset, target.dataOffset, target.allocatedLength);
    keyDeleted(target.primaryKey);
  });
}

// The old header may still be on disk, pointing at its slot and range: both
// stay out of use, and no new header of the key is written while the store
// is open, so that the file never holds two headers of it.
void FileManager::failDelete(const FileDeleteEntryReceiver::Target& target) {
  countWriteFailure();
  Pt::MutexLock guard(lock_);
  const PrimaryKey& primaryKey = target.primaryKey;
  if (const auto evicting = evicting_.find(target.dataOffset); evicting != evicting_.end()) {
    evictingBytes_ -= evicting->second;  // it will not come free: stop waiting for it
    evicting_.erase(evicting);
    spaceFreed_.broadcast();
  }
  undeletable_.insert(primaryKey);
  keyDeleted(primaryKey);
}

// One erased header of the key is settled; when none is left, a header of the
// key that was parked behind them goes out.
void FileManager::keyDeleted(const PrimaryKey& primaryKey) {
  const auto erasing = erasing_.find(primaryKey);
  if (erasing == erasing_.end() || --erasing->second != 0) return;
  erasing_.erase(erasing);
  const EntryInfo* info = entries_.find(primaryKey);
  if (info == nullptr || info->stage != Stage::Parked) return;
  issueHeaderOrPark(primaryKey, info->serial);
}

FileManager::CompletedRead FileManager::read(const PrimaryKey& primaryKey, int32_t requestId) {
  EntryHeader header;
  std::string type;
  uint32_t serial = 0;
  {
    Pt::MutexLock guard(lock_);
    const uint32_t entry = entries_.position(primaryKey);
    if (entry == EntryTable::kNone) {
      throw std::invalid_argument("FileManager::read: no such entry");
    }
    entries_.touch(entry);  // now the most recent
    header = entries_[entry].info.header;
    serial = entries_[entry].info.serial;
    type = typeNameLocked(header.typeId);
  }
  // A stored type without a factory cannot be rebuilt: the lookup throws.
  const Pt::SmartPointer<CacheableFactory>& factory = factories_->lookup(type);
  return CompletedRead(FileReadEntryReceiver::Queue(
      *device_, header,
      Pt::SmartPointer<FileReadEntryReceiver>(
          new FileReadEntryReceiver(readSink_, this, serial, factory, primaryKey,
                                    header.secondaryKeyValue(), requestId, operations_.begin()))));
}

}  // namespace Tarn
