// Factories for tests: a plain one that serves a named type, rebuilding
// objects from their bytes and generating a small object for a missing key.
#pragma once

#include <string>
#include <vector>

#include "core/FactoryManager.h"
#include "tarn/CacheableFactory.h"

namespace TarnTest {

class NamedFactory : public Tarn::CacheableFactory {
 public:
  explicit NamedFactory(std::string type) : type_(std::move(type)) {}

  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override;
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>& key,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override;
  const std::string& getType() const override { return type_; }

 private:
  std::string type_;
};

// A factory manager serving `types`, one NamedFactory each, in that order.
Pt::SmartPointer<Tarn::FactoryManager> FactoriesFor(const std::vector<std::string>& types);

}  // namespace TarnTest
