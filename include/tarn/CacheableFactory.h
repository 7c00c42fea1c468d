// CacheableFactory: makes the objects of one type.
//
// The application registers one factory per type name when it builds a Cache.
// The cache asks a factory to generate an object that is missing
// (findCreate) and to rebuild an object from the bytes that its encode(false)
// once stored in the cache file.
//
// A factory reports failure by throwing a Pt::Exception (any Tarn exception
// included); the cache turns it into failed() calls on the waiting receivers.
//
// Ownership: reference counted; the cache keeps a reference to each of its
// factories for its whole life.
//
// Thread-safety: create runs on worker threads, decode on I/O completion
// threads, and getType on any thread, possibly several at once.
#pragma once

#include <string>

#include "pt/SmartPointer.h"
#include "tarn/Buffer.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT CacheableFactory : public Pt::SmartPointerBase {
 public:
  // A new object for `key` (a miss in findCreate). Never returns null.
  virtual Pt::SmartPointer<Cacheable> create(const CacheKey<32>& key) = 0;
  // The object of `key` rebuilt from `data`, the bytes of its encode(false).
  virtual Pt::SmartPointer<Cacheable> decode(const CacheKey<32>& key,
                                             const Pt::SmartPointer<Buffer>& data) = 0;
  // The type name served; equal to getType() of the objects made, and
  // unchanged for the factory's life. Type names are compared byte for byte
  // and stored in the cache file, which holds at most 44 bytes of a name.
  virtual const std::string& getType() const = 0;

 protected:
  CacheableFactory() = default;
  ~CacheableFactory() override;
};

}  // namespace Tarn
