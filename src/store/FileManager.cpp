#include "store/FileManager.h"

#include <algorithm>
#include <cassert>
#include <cerrno>
#include <set>

#include "core/ConfigRules.h"
#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "store/CacheFileLoader.h"
#include "store/NativePath.h"
#include "tarn/CacheFile.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

std::atomic<uint32_t> serialCounter{0};

}  // namespace

// Fills the tables from the records as the loader reads them. It runs only
// inside load(), which holds the store's lock; the compile-time lock
// analysis cannot see that through the loader's virtual calls.
class FileManager::Loader : public CacheFileLoader::Visitor {
 public:
  explicit Loader(FileManager& store) : store_(store) {}

  void onType(const TypeRecord& record) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.types_.push_back({record.id, record.typeName()});
  }
  // So that the entries enter the table without a single allocation.
  void onEntryCount(uint32_t liveEntries) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.entries_.reserve(liveEntries);
  }
  void onExtent(const ExtentHeader& header,
                uint32_t location) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.extents_.push_back({header, location});
  }
  void onFreeSlot(uint32_t slotOffset) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.freeEntryHeaders_.push_back(slotOffset);
  }
  // The loader hands over each primary key once (it drops the others).
  void onEntry(uint32_t slotOffset,
               const EntryHeader& header) override PT_NO_THREAD_SAFETY_ANALYSIS {
    // Indexed in one pass once the load is over (indexAppended).
    store_.entries_.append(header.primaryKeyValue(),
                           EntryInfo{header, slotOffset, NextSerial(), Stage::Settled, {}, {}});
  }
  // A dropped entry's slot is free; the open clears it on disk before it
  // can be handed out, so that the entry cannot come back.
  void onDroppedEntry(uint32_t slotOffset, const EntryHeader&,
                      DropReason) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.freeEntryHeaders_.push_back(slotOffset);
    droppedSlots.push_back(slotOffset);
  }

  std::vector<uint32_t> droppedSlots;

 private:
  FileManager& store_;
};

FileManager::FileManager(const wchar_t* path, EntryReadSink* readSink, const Config& config,
                         const Pt::SmartPointer<FactoryManager>& factories)
    : minAllocation_(static_cast<uint32_t>(EffectiveMinAllocation(config.minAllocation))),
      readSink_(readSink),
      factories_(factories),
      budget_(EffectiveFileBudget(config.fileBudget)),
      freeSpace_(minAllocation_) {
  const std::string narrow = NativePath(path, kOpenFile);
  // Refused before anything is written: the type table could not hold it.
  CheckTypeNames(*factories_);
  // Every failure from here on names the file and the step that failed.
  // A new file names itself in its failures.
  if (!Pt::FileExists(narrow) && config.createIfMissing) CreateCacheFile(path);
  const char* step = "open and lock cache file";
  try {
    fileLock_.acquire(narrow);
    step = "read cache file";
    load(fileLock_.file());
    step = "open cache file for I/O";
    device_ = Pt::PtIoDeviceFile::Create(path, Pt::PtIoDeviceFile::ReadWrite);
  } catch (Pt::Exception& failure) {
    failure.addContext(PathSubject(step, narrow));
    throw;
  }
  fileEnd_.store(device_->length());
  groupSync_ = std::make_unique<GroupSync>(device_, !config.relaxedOrdering);
}

FileManager::~FileManager() {
  operations_.waitAll();
  groupSync_.reset();
  try {
    device_->flush();
  } catch (const Pt::Exception& failure) {
    // Closing cannot report to anyone; the data already written stays, and
    // nothing is relocated on top of writes that may not be durable.
    countWriteFailure();
    Pt::Exception::Post(failure);
  }
  try {
    relocateTail();
  } catch (const std::exception&) {
    // Out of memory while planning: the file stays as it is.
  }
}

void FileManager::CheckTypeNames(const FactoryManager& factories) {
  for (const auto& factory : factories) {
    const std::string& type = factory->getType();
    if (type.empty() || type.size() > kMaxTypeNameLength) {
      throw WithSubject(ExInvalidTypeName(kOpenTypeNameTooLong.where),
                        TypeSubject(type) + " is " + std::to_string(type.size()) + " bytes");
    }
  }
}

void FileManager::load(Pt::SyncFile& file) {
  Pt::MutexLock guard(lock_);
  extents_.reserve(4);
  secondaryIndex_.defer();
  Loader loader(*this);
  const CacheFileLoader::Summary summary = CacheFileLoader::Load(file, loader);
  entries_.indexAppended();
  for (const FileRange& gap : summary.gaps) freeSpace_.add(gap.offset, gap.length);
  droppedEntries_ = summary.droppedEntries;
  const ExtentInfo& first = extents_.front();
  firstExtentEnd_ = static_cast<uint32_t>(std::max(
      {uint64_t{kFileHeaderSize}, uint64_t{summary.header.typeTableOffset} + kTypeTableSize,
       uint64_t{first.location} + kExtentHeaderSize,
       first.header.entriesOffset + first.header.slotsLength()}));
  repairSalvaged(file, loader.droppedSlots, summary.chainCutAt);
  registerTypes(file, summary.header.typeTableOffset);
  trimTrailing(file, summary.fileLength - summary.trailingBytes, summary.fileLength);
}

