// The Cache facade: checks its arguments, holds a reference on what it is
// handed for the length of the call, and forwards to the CacheManager.
#include "tarn/Cache.h"

#include <stdexcept>

#include "manager/CacheManager.h"

namespace Tarn {
namespace {

template <int N>
const CacheKey<N>& Checked(const CacheKey<N>& key, const char* what) {
  if (key.length < 0 || key.length > N) throw std::invalid_argument(what);
  return key;
}

const PrimaryKey& Primary(const PrimaryKey& key) {
  return Checked(key, "Tarn::Cache: primary key length outside 0..32");
}

const SecondaryKey& Secondary(const SecondaryKey& key) {
  return Checked(key, "Tarn::Cache: secondary key length outside 0..16");
}

Pt::SmartPointer<CacheableReceiver> Receiver(CacheableReceiver* receiver) {
  if (receiver == nullptr) throw std::invalid_argument("Tarn::Cache: null receiver");
  return Pt::SmartPointer<CacheableReceiver>(receiver);
}

Pt::SmartPointer<FactoryManager> Registry(const FactoryManager::Factories& factories) {
  return Pt::SmartPointer<FactoryManager>(new FactoryManager(factories));
}

}  // namespace

Cache::Cache(const wchar_t* path, const Config& config,
             const std::vector<Pt::SmartPointer<CacheableFactory>>& factories)
    : manager_(new CacheManager(path, config, Registry(factories))) {}

Cache::Cache(const wchar_t* path, const Config& config, CacheableFactory* const factory)
    : manager_(new CacheManager(path, config,
                                Pt::SmartPointer<FactoryManager>(new FactoryManager(
                                    Pt::SmartPointer<CacheableFactory>(factory))))) {}

Cache::~Cache() {
  delete manager_;
}

void Cache::insert(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                   Cacheable* cacheable) {
  const Pt::SmartPointer<Cacheable> held(cacheable);
  manager_->insert(Primary(primaryKey), Secondary(secondaryKey), held, 0);
}

int Cache::find(const CacheKey<32>& primaryKey, CacheableReceiver* const receiver) {
  return manager_->find(Primary(primaryKey), Receiver(receiver));
}

int Cache::findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                      const std::string& type, CacheableReceiver* const receiver) {
  return manager_->findCreate(Primary(primaryKey), Secondary(secondaryKey), type,
                              Receiver(receiver));
}

void Cache::findPrimaryKeys(const CacheKey<16>& secondaryKey,
                            std::vector<CacheKey<32>>& primaryKeys) {
  manager_->fileManager().findPrimaryKeys(Secondary(secondaryKey), primaryKeys);
}

void Cache::erase(const CacheKey<32>& primaryKey) {
  manager_->erase(Primary(primaryKey));
}

void Cache::clear() {
  manager_->clear();
}

void Cache::purge(const CacheKey<32>& primaryKey) {
  manager_->purge(Primary(primaryKey));
}

void Cache::cancel(int requestId) {
  manager_->cancel(requestId);
}

void Cache::cancelAll() {
  manager_->cancelAll();
}

bool Cache::isCached(const CacheKey<32>& primaryKey) {
  return manager_->isCached(Primary(primaryKey));
}

void Cache::commit() {
  manager_->fileManager().commit();
}

int32_t Cache::fileWriteFailures() {
  return manager_->fileManager().writeFailures();
}

int32_t Cache::fileEvictions() {
  return manager_->fileManager().budgetEvictions();
}

Statistics& Cache::statistics(Statistics& statistics) {
  return manager_->statistics(statistics);
}

int32_t Cache::droppedEntries() {
  return static_cast<int32_t>(manager_->fileManager().droppedEntries());
}

}  // namespace Tarn
