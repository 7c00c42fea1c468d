// A Config cleared to zero bytes, as a C caller or an older program builds
// it: the suites written against that meaning keep testing it, whatever
// defaults the members carry.
#pragma once

#include <cstring>

#include "tarn/Config.h"

namespace Tarn {

inline Config ZeroedConfig() {
  Config config;
  std::memset(static_cast<void*>(&config), 0, sizeof config);
  return config;
}

}  // namespace Tarn
