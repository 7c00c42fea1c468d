// tarn-demo: makes an empty cache file through the library and describes
// what is in it, read back byte by byte from disk.
//
// It uses only the exported API of libtarn.so (CreateCacheFile and
// DestroyCacheFile); the few fields it prints are decoded here, from the
// little-endian layout in doc/cache-file-format.md.
#include <stdlib.h>

#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include "tarn/tarn.h"

namespace {

uint32_t U32At(const std::vector<uint8_t>& bytes, size_t offset) {
  if (offset + 4 > bytes.size()) return 0;
  return uint32_t{bytes[offset]} | uint32_t{bytes[offset + 1]} << 8 |
         uint32_t{bytes[offset + 2]} << 16 | uint32_t{bytes[offset + 3]} << 24;
}

std::vector<uint8_t> ReadAll(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::vector<uint8_t>(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

// Type records in use: from the first slot up to the first whose id is 0.
uint32_t TypesInUse(const std::vector<uint8_t>& file, uint32_t at, uint32_t count, uint32_t size) {
  uint32_t used = 0;
  while (used < count && at + (used + 1) * size <= file.size() && file[at + used * size] != 0) {
    ++used;
  }
  return used;
}

// Entry slots in use: those whose primary key length (byte 2) is not 0.
uint32_t SlotsInUse(const std::vector<uint8_t>& file, uint32_t at, uint32_t count, uint32_t size) {
  uint32_t used = 0;
  for (uint32_t i = 0; i < count && at + (i + 1) * size <= file.size(); ++i) {
    if (file[at + i * size + 2] != 0) ++used;
  }
  return used;
}

void Describe(const std::vector<uint8_t>& file) {
  const uint32_t version = U32At(file, 0);
  const uint32_t recordSize = U32At(file, 8), records = U32At(file, 12);
  const uint32_t typeTable = U32At(file, 16), firstExtent = U32At(file, 28);
  std::printf("file size %zu bytes\n", file.size());
  std::printf("version %u (%u.%u)\n", version, version >> 16, version & 0xFFFF);
  std::printf("header of %u bytes; extent headers of %u bytes; %u extent at creation\n",
              U32At(file, 4), U32At(file, 20), U32At(file, 24));
  std::printf("type table at %u: %u records of %u bytes, %u used\n", typeTable, records, recordSize,
              TypesInUse(file, typeTable, records, recordSize));
  const uint32_t slotSize = U32At(file, firstExtent), slots = U32At(file, firstExtent + 4);
  const uint32_t slotsAt = U32At(file, firstExtent + 8), next = U32At(file, firstExtent + 12);
  std::printf("first extent at %u: %u slots of %u bytes at %u, %u used, ", firstExtent, slots,
              slotSize, slotsAt, SlotsInUse(file, slotsAt, slots, slotSize));
  if (next == 0) {
    std::printf("no next extent\n");
  } else {
    std::printf("next extent at %u\n", next);
  }
}

}  // namespace

int main() {
  std::string scratch = (std::filesystem::temp_directory_path() / "tarn-demo-XXXXXX").string();
  if (mkdtemp(scratch.data()) == nullptr) {
    std::perror("tarn-demo: mkdtemp");
    return 1;
  }
  const std::filesystem::path path = std::filesystem::path(scratch) / "demo.tarn";
  int status = 0;
  try {
    Tarn::CreateCacheFile(path.wstring().c_str());
    std::printf("created %s\n", path.c_str());
    Describe(ReadAll(path));
    Tarn::DestroyCacheFile(path.wstring().c_str());
    std::printf("removed it again\n");
  } catch (const Pt::Exception& error) {
    std::fprintf(stderr, "tarn-demo: %s (%s:%d)\n", error.what(), error.where().file,
                 error.where().line);
    status = 1;
  } catch (const std::exception& error) {
    std::fprintf(stderr, "tarn-demo: %s\n", error.what());
    status = 1;
  }
  std::error_code ignored;
  std::filesystem::remove_all(scratch, ignored);
  return status;
}
