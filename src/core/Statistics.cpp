#include "tarn/Statistics.h"

namespace Tarn {

Statistics& Statistics::operator=(const Statistics& other) = default;

}  // namespace Tarn
