// The version of Tarn: of the headers compiled against (the macros) and of the
// library loaded at run time (Version()).
//
// Versions follow MAJOR.MINOR.PATCH. MAJOR is the number in the library's
// SONAME (libtarn.so.MAJOR) and changes when the binary interface breaks; see
// doc/abi.md for what stays compatible.
#pragma once

#include "tarn/Export.h"

/// Major version: the SONAME number; programs built against one major version
/// do not run with another.
#define TARN_VERSION_MAJOR 0
/// Minor version: grows when the API gains something; older programs still run.
#define TARN_VERSION_MINOR 1
/// Patch version: fixes only.
#define TARN_VERSION_PATCH 0

/// The version as one comparable number, e.g. 10203 for 1.2.3.
#define TARN_VERSION_NUMBER \
  (TARN_VERSION_MAJOR * 10000 + TARN_VERSION_MINOR * 100 + TARN_VERSION_PATCH)

namespace Tarn {

/// The version of the libtarn.so loaded at run time as "MAJOR.MINOR.PATCH",
/// which may be newer than the headers the program was compiled with. Compare
/// it with the TARN_VERSION_* macros to tell.
TARN_EXPORT const char* Version() noexcept;

}  // namespace Tarn
