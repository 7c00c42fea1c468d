// The primary keys of a cache file's entries, by secondary key.
//
// Secondary keys need not be unique: one secondary key may list several
// primary keys. A lookup returns its keys sorted, so the order in
// which equal secondary keys were added is never visible.
//
// Many applications never look up by secondary key, so the open does not pay
// for the index: it starts deferred, and the first lookup builds it from the
// file store's entries. While
// deferred, add and remove have nothing to do: the entries are the truth.
//
// Not thread-safe: the file store's lock guards it.
#pragma once

#include <map>
#include <utility>
#include <vector>

#include "tarn/CacheKey.h"

namespace Tarn {

class SecondaryIndex {
 public:
  // Until the first lookup, the index is derived from the entries.
  void defer() {
    pairs_.clear();
    deferred_ = true;
  }
  bool deferred() const { return deferred_; }
  // Builds a deferred index from `entries`, a range whose elements
  // `secondaryOf` maps to {secondary key, primary key}.
  template <class Entries, class SecondaryOf>
  void build(const Entries& entries, SecondaryOf secondaryOf) {
    for (const auto& entry : entries) pairs_.insert(secondaryOf(entry));
    deferred_ = false;
  }

  void add(const SecondaryKey& secondary, const PrimaryKey& primary);
  // Removes one pair equal to {secondary, primary}, if there is one.
  void remove(const SecondaryKey& secondary, const PrimaryKey& primary);
  // Replaces `primaryKeys` with the keys listed under `secondary`, sorted.
  // The index must not be deferred.
  void find(const SecondaryKey& secondary, std::vector<PrimaryKey>& primaryKeys) const;

 private:
  std::multimap<SecondaryKey, PrimaryKey> pairs_;
  bool deferred_ = false;
};

}  // namespace Tarn
