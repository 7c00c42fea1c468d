#include "support/CacheFixture.h"

#include <vector>

#include "platform/IoFaultInjection.h"
#include "support/ZeroedConfig.h"

namespace TarnTest {

void CacheFixture::TearDown() {
  factory_->openGate();
  Pt::IoFaultInjection::Clear();
  cache_.reset();
}

Tarn::Config CacheFixture::DefaultConfig() {
  Tarn::Config config = Tarn::ZeroedConfig();
  config.memoryTarget = 1 << 30;
  config.memorySlack = 0;
  config.workerThreads = 2;
  config.createIfMissing = true;
  return config;
}

Tarn::Cache& CacheFixture::open(const Tarn::Config& config) {
  cache_.reset();
  cache_ = std::make_unique<Tarn::Cache>(
      path_.c_str(), config, std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{factory_});
  return *cache_;
}

Pt::SmartPointer<Tarn::Cacheable> CacheFixture::Object(size_t size, uint8_t fill) {
  const std::vector<uint8_t> bytes(size, fill);
  return Tarn::Cacheable::Create("tile",
                                 Tarn::Buffer::Create(static_cast<int32_t>(size), bytes.data()));
}

void CacheFixture::insert(const std::string& key, size_t size, const std::string& secondary) {
  cache_->insert(Key(key), Secondary(secondary), Object(size).get());
}

Tarn::Statistics CacheFixture::stats() {
  Tarn::Statistics statistics;
  return cache_->statistics(statistics);
}

}  // namespace TarnTest
