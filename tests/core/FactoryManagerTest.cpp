#include "core/FactoryManager.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Pt::SmartPointer;
using Factories = FactoryManager::Factories;

// Serves one type name and makes nothing: lookup only asks for the name.
struct NamedFactory : CacheableFactory {
  explicit NamedFactory(std::string type) : type(std::move(type)) {}
  SmartPointer<Cacheable> create(const CacheKey<32>&) override { return nullptr; }
  SmartPointer<Cacheable> decode(const CacheKey<32>&, const SmartPointer<Buffer>&) override {
    return nullptr;
  }
  const std::string& getType() const override { return type; }
  std::string type;
};

void ExpectNotFound(const FactoryManager& manager, const std::string& type) {
  try {
    manager.lookup(type);
    ADD_FAILURE() << "found a factory for \"" << type << "\"";
  } catch (const ExFactoryClassNotFound& error) {
    EXPECT_STREQ(error.where().file, "shared/tarn/cache/TarnFactoryManager");
    EXPECT_EQ(error.where().line, 43);
  }
}

TEST(FactoryManager, LookupMatchesWholeNamesAndTheFirstOfDuplicatesWins) {
  const SmartPointer<CacheableFactory> a = new NamedFactory("A"), b = new NamedFactory("B");
  const SmartPointer<FactoryManager> manager(
      new FactoryManager(Factories{a, b, new NamedFactory("A")}));
  EXPECT_EQ(manager->lookup("B"), b);
  EXPECT_EQ(manager->lookup("A"), a);
  const std::vector<std::string> missing = {"b", "B ", "AB", "", {"A\0", 2}};
  for (const std::string& type : missing) ExpectNotFound(*manager, type);
  ExpectNotFound(*SmartPointer<FactoryManager>(new FactoryManager(Factories{})), "A");
}

}  // namespace
}  // namespace Tarn
