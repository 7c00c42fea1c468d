#include "support/TestFactory.h"

namespace TarnTest {

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::create(const Tarn::CacheKey<32>& key) {
  return Tarn::Cacheable::Create(type_, Tarn::Buffer::Create(key.length, key.data));
}

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::decode(const Tarn::CacheKey<32>& /*key*/,
                                                       const Pt::SmartPointer<Tarn::Buffer>& data) {
  return Tarn::Cacheable::Create(type_, data);
}

Pt::SmartPointer<Tarn::FactoryManager> FactoriesFor(const std::vector<std::string>& types) {
  Tarn::FactoryManager::Factories factories;
  for (const std::string& type : types) factories.emplace_back(new NamedFactory(type));
  return Pt::SmartPointer<Tarn::FactoryManager>(new Tarn::FactoryManager(factories));
}

}  // namespace TarnTest
