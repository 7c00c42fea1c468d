// Statistics: the counters a Cache reports (Cache::statistics fills one).
//
// Twelve 32-bit fields in a fixed order. Counts that can exceed 32 bits
// (entriesInMemory, fileSize) report their low 32 bits. A default-constructed
// record is all zero; the two reserved fields are always zero.
#pragma once

#include <cstdint>

#include "tarn/Export.h"

namespace Tarn {

struct TARN_EXPORT Statistics {
  Statistics() = default;
  Statistics(const Statistics& other) = default;
  Statistics& operator=(const Statistics& other);

  int32_t entriesInMemory = 0;  // objects held in memory
  int32_t inserted = 0;         // objects inserted
  int32_t purged = 0;           // objects dropped from memory (purge, eviction, shutdown)
  int32_t erased = 0;           // entries erased from the cache file
  int32_t memoryHits = 0;       // lookups answered from memory or joined to a pending one
  int32_t reserved5 = 0;
  int32_t fileReads = 0;    // entry reads from the cache file started
  int32_t generated = 0;    // generate requests started
  int32_t memoryInUse = 0;  // sum of size() of the objects held in memory
  int32_t reserved9 = 0;
  int32_t fileSize = 0;     // length of the cache file in bytes
  int32_t fileEntries = 0;  // entries the cache file holds
};

static_assert(sizeof(Statistics) == 12 * sizeof(int32_t));

}  // namespace Tarn
