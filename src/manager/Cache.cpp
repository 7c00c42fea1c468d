// The Cache facade: checks its arguments, holds a reference on what it is
// handed for the length of the call, and forwards to the CacheManager.
#include "tarn/Cache.h"

#include <stdexcept>
#include <utility>

#include "core/ConfigRules.h"
#include "manager/CacheAdapters.h"
#include "manager/CacheManager.h"
#include "pt/Platform.h"

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

Pt::SmartPointer<CacheableReceiver> Receiver(const Pt::SmartPointer<CacheableReceiver>& receiver) {
  if (!receiver) throw std::invalid_argument("Tarn::Cache: null receiver");
  return receiver;
}

Pt::SmartPointer<FactoryManager> Registry(const FactoryManager::Factories& factories) {
  return Pt::SmartPointer<FactoryManager>(new FactoryManager(factories));
}

Pt::SmartPointer<FactoryManager> Registry(const Pt::SmartPointer<CacheableFactory>& factory) {
  return Pt::SmartPointer<FactoryManager>(new FactoryManager(factory));
}

CacheManager* Open(const wchar_t* path, const Config& config,
                   const Pt::SmartPointer<FactoryManager>& factories,
                   const TierConfig& tier = TierConfig()) {
  CheckConfigSizes(config);
  return new CacheManager(path, config, factories, tier);
}

}  // namespace

Cache::Cache(const wchar_t* path, const Config& config,
             const std::vector<Pt::SmartPointer<CacheableFactory>>& factories)
    : manager_(Open(path, config, Registry(factories))) {}

Cache::Cache(const wchar_t* path, const Config& config, CacheableFactory* const factory)
    : manager_(Open(path, config, Registry(Adopt(factory)))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             const std::vector<Pt::SmartPointer<CacheableFactory>>& factories)
    : manager_(Open(WidePath(path).c_str(), config, Registry(factories))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             CacheableFactory* const factory)
    : manager_(Open(WidePath(path).c_str(), config, Registry(Adopt(factory)))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             const Pt::SmartPointer<CacheableFactory>& factory)
    : manager_(Open(WidePath(path).c_str(), config, Registry(factory))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             std::shared_ptr<CacheableFactory> factory)
    : manager_(Open(WidePath(path).c_str(), config, Registry(SharedFactory(std::move(factory))))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config, CacheableFactory& factory)
    : manager_(Open(WidePath(path).c_str(), config, Registry(BorrowedFactory(factory)))) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             const std::vector<Pt::SmartPointer<CacheableFactory>>& factories,
             const TierConfig& tier)
    : manager_(Open(WidePath(path).c_str(), config, Registry(factories), tier)) {}

Cache::Cache(const std::filesystem::path& path, const Config& config,
             std::shared_ptr<CacheableFactory> factory, const TierConfig& tier)
    : manager_(Open(WidePath(path).c_str(), config, Registry(SharedFactory(std::move(factory))),
                    tier)) {}

Cache::~Cache() {
  delete manager_;
}

void Cache::insert(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                   Cacheable* cacheable) {
  insert(primaryKey, secondaryKey, Adopt(cacheable));
}

void Cache::insert(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                   const Pt::SmartPointer<Cacheable>& cacheable) {
  manager_->insert(Primary(primaryKey), Secondary(secondaryKey), cacheable, 0);
}

int Cache::find(const CacheKey<32>& primaryKey, CacheableReceiver* const receiver) {
  return find(primaryKey, Adopt(receiver));
}

int Cache::find(const CacheKey<32>& primaryKey,
                const Pt::SmartPointer<CacheableReceiver>& receiver) {
  return manager_->find(Primary(primaryKey), Receiver(receiver));
}

int Cache::find(const CacheKey<32>& primaryKey, OutcomeCallback onOutcome) {
  return find(primaryKey, CallbackReceiver(std::move(onOutcome)));
}

std::future<Pt::SmartPointer<Cacheable>> Cache::findFuture(const CacheKey<32>& primaryKey) {
  const Pt::SmartPointer<PromiseReceiver> receiver(new PromiseReceiver);
  std::future<Pt::SmartPointer<Cacheable>> outcome = receiver->future();
  // 0: the key is nowhere and the receiver will never be called.
  if (find(primaryKey, Pt::SmartPointer<CacheableReceiver>(receiver)) == 0) receiver->settleEmpty();
  return outcome;
}

int Cache::findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                      const std::string& type, CacheableReceiver* const receiver) {
  return findCreate(primaryKey, secondaryKey, type, Adopt(receiver));
}

int Cache::findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                      const std::string& type,
                      const Pt::SmartPointer<CacheableReceiver>& receiver) {
  return manager_->findCreate(Primary(primaryKey), Secondary(secondaryKey), type,
                              Receiver(receiver));
}

int Cache::findCreate(const CacheKey<32>& primaryKey, const CacheKey<16>& secondaryKey,
                      const std::string& type, OutcomeCallback onOutcome) {
  return findCreate(primaryKey, secondaryKey, type, CallbackReceiver(std::move(onOutcome)));
}

std::future<Pt::SmartPointer<Cacheable>> Cache::findCreateFuture(const CacheKey<32>& primaryKey,
                                                                 const CacheKey<16>& secondaryKey,
                                                                 const std::string& type) {
  const Pt::SmartPointer<PromiseReceiver> receiver(new PromiseReceiver);
  std::future<Pt::SmartPointer<Cacheable>> outcome = receiver->future();
  findCreate(primaryKey, secondaryKey, type, Pt::SmartPointer<CacheableReceiver>(receiver));
  return outcome;
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

IoEngine ActiveIoEngine() {
  return PublicIoEngine(Pt::ActiveIoEngine());
}

TierStatistics Cache::tierStatistics() {
  return manager_->tierStatistics();
}

int32_t Cache::droppedEntries() {
  return static_cast<int32_t>(manager_->fileManager().droppedEntries());
}

}  // namespace Tarn
