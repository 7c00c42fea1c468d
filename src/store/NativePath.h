// Wide paths of the API as the narrow paths that Linux takes.
#pragma once

#include <string>

#include "core/RaiseSites.h"

namespace Tarn {

// `path` (UTF-32) as UTF-8. A null path, or one holding a value that is not a
// Unicode scalar value, throws Pt::ExSystem(EINVAL) at `site`, so that each
// operation reports a bad path where it would report its own failure.
std::string NativePath(const wchar_t* path, const RaiseSite& site);

}  // namespace Tarn
