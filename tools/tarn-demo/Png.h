// A PNG encoder for 8-bit RGB pictures, on zlib.
#pragma once

#include <cstdint>
#include <filesystem>
#include <vector>

namespace TarnDemo {

// Writes `rgb` (height rows of width pixels, three bytes each, top row first)
// to `file` as a PNG. Throws std::runtime_error when the file cannot be
// written or compression fails.
void WritePng(const std::filesystem::path& file, int width, int height,
              const std::vector<uint8_t>& rgb);

}  // namespace TarnDemo
