// Raw access to a cache file's bytes, for assertions on exactly what is on
// disk rather than on what the library reports.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace TarnTest {

// The whole file; an empty vector when it cannot be read.
std::vector<uint8_t> ReadFileBytes(const std::string& path);

// The little-endian u32 at `offset` of `bytes` (which must hold it).
uint32_t U32At(const std::vector<uint8_t>& bytes, size_t offset);

// Whether every byte of `bytes` in [begin, end) is zero.
bool AllZero(const std::vector<uint8_t>& bytes, size_t begin, size_t end);

// Writes `bytes` to `path`, replacing the file; false on failure.
bool WriteFileBytes(const std::string& path, const std::vector<uint8_t>& bytes);

}  // namespace TarnTest
