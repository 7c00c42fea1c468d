// The smallest PNG a viewer accepts: the signature, an IHDR chunk, one IDAT
// chunk holding the zlib stream of all rows (each behind filter type 0, none),
// and IEND. Every chunk is its length, its type, its data and the CRC-32 of
// type and data, integers big-endian.
#include "Png.h"

#include <zlib.h>

#include <array>
#include <fstream>
#include <stdexcept>
#include <string>

namespace TarnDemo {
namespace {

constexpr std::array<uint8_t, 8> kSignature = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1a, '\n'};
constexpr uint8_t kBitDepth = 8;
constexpr uint8_t kColourTypeRgb = 2;
constexpr uint8_t kFilterNone = 0;
constexpr int kBytesPerPixel = 3;

void AppendBigEndian(std::vector<uint8_t>& out, uint32_t value) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back(static_cast<uint8_t>(value >> shift));
}

void AppendChunk(std::vector<uint8_t>& out, const char (&type)[5],
                 const std::vector<uint8_t>& data) {
  AppendBigEndian(out, static_cast<uint32_t>(data.size()));
  const size_t typeAt = out.size();
  out.insert(out.end(), type, type + 4);
  out.insert(out.end(), data.begin(), data.end());
  const uLong crc = crc32(crc32(0L, Z_NULL, 0), &out[typeAt], static_cast<uInt>(4 + data.size()));
  AppendBigEndian(out, static_cast<uint32_t>(crc));
}

// The rows, each behind its filter byte, compressed as one zlib stream.
std::vector<uint8_t> CompressedRows(int width, int height, const std::vector<uint8_t>& rgb) {
  const size_t rowBytes = static_cast<size_t>(width) * kBytesPerPixel;
  std::vector<uint8_t> raw;
  raw.reserve((rowBytes + 1) * static_cast<size_t>(height));
  for (int y = 0; y < height; ++y) {
    raw.push_back(kFilterNone);
    const auto row = rgb.begin() + static_cast<std::ptrdiff_t>(rowBytes * static_cast<size_t>(y));
    raw.insert(raw.end(), row, row + static_cast<std::ptrdiff_t>(rowBytes));
  }
  uLongf length = compressBound(static_cast<uLong>(raw.size()));
  std::vector<uint8_t> compressed(length);
  if (compress2(compressed.data(), &length, raw.data(), static_cast<uLong>(raw.size()),
                Z_BEST_COMPRESSION) != Z_OK) {
    throw std::runtime_error("zlib could not compress the picture");
  }
  compressed.resize(length);
  return compressed;
}

}  // namespace

void WritePng(const std::filesystem::path& file, int width, int height,
              const std::vector<uint8_t>& rgb) {
  if (width <= 0 || height <= 0 ||
      rgb.size() != static_cast<size_t>(width) * static_cast<size_t>(height) * kBytesPerPixel) {
    throw std::invalid_argument("picture size does not match its pixels");
  }
  std::vector<uint8_t> png(kSignature.begin(), kSignature.end());
  std::vector<uint8_t> header;
  AppendBigEndian(header, static_cast<uint32_t>(width));
  AppendBigEndian(header, static_cast<uint32_t>(height));
  // Bit depth, colour type, then compression, filter and interlace methods 0.
  header.insert(header.end(), {kBitDepth, kColourTypeRgb, 0, 0, 0});
  AppendChunk(png, "IHDR", header);
  AppendChunk(png, "IDAT", CompressedRows(width, height, rgb));
  AppendChunk(png, "IEND", {});

  std::ofstream out(file, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(png.data()), static_cast<std::streamsize>(png.size()));
  if (!out.flush()) throw std::runtime_error("cannot write " + file.string());
}

}  // namespace TarnDemo
