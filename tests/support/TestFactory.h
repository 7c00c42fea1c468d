// Factories for tests.
//
// NamedFactory serves a type: create() makes an object holding the key's
// bytes, decode() rebuilds an object from its stored bytes. Each can be told
// to block in create() until released (a gate), to throw (a Pt::Exception, a
// std::exception or an int), or to return no object, and counts its calls.
// The objects it makes can be told to throw from verify(), size() or encode().
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>
#include <string>
#include <vector>

#include "core/FactoryManager.h"
#include "tarn/CacheableFactory.h"

namespace TarnTest {

class NamedFactory : public Tarn::CacheableFactory {
 public:
  enum class Behaviour { Normal, Throw, ThrowStd, ThrowOther, ReturnNull };
  enum class Part { None, Verify, Size, Encode };
  // The text of what the Throw and ThrowStd behaviours throw.
  static constexpr const char* kThrownText = "thrown by the test";

  explicit NamedFactory(std::string type) : type_(std::move(type)) {}

  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override;
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>& key,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override;
  const std::string& getType() const override { return type_; }

  std::atomic<Behaviour> createBehaviour{Behaviour::Normal};
  std::atomic<Behaviour> decodeBehaviour{Behaviour::Normal};
  // Objects made from now on throw from `faultyPart` as `faultyBehaviour`
  // says (Throw, ThrowStd or ThrowOther).
  std::atomic<Part> faultyPart{Part::None};
  std::atomic<Behaviour> faultyBehaviour{Behaviour::Throw};
  std::atomic<int> creates{0};
  std::atomic<int> decodes{0};

  // While closed, create() blocks (after counting itself as entered).
  void closeGate();
  void openGate();
  // Waits until `count` create() calls have entered.
  bool waitEntered(int count, int timeoutMs = 20000);

 private:
  Pt::SmartPointer<Tarn::Cacheable> make(const Pt::SmartPointer<Tarn::Buffer>& data);

  std::string type_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool gateClosed_ = false;
  int entered_ = 0;
};

// Throws as `behaviour` says (nothing for Normal and ReturnNull).
void ThrowAs(NamedFactory::Behaviour behaviour);

// A plain object of `type` holding `data` whose `part` throws as `behaviour`
// says.
Pt::SmartPointer<Tarn::Cacheable> FaultyObject(const std::string& type,
                                               const Pt::SmartPointer<Tarn::Buffer>& data,
                                               NamedFactory::Part part,
                                               NamedFactory::Behaviour behaviour);

// A factory manager serving `types`, one NamedFactory each, in that order.
Pt::SmartPointer<Tarn::FactoryManager> FactoriesFor(const std::vector<std::string>& types);

}  // namespace TarnTest
