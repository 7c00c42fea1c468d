#include "support/TestFactory.h"

#include <chrono>

#include "tarn/Exceptions.h"

namespace TarnTest {
namespace {

constexpr Pt::ExWhere kTestFactory{"test/NamedFactory", 1};

}  // namespace

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::create(const Tarn::CacheKey<32>& key) {
  ++creates;
  {
    std::unique_lock<std::mutex> guard(mutex_);
    ++entered_;
    changed_.notify_all();
    changed_.wait_for(guard, std::chrono::seconds(30), [&] { return !gateClosed_; });
  }
  if (createBehaviour == Behaviour::Throw) throw Pt::ExSystem(EDOM, kTestFactory);
  if (createBehaviour == Behaviour::ReturnNull) return nullptr;
  return Tarn::Cacheable::Create(type_, Tarn::Buffer::Create(key.length, key.data));
}

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::decode(const Tarn::CacheKey<32>& /*key*/,
                                                       const Pt::SmartPointer<Tarn::Buffer>& data) {
  ++decodes;
  if (decodeBehaviour == Behaviour::Throw) throw Pt::ExSystem(EBADMSG, kTestFactory);
  if (decodeBehaviour == Behaviour::ReturnNull) return nullptr;
  return Tarn::Cacheable::Create(type_, data);
}

void NamedFactory::closeGate() {
  std::lock_guard<std::mutex> guard(mutex_);
  gateClosed_ = true;
}

void NamedFactory::openGate() {
  std::lock_guard<std::mutex> guard(mutex_);
  gateClosed_ = false;
  changed_.notify_all();
}

bool NamedFactory::waitEntered(int count, int timeoutMs) {
  std::unique_lock<std::mutex> guard(mutex_);
  return changed_.wait_for(guard, std::chrono::milliseconds(timeoutMs),
                           [&] { return entered_ >= count; });
}

Pt::SmartPointer<Tarn::FactoryManager> FactoriesFor(const std::vector<std::string>& types) {
  Tarn::FactoryManager::Factories factories;
  for (const std::string& type : types) factories.emplace_back(new NamedFactory(type));
  return Pt::SmartPointer<Tarn::FactoryManager>(new Tarn::FactoryManager(factories));
}

}  // namespace TarnTest
