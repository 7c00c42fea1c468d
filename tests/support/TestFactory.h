// Factories for tests.
//
// NamedFactory serves a type: create() makes an object holding the key's
// bytes, decode() rebuilds an object from its stored bytes. Each can be told
// to block in create() until released (a gate), to throw, or to return no
// object, and counts its calls.
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
  enum class Behaviour { Normal, Throw, ReturnNull };

  explicit NamedFactory(std::string type) : type_(std::move(type)) {}

  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override;
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>& key,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override;
  const std::string& getType() const override { return type_; }

  std::atomic<Behaviour> createBehaviour{Behaviour::Normal};
  std::atomic<Behaviour> decodeBehaviour{Behaviour::Normal};
  std::atomic<int> creates{0};
  std::atomic<int> decodes{0};

  // While closed, create() blocks (after counting itself as entered).
  void closeGate();
  void openGate();
  // Waits until `count` create() calls have entered.
  bool waitEntered(int count, int timeoutMs = 20000);

 private:
  std::string type_;
  std::mutex mutex_;
  std::condition_variable changed_;
  bool gateClosed_ = false;
  int entered_ = 0;
};

// A factory manager serving `types`, one NamedFactory each, in that order.
Pt::SmartPointer<Tarn::FactoryManager> FactoriesFor(const std::vector<std::string>& types);

}  // namespace TarnTest
