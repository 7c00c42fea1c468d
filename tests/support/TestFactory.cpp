#include "support/TestFactory.h"

#include <chrono>
#include <cstring>
#include <stdexcept>
#include <string>

#include "tarn/Exceptions.h"

namespace TarnTest {
namespace {

constexpr Pt::ExWhere kTestFactory{"test/NamedFactory", 1};

using Part = NamedFactory::Part;
using Behaviour = NamedFactory::Behaviour;

// A plain object that throws from one of its parts.
class Faulty : public Tarn::Cacheable {
 public:
  Faulty(const std::string& type, const Pt::SmartPointer<Tarn::Buffer>& data, Part part,
         Behaviour behaviour)
      : Cacheable(type, data), part_(part), behaviour_(behaviour) {}

  bool verify() override {
    if (part_ == Part::Verify) ThrowAs(behaviour_);
    return Cacheable::verify();
  }
  int size() override {
    if (part_ == Part::Size) ThrowAs(behaviour_);
    return Cacheable::size();
  }
  Pt::SmartPointer<Tarn::Buffer> encode(bool forExport) override {
    if (part_ == Part::Encode) ThrowAs(behaviour_);
    return Cacheable::encode(forExport);
  }

 private:
  const Part part_;
  const Behaviour behaviour_;
};

}  // namespace

void ThrowAs(NamedFactory::Behaviour behaviour) {
  switch (behaviour) {
    case Behaviour::Throw: {
      const std::wstring text(NamedFactory::kThrownText,
                              NamedFactory::kThrownText + std::strlen(NamedFactory::kThrownText));
      throw Pt::Exception(Pt::ExReason{text.c_str(), kTestFactory, 1});
    }
    case Behaviour::ThrowStd:
      throw std::runtime_error(NamedFactory::kThrownText);
    case Behaviour::ThrowOther:
      throw 42;
    default:
      return;
  }
}

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::make(const Pt::SmartPointer<Tarn::Buffer>& data) {
  const Part part = faultyPart;
  if (part == Part::None) return Tarn::Cacheable::Create(type_, data);
  return FaultyObject(type_, data, part, faultyBehaviour);
}

Pt::SmartPointer<Tarn::Cacheable> FaultyObject(const std::string& type,
                                               const Pt::SmartPointer<Tarn::Buffer>& data,
                                               NamedFactory::Part part,
                                               NamedFactory::Behaviour behaviour) {
  return Pt::SmartPointer<Tarn::Cacheable>(new Faulty(type, data, part, behaviour));
}

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::create(const Tarn::CacheKey<32>& key) {
  ++creates;
  {
    std::unique_lock<std::mutex> guard(mutex_);
    ++entered_;
    changed_.notify_all();
    changed_.wait_for(guard, std::chrono::seconds(30), [&] { return !gateClosed_; });
  }
  const Behaviour behaviour = createBehaviour;
  if (behaviour == Behaviour::Throw) throw Pt::ExSystem(EDOM, kTestFactory);
  if (behaviour == Behaviour::ReturnNull) return nullptr;
  ThrowAs(behaviour);
  return make(Tarn::Buffer::Create(key.length, key.data));
}

Pt::SmartPointer<Tarn::Cacheable> NamedFactory::decode(const Tarn::CacheKey<32>& /*key*/,
                                                       const Pt::SmartPointer<Tarn::Buffer>& data) {
  ++decodes;
  const Behaviour behaviour = decodeBehaviour;
  if (behaviour == Behaviour::Throw) throw Pt::ExSystem(EBADMSG, kTestFactory);
  if (behaviour == Behaviour::ReturnNull) return nullptr;
  ThrowAs(behaviour);
  return make(data);
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