// Cuts the file back to the end of the last range a record claims: bytes
// behind it (data of entries erased before the close, an entry or extent
// written before a crash but never reached from a header or link) would
// otherwise stay unused for good, since new space is taken at the end. No
// record points there: repairSalvaged has already cleared, durably, the
// dropped headers and a dangling link. It comes last, so that an open that
// fails earlier leaves the file as it was. So a crash before, during or after
// the cut leaves a file that opens with the same entries.
void FileManager::trimTrailing(Pt::SyncFile& file, uint64_t claimedEnd, uint64_t fileLength) {
  if (claimedEnd >= fileLength) return;
  file.truncate(claimedEnd, kOpenTrimTrailing.where);
  file.sync(kOpenTrimTrailing.where);
}

// Writes what the load salvaged back to the file before anything else is
// written: each dropped entry's slot as a free slot and a link that led to
// no extent as the end of the chain, then syncs. A dropped header left on
// disk would come back at the next open once its slot or range was reused
// (pointing at another entry's bytes), and a dangling link could meet an
// extent-like pattern in data written later.
void FileManager::repairSalvaged(Pt::SyncFile& file, const std::vector<uint32_t>& droppedSlots,
                                 uint32_t chainCutAt) {
  if (droppedSlots.empty() && chainCutAt == 0) return;
  const auto freeSlot = EntryHeader{}.encode();
  for (const uint32_t slot : droppedSlots) {
    file.writeAt(freeSlot.data(), freeSlot.size(), slot, kOpenSalvageWrite.where);
  }
  if (chainCutAt != 0) {
    ExtentInfo& last = extents_.back();
    last.header.nextExtent = 0;
    const auto image = last.header.encode();
    file.writeAt(image.data(), image.size(), last.location, kOpenSalvageWrite.where);
  }
  file.sync(kOpenSalvageWrite.where);
}

// Every factory's type gets an id: types the file knows keep theirs, new ones
// take the next ids in registration order. The file must know no type that
// has no factory, and two factories may not serve one type.
void FileManager::registerTypes(Pt::SyncFile& file, uint32_t typeTableOffset) {
  const size_t known = types_.size();
  for (const auto& factory : *factories_) {
    const std::string& name = factory->getType();
    bool found = false;
    for (const TypeInfo& type : types_) found = found || type.name == name;
    if (!found) types_.push_back({static_cast<uint32_t>(types_.size() + 1), name});
  }
  if (types_.size() != factories_->size() || types_.size() > kTypeRecordCount) {
    std::string subject = "the file's types";
    for (const TypeInfo& type : types_) subject += " " + Printable(type.name);
    throw WithSubject(ExFactoryClassNotFound(kOpenTypeCount.where),
                      subject + " against " + std::to_string(factories_->size()) + " factories");
  }
  if (types_.size() == known) return;  // nothing new: the file is not touched

  std::vector<TypeRecord> records;
  for (const TypeInfo& type : types_) {
    records.push_back(TypeRecord::ForType(static_cast<uint16_t>(type.id), type.name));
  }
  const auto table = EncodeTypeTable(records);
  // Durable before the open returns: an entry header naming a new type may
  // reach the disk soon after, and must never name an id the file lacks.
  file.writeAt(table.data(), records.size() * kTypeRecordSize, typeTableOffset,
               kOpenWriteTypeTable.where);
  file.sync(kOpenWriteTypeTable.where);
}

void FileManager::commit() {
  operations_.waitThrough(operations_.lastStarted());
  device_->flush();
}

bool FileManager::contains(const PrimaryKey& key) {
  Pt::MutexLock guard(lock_);
  return entries_.contains(key);
}

int32_t FileManager::entryCount() {
  Pt::MutexLock guard(lock_);
  return static_cast<int32_t>(entries_.size());
}

uint32_t FileManager::typeId(const std::string& name) {
  Pt::MutexLock guard(lock_);
  return typeIdLocked(name);
}

uint32_t FileManager::typeIdLocked(const std::string& name) const {
  for (const TypeInfo& type : types_) {
    if (type.name == name) return type.id;
  }
  return 0;
}

const std::string& FileManager::typeName(uint32_t id) {
  Pt::MutexLock guard(lock_);
  return typeNameLocked(id);
}

const std::string& FileManager::typeNameLocked(uint32_t id) const {
  static const std::string kNone;
  for (const TypeInfo& type : types_) {
    if (type.id == id) return type.name;
  }
  return kNone;
}

void FileManager::findPrimaryKeys(const SecondaryKey& secondaryKey,
                                  std::vector<PrimaryKey>& primaryKeys) {
  Pt::MutexLock guard(lock_);
  if (secondaryIndex_.deferred()) {
    secondaryIndex_.build(entries_, [](const auto& entry) {
      return std::make_pair(entry.info.header.secondaryKeyValue(), entry.key);
    });
  }
  secondaryIndex_.find(secondaryKey, primaryKeys);
}

uint32_t FileManager::NextSerial() {
  return serialCounter.fetch_add(1) + 1;
}

}  // namespace Tarn
