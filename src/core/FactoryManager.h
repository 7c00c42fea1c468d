// FactoryManager: the factories of one cache, by type name.
//
// Built once from the application's factories, in the order given, and never
// changed afterwards; lookup and the listing only read it, from any thread,
// without a lock.
//
// Ownership: reference counted; shared by the cache manager and the file
// store. It holds a reference to each of its factories.
#pragma once

#include <string>
#include <vector>

#include "pt/SmartPointer.h"
#include "tarn/CacheableFactory.h"

namespace Tarn {

class FactoryManager : public Pt::SmartPointerBase {
 public:
  using Factories = std::vector<Pt::SmartPointer<CacheableFactory>>;

  // Throws std::invalid_argument for a null factory.
  explicit FactoryManager(const Factories& factories);
  explicit FactoryManager(const Pt::SmartPointer<CacheableFactory>& factory);

  // The first factory whose getType() equals `type` byte for byte. Throws
  // ExFactoryClassNotFound when none does. The reference stays valid for the
  // factory manager's life.
  const Pt::SmartPointer<CacheableFactory>& lookup(const std::string& type) const;

  Factories::const_iterator begin() const { return factories_.begin(); }
  Factories::const_iterator end() const { return factories_.end(); }
  size_t size() const { return factories_.size(); }

 private:
  ~FactoryManager() override;

  Factories factories_;
};

}  // namespace Tarn
