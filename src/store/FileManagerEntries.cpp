// The entry flows of the file store: write, settle, erase. Each changes the
// tables under one hold of the lock and then queues its write, ordered so
// that the file never holds a header that points at unwritten data, and never
// loses a delete to a header write that lands after it.
#include <cstring>
#include <stdexcept>

#include "core/RaiseSites.h"
#include "store/FileDeleteEntryReceiver.h"
#include "store/FileManager.h"
#include "store/FileReadEntryReceiver.h"
#include "store/FileWriteEntryReceiver.h"
#include "tarn/Exceptions.h"

namespace Tarn {

void FileManager::write(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                        const std::string& type, int32_t length, const uint8_t* data) {
  if (length < 0 || (length > 0 && data == nullptr)) {
    throw std::invalid_argument("FileManager::write: no data");
  }
  EntryInfo info;
  {
    Pt::MutexLock guard(lock_);
    info = reserveEntry(primaryKey, secondaryKey, type, static_cast<uint32_t>(length));
  }
  // The data is copied and queued outside the lock; the header follows once
  // the data is on disk (FileWriteEntryReceiver).
  const uint32_t allocated = info.header.allocatedLength;
  const auto request =
      Pt::IoRequest::Create(new FileWriteEntryReceiver(this, primaryKey, device_, info.serial,
                                                       info.headerOffset, info.header.encode()),
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
  if (entries_.count(primaryKey) != 0) {
    throw std::invalid_argument("FileManager::write: the key is already stored");
  }
  const uint32_t id = typeIdLocked(type);
  if (id == 0) throw ExFactoryClassNotFound(kInsertUnknownType.where);
  // Validates both key lengths before anything is taken.
  EntryHeader header =
      EntryHeader::ForEntry(static_cast<uint16_t>(id), primaryKey, secondaryKey, 0, length, 0);
  const uint32_t slot = allocateEntryHeader();
  try {
    allocateData(length, header.dataOffset, header.allocatedLength);
  } catch (...) {
    freeEntryHeaders_.push_front(slot);  // the slot goes back where it came from
    throw;
  }
  EntryInfo info{header, slot, NextSerial(), true};
  entries_.emplace(primaryKey, info);
  secondaryIndex_.add(secondaryKey, primaryKey);
  return info;
}

void FileManager::finishEntryWrite(const PrimaryKey& primaryKey, uint32_t serial) {
  Pt::MutexLock guard(lock_);
  const auto entry = entries_.find(primaryKey);
  if (entry != entries_.end() && entry->second.serial == serial) {
    entry->second.writePending = false;
    return;
  }
  // The entry was erased while this write was in flight: its delete header
  // can be written now that nothing else will land on its slot.
  auto [it, end] = pendingErasures_.equal_range(primaryKey);
  for (; it != end; ++it) {
    if (it->second.serial != serial) continue;
    const EntryInfo erased = it->second;
    pendingErasures_.erase(it);
    writeDeleteHeader(erased.headerOffset, erased.header.dataOffset, erased.header.allocatedLength);
    return;
  }
}

bool FileManager::erase(const PrimaryKey& primaryKey) {
  Pt::MutexLock guard(lock_);
  const auto entry = entries_.find(primaryKey);
  if (entry == entries_.end()) return false;
  const EntryInfo& info = entry->second;
  // A header write in flight would land after a delete header and bring the
  // entry back; such an entry waits in pendingErasures_ for its write to end.
  if (!info.writePending) {
    writeDeleteHeader(info.headerOffset, info.header.dataOffset, info.header.allocatedLength);
  } else {
    pendingErasures_.emplace(primaryKey, info);
  }
  secondaryIndex_.remove(info.header.secondaryKeyValue(), primaryKey);
  entries_.erase(entry);
  return true;
}

void FileManager::read(const PrimaryKey& primaryKey, int32_t requestId) {
  EntryHeader header;
  std::string type;
  {
    Pt::MutexLock guard(lock_);
    const auto entry = entries_.find(primaryKey);
    if (entry == entries_.end()) throw std::invalid_argument("FileManager::read: no such entry");
    header = entry->second.header;
    type = typeNameLocked(header.typeId);
  }
  // A stored type without a factory cannot be rebuilt: the lookup throws.
  const Pt::SmartPointer<CacheableFactory>& factory = factories_->lookup(type);
  FileReadEntryReceiver::Queue(*device_, header,
                               Pt::SmartPointer<FileReadEntryReceiver>(new FileReadEntryReceiver(
                                   owner_, factory, primaryKey, header.secondaryKeyValue(),
                                   requestId)));
}

void FileManager::writeDeleteHeader(uint32_t headerOffset, uint32_t dataOffset,
                                    uint32_t allocatedLength) {
  const auto request = Pt::IoRequest::Create(
      new FileDeleteEntryReceiver(headerOffset, dataOffset, allocatedLength, this),
      static_cast<int>(kEntryHeaderSize), Pt::IoRequest::Normal);
  std::memset(request->data(), 0, kEntryHeaderSize);
  request->setOffset(headerOffset);
  device_->write(request);
}

}  // namespace Tarn
