// How much larger a cache file is than what it must hold, for the churn
// test, the churn benchmark and the soak program.
//
// Space amplification = the file's length ÷ (the live entries' allocations +
// the fixed structures: the header, the type table and every extent's block).
// 1.0 is a file with no gap. Reads the file with the loader, without opening
// it as a cache; throws what the loader throws.
#pragma once

#include <string>

namespace Tarn {

double SpaceAmplification(const std::string& path);

}  // namespace Tarn
