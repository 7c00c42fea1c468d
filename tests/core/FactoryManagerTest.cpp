#include "core/FactoryManager.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <utility>

#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::SmartPointer;
using Factories = FactoryManager::Factories;

// Serves one type name and makes nothing: lookup only asks for the name.
class NamedFactory : public CacheableFactory {
 public:
  explicit NamedFactory(std::string type) : type_(std::move(type)) {}
  SmartPointer<Cacheable> create(const CacheKey<32>& /*key*/) override { return nullptr; }
  SmartPointer<Cacheable> decode(const CacheKey<32>& /*key*/,
                                 const SmartPointer<Buffer>& /*data*/) override {
    return nullptr;
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_;
};

SmartPointer<CacheableFactory> Named(std::string type) {
  return new NamedFactory(std::move(type));
}

void ExpectNotFound(const FactoryManager& manager, const std::string& type) {
  try {
    manager.lookup(type);
    ADD_FAILURE() << "found a factory for \"" << type << "\"";
  } catch (const ExFactoryClassNotFound& error) {
    EXPECT_STREQ(error.where().file, "shared/tarn/cache/TarnFactoryManager");
    EXPECT_EQ(error.where().line, 43);
    EXPECT_EQ(error.nested(), nullptr);
  }
}

TEST(FactoryManager, LookupComparesWholeNamesByteForByte) {
  const SmartPointer<CacheableFactory> a = Named("A"), b = Named("B");
  const SmartPointer<FactoryManager> manager(new FactoryManager(Factories{a, b}));
  EXPECT_EQ(manager->lookup("B"), b);
  EXPECT_EQ(manager->lookup("A"), a);
  for (const std::string& type : {std::string("b"), std::string("B "), std::string("AB"),
                                  std::string(), std::string("A\0", 2)}) {
    ExpectNotFound(*manager, type);
  }
  ASSERT_EQ(manager->size(), 2u);
  EXPECT_EQ(*manager->begin(), a);  // listed in the order given
}

TEST(FactoryManager, TheFirstOfTwoFactoriesForOneTypeWins) {
  const SmartPointer<CacheableFactory> first = Named("T"), second = Named("T");
  const SmartPointer<FactoryManager> manager(
      new FactoryManager(Factories{Named("S"), first, second}));
  EXPECT_EQ(manager->lookup("T"), first);
}

TEST(FactoryManager, WithoutFactoriesEveryLookupFails) {
  const SmartPointer<FactoryManager> manager(new FactoryManager(Factories{}));
  EXPECT_EQ(manager->size(), 0u);
  ExpectNotFound(*manager, "A");
  ExpectNotFound(*manager, "");
}

TEST(FactoryManager, HoldsAReferenceToEachFactoryForItsLife) {
  const SmartPointer<CacheableFactory> factory = Named("A");
  {
    const SmartPointer<FactoryManager> single(new FactoryManager(factory));
    const SmartPointer<FactoryManager> listed(new FactoryManager(Factories{factory}));
    EXPECT_EQ(factory->refCount(), 3);
    EXPECT_EQ(single->lookup("A"), factory);
    EXPECT_EQ(single->size(), 1u);
  }
  EXPECT_EQ(factory->refCount(), 1);
}

TEST(FactoryManager, RefusesANullFactory) {
  using Held = SmartPointer<FactoryManager>;
  EXPECT_THROW(Held(new FactoryManager(SmartPointer<CacheableFactory>())), std::invalid_argument);
  const SmartPointer<CacheableFactory> factory = Named("A");
  EXPECT_THROW(Held(new FactoryManager(Factories{factory, nullptr})), std::invalid_argument);
  EXPECT_EQ(factory->refCount(), 1);  // nothing kept from the refused list
}

}  // namespace
}  // namespace Tarn
