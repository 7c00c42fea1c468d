// Serialize: blocking find and findCreate over a Cache.
//
// Each call borrows a receiver from a process-wide pool of four, starts the
// asynchronous lookup with it, waits until the outcome arrives and returns
// the object. At most four Serialize calls are in progress in the whole
// process; a fifth waits until one of them ends.
//
// Outcomes: the object when the cache found, read or generated it; null when
// the request was cancelled (Cache::cancel, cancelAll, erase, purge, or the
// cache shutting down) or failed. A failure is not thrown: its exception is
// handed to Pt::Exception::Post and the call returns null.
//
// Errors: what Cache::find and Cache::findCreate throw themselves passes to
// the caller (ExFactoryClassNotFound for a type no factory serves,
// std::invalid_argument for a key of bad length); the object returned by the
// previous call is then left as it was.
//
// Ownership: the Cache is not owned and must outlive every call. The returned
// reference points into this object and stays valid until its next call or
// its destruction; copy the pointer to keep the object longer.
//
// Thread-safety: any number of threads may use Serialize objects at once, but
// one object serves one thread at a time. Never call it from a receiver, a
// factory's create or decode, or anything else that runs on the cache's
// worker or I/O threads: it may wait for work that only that thread would do.
#pragma once

#include <string>

#include "pt/SmartPointer.h"
#include "tarn/Cache.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT Serialize {
 public:
  // Throws std::invalid_argument when `cache` is null.
  explicit Serialize(Cache* const cache);
  ~Serialize();
  Serialize(const Serialize&) = delete;
  Serialize& operator=(const Serialize&) = delete;

  // The object under `key` from memory, a request in progress or the file;
  // null at once when the cache holds the key nowhere.
  const Pt::SmartPointer<Cacheable>& find(const CacheKey<32>& key);
  // As find, and when the key is nowhere, waits while the factory of `type`
  // creates it. Throws ExFactoryClassNotFound when it would have to create
  // the object and no factory serves `type`.
  const Pt::SmartPointer<Cacheable>& findCreate(const CacheKey<32>& key,
                                                const CacheKey<16>& secondaryKey,
                                                const std::string& type);

 private:
  Cache* const cache_;
  Pt::SmartPointer<Cacheable> result_;
};

}  // namespace Tarn
