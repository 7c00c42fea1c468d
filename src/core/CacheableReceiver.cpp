#include "tarn/CacheableReceiver.h"

namespace Tarn {

// Defined here so that the class's vtable and type information live in the
// library, where applications' catch and dynamic_cast find one copy.
CacheableReceiver::~CacheableReceiver() = default;

}  // namespace Tarn
