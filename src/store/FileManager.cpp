#include "store/FileManager.h"

#include <unistd.h>

#include <cassert>
#include <cerrno>
#include <set>

#include "core/ConfigRules.h"
#include "core/RaiseSites.h"
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
  void onExtent(const ExtentHeader& header,
                uint32_t location) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.extents_.push_back({header, location});
  }
  void onFreeSlot(uint32_t slotOffset) override PT_NO_THREAD_SAFETY_ANALYSIS {
    store_.freeEntryHeaders_.push_back(slotOffset);
  }
  void onEntry(uint32_t slotOffset,
               const EntryHeader& header) override PT_NO_THREAD_SAFETY_ANALYSIS {
    const PrimaryKey primary = header.primaryKeyValue();
    // A second live header of the same key keeps its slot and its space,
    // but only the first one met is indexed; its secondary key still lists it.
    const bool added =
        store_.entries_
            .try_emplace(primary,
                         EntryInfo{header, slotOffset, NextSerial(), Stage::Settled, {}, {}})
            .second;
    if (!added) store_.secondaryIndex_.addDuplicate(header.secondaryKeyValue(), primary);
  }

 private:
  FileManager& store_;
};

FileManager::FileManager(const wchar_t* path, CacheManager* owner, const Config& config,
                         const Pt::SmartPointer<FactoryManager>& factories)
    : minAllocation_(static_cast<uint32_t>(EffectiveMinAllocation(config.minAllocation))),
      owner_(owner),
      factories_(factories),
      freeSpace_(minAllocation_) {
  const std::string narrow = NativePath(path, kOpenFile);
  // Refused before anything is written: the type table could not hold it.
  CheckTypeNames(*factories_);
  if (::access(narrow.c_str(), F_OK) != 0 && config.createIfMissing) CreateCacheFile(path);
  fileLock_.acquire(narrow);
  load(fileLock_.descriptor());
  device_ = Pt::PtIoDeviceFile::Create(path, Pt::PtIoDeviceFile::ReadWrite);
  fileEnd_.store(device_->length());
  groupSync_ = std::make_unique<GroupSync>(device_, !config.relaxedOrdering);
}

FileManager::~FileManager() {
  operations_.waitAll();
  groupSync_.reset();
  try {
    device_->flush();
  } catch (const Pt::Exception& failure) {
    // Closing cannot report to anyone; the data already written stays.
    Pt::Exception::Post(failure);
  }
}

void FileManager::CheckTypeNames(const FactoryManager& factories) {
  for (const auto& factory : factories) {
    if (factory->getType().size() > kMaxTypeNameLength) {
      throw Pt::ExSystem(ENAMETOOLONG, kOpenTypeNameTooLong.where);
    }
  }
}

void FileManager::load(int fd) {
  Pt::MutexLock guard(lock_);
  extents_.reserve(4);
  secondaryIndex_.defer();
  Loader loader(*this);
  const CacheFileLoader::Summary summary = CacheFileLoader::Load(fd, loader);
  for (const FileRange& gap : summary.gaps) freeSpace_.add(gap.offset, gap.length);
  registerTypes(fd, summary.header.typeTableOffset);
}

// Every factory's type gets an id: types the file knows keep theirs, new ones
// take the next ids in registration order. The file must know no type that
// has no factory, and two factories may not serve one type.
void FileManager::registerTypes(int fd, uint32_t typeTableOffset) {
  const size_t known = types_.size();
  for (const auto& factory : *factories_) {
    const std::string& name = factory->getType();
    bool found = false;
    for (const TypeInfo& type : types_) found = found || type.name == name;
    if (!found) types_.push_back({static_cast<uint32_t>(types_.size() + 1), name});
  }
  if (types_.size() != factories_->size() || types_.size() > kTypeRecordCount) {
    throw ExFactoryClassNotFound(kOpenTypeCount.where);
  }
  if (types_.size() == known) return;  // nothing new: the file is not touched

  std::vector<TypeRecord> records;
  for (const TypeInfo& type : types_) {
    records.push_back(TypeRecord::ForType(static_cast<uint16_t>(type.id), type.name));
  }
  const auto table = EncodeTypeTable(records);
  const size_t bytes = records.size() * kTypeRecordSize;
  errno = 0;
  if (pwrite(fd, table.data(), bytes, typeTableOffset) != static_cast<ssize_t>(bytes)) {
    throw Pt::ExSystem(errno != 0 ? errno : EIO, kOpenWriteTypeTable.where);
  }
}

void FileManager::commit() {
  operations_.waitThrough(operations_.lastStarted());
  device_->flush();
}

bool FileManager::contains(const PrimaryKey& key) {
  Pt::MutexLock guard(lock_);
  return entries_.count(key) != 0;
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
      return std::make_pair(entry.second.header.secondaryKeyValue(), entry.first);
    });
  }
  secondaryIndex_.find(secondaryKey, primaryKeys);
}

uint32_t FileManager::NextSerial() {
  return serialCounter.fetch_add(1) + 1;
}

}  // namespace Tarn
