// The version of the library itself, fixed when libtarn.so is compiled.
#include "tarn/Version.h"

#define TARN_STRINGIFY_(x) #x
#define TARN_STRINGIFY(x) TARN_STRINGIFY_(x)

namespace Tarn {

const char* Version() noexcept {
  return TARN_STRINGIFY(TARN_VERSION_MAJOR) "." TARN_STRINGIFY(
      TARN_VERSION_MINOR) "." TARN_STRINGIFY(TARN_VERSION_PATCH);
}

}  // namespace Tarn
