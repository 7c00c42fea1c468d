#include "core/FactoryManager.h"

#include <stdexcept>

#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "tarn/Exceptions.h"

namespace Tarn {

namespace {

// A null factory would only fail later, on some I/O thread, when a lookup
// dereferences it; refuse it where the mistake is made.
void RequireFactory(const Pt::SmartPointer<CacheableFactory>& factory) {
  if (!factory) throw std::invalid_argument("FactoryManager: null factory");
}

}  // namespace

FactoryManager::FactoryManager(const Factories& factories) {
  for (const auto& factory : factories) RequireFactory(factory);
  factories_ = factories;
}

FactoryManager::FactoryManager(const Pt::SmartPointer<CacheableFactory>& factory) {
  RequireFactory(factory);
  factories_.reserve(1);
  factories_.push_back(factory);
}

FactoryManager::~FactoryManager() = default;

const Pt::SmartPointer<CacheableFactory>& FactoryManager::lookup(const std::string& type) const {
  // A cache has at most 16 types, so a linear walk beats any index; the
  // earlier of two factories for one type wins.
  for (const auto& factory : factories_) {
    if (factory->getType() == type) return factory;
  }
  throw WithSubject(ExFactoryClassNotFound(kFactoryLookup.where), TypeSubject(type));
}

}  // namespace Tarn
