#include "tarn/CacheableFactory.h"

namespace Tarn {

// Defined here so that the class's vtable and type information live in the
// library, where applications' dynamic_cast finds one copy.
CacheableFactory::~CacheableFactory() = default;

}  // namespace Tarn
