#include "store/SecondaryIndex.h"

#include <algorithm>

namespace Tarn {

void SecondaryIndex::add(const SecondaryKey& secondary, const PrimaryKey& primary) {
  if (!deferred_) pairs_.emplace(secondary, primary);
}

void SecondaryIndex::remove(const SecondaryKey& secondary, const PrimaryKey& primary) {
  if (deferred_) return;
  auto [it, end] = pairs_.equal_range(secondary);
  for (; it != end; ++it) {
    if (it->second == primary) {
      pairs_.erase(it);
      return;
    }
  }
}

void SecondaryIndex::find(const SecondaryKey& secondary,
                          std::vector<PrimaryKey>& primaryKeys) const {
  primaryKeys.clear();
  primaryKeys.reserve(4);
  auto [it, end] = pairs_.equal_range(secondary);
  for (; it != end; ++it) primaryKeys.push_back(it->second);
  std::sort(primaryKeys.begin(), primaryKeys.end());
}

}  // namespace Tarn
