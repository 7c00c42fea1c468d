// tarn-inspect-samples DIR: writes the cache files that the inspector's
// test runs it on. new.tarn is made by the library; entries.tarn holds one
// type and two entries with a free range between their data; salvaged.tarn
// is entries.tarn with the two data ranges overlapping (an open drops both);
// damaged.tarn is entries.tarn with its type table over its header;
// truncated.tarn ends inside its slots.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <span>
#include <string>
#include <vector>

#include "store/FileFormat.h"
#include "store/LittleEndian.h"
#include "tarn/CacheFile.h"

namespace {

using namespace Tarn;

void PutEntry(std::vector<uint8_t>& image, uint32_t slot, const char* key, uint32_t dataOffset) {
  const EntryHeader entry = EntryHeader::ForEntry(
      1, PrimaryKey::FromString(key), SecondaryKey::FromString("thumb"), dataOffset, 200, 256);
  entry.encodeTo(std::span<uint8_t, kEntryHeaderSize>(
      image.data() + kFirstEntriesOffset + slot * kEntryHeaderSize, kEntryHeaderSize));
}

std::vector<uint8_t> EntriesImage() {
  std::vector<uint8_t> image = InitialFileImage();
  TypeRecord::ForType(1, "Photo")
      .encodeTo(
          std::span<uint8_t, kTypeRecordSize>(image.data() + kTypeTableOffset, kTypeRecordSize));
  PutEntry(image, 0, "first", kInitialFileSize);
  PutEntry(image, 1, "second", kInitialFileSize + 512);
  image.resize(kInitialFileSize + 1024);
  return image;
}

bool Write(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: tarn-inspect-samples DIR\n");
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);
  CreateCacheFile((dir / "new.tarn").wstring().c_str());
  std::vector<uint8_t> image = EntriesImage();
  bool written = Write(dir / "entries.tarn", image);
  std::vector<uint8_t> damaged = image;
  damaged[FileHeader::kTypeTableOffsetAt] = 24;
  written = Write(dir / "damaged.tarn", damaged) && written;
  PutEntry(image, 1, "second", kInitialFileSize + 128);
  written = Write(dir / "salvaged.tarn", image) && written;
  image.resize(kInitialFileSize - 1);
  written = Write(dir / "truncated.tarn", image) && written;
  return written ? 0 : 1;
}
