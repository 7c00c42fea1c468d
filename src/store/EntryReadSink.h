// EntryReadSink: where the file store hands the entries it reads back.
//
// The store reads an entry's data for a request of its user, rebuilds the
// object through the type's factory and passes it up through this interface,
// so that the store knows nothing of the layer above it. The cache manager is
// the one implementation.
//
// Both calls come on whichever thread completed the read: an I/O completion
// thread, or the thread that asked when the bytes were in the page cache. No
// lock of the store is held during either call.
#pragma once

#include <cstdint>

#include "pt/Exception.h"
#include "pt/SmartPointer.h"
#include "store/FileFormat.h"
#include "tarn/Cacheable.h"

namespace Tarn {

class EntryReadSink {
 public:
  // The object of `primaryKey` rebuilt for request `requestId`. What this
  // throws comes back through entryReadFailed for the same request.
  virtual void entryRead(const PrimaryKey& primaryKey, const SecondaryKey& secondaryKey,
                         const Pt::SmartPointer<Cacheable>& cacheable, int32_t requestId) = 0;
  // Reading or rebuilding the entry for `requestId` failed with `error`.
  virtual void entryReadFailed(const PrimaryKey& primaryKey, int32_t requestId,
                               const Pt::Exception& error) = 0;

 protected:
  EntryReadSink() = default;
  EntryReadSink(const EntryReadSink&) = default;
  EntryReadSink& operator=(const EntryReadSink&) = default;
  ~EntryReadSink() = default;
};

}  // namespace Tarn
