// Out-of-line destructors give the tier interfaces one home for their
// vtables and type information, inside libtarn.so.
#include "tarn/SharedTier.h"

namespace Tarn {

SharedTier::~SharedTier() = default;

TierLookupReceiver::~TierLookupReceiver() = default;

}  // namespace Tarn
