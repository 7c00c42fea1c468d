// CacheableReceiver: where the outcome of an asynchronous lookup goes.
//
// Cache::find and Cache::findCreate return a request id at once and report
// the outcome later through a receiver that the caller supplies. For every
// request whose id was not 0, exactly one of found, cancelled or failed is
// called, once, with that id and the key that was asked for. Receivers that
// wait on the same key at the same time share one request id.
//
// A call may come synchronously from inside find or findCreate (an object
// already in memory, or a file read that could not start), or later from a
// worker thread or an I/O completion thread. The cache holds none of its locks
// during the call, so a receiver may call back into the cache, except for
// Cache::commit and the Cache destructor, which wait for the file to settle.
//
// Ownership: reference counted. The cache holds a reference from the moment
// the request is registered until the call that ends it.
//
// Thread-safety: a receiver passed to several requests may be called from
// several threads at once and must be safe for that.
#pragma once

#include "pt/Exception.h"
#include "pt/SmartPointer.h"
#include "tarn/CacheKey.h"
#include "tarn/Cacheable.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT CacheableReceiver : public Pt::SmartPointerBase {
 public:
  // The object of the request is available.
  virtual void found(int requestId, const CacheKey<32>& key,
                     const Pt::SmartPointer<Cacheable>& cacheable) = 0;
  // The request ended without an object: it was cancelled, the entry was
  // erased or purged while the request waited, or the cache shut down.
  virtual void cancelled(int requestId, const CacheKey<32>& key) = 0;
  // Reading, rebuilding, generating, verifying or storing the object failed.
  // `error` tells which and is valid only during the call.
  virtual void failed(int requestId, const CacheKey<32>& key, const Pt::Exception& error) = 0;

 protected:
  CacheableReceiver() = default;
  ~CacheableReceiver() override;
};

}  // namespace Tarn
