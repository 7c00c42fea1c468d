// tarn_fuzz_seeds DIR: writes the loader fuzzer's seed inputs. new-file is
// a new cache file as the library creates it; compact is a small file that
// reaches every part of the loader: two types, a chain of two short
// extents, live and free slots, a slot that only looks live, a duplicate
// key, a gap and trailing bytes.
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <span>
#include <vector>

#include "store/FileFormat.h"

namespace {

using namespace Tarn;
using Image = std::vector<uint8_t>;

template <typename Record>
void Put(Image& image, uint32_t offset, const Record& record) {
  record.encodeTo(std::span<uint8_t, Record::kSize>(image.data() + offset, Record::kSize));
}

void PutEntry(Image& image, uint32_t slot, uint16_t type, const char* key, uint32_t dataOffset,
              uint32_t allocated) {
  Put(image, slot,
      EntryHeader::ForEntry(type, PrimaryKey::FromString(key), SecondaryKey::FromString("s"),
                            dataOffset, allocated / 2, allocated));
}

Image CompactImage() {
  Image image(1320);
  Put(image, 0, FileHeader::ForNewFile());
  Put(image, kTypeTableOffset, TypeRecord::ForType(1, "Photo"));
  Put(image, kTypeTableOffset + kTypeRecordSize, TypeRecord::ForType(2, "Thumb"));
  Put(image, 800, ExtentHeader{kEntryHeaderSize, 4, 816, 1152});
  PutEntry(image, 816, 1, "a", 1072, 32);
  PutEntry(image, 944, 2, "b", 1136, 16);
  PutEntry(image, 1008, 1, "ghost", 1104, 32);
  image[1008 + EntryHeader::kPrimaryKeyLengthAt] = 0;  // free, though the rest looks live
  Put(image, 1152, ExtentHeader{kEntryHeaderSize, 2, 1168, 0});
  PutEntry(image, 1168, 1, "a", 1296, 16);
  return image;
}

bool Write(const std::filesystem::path& path, const Image& bytes) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(reinterpret_cast<const char*>(bytes.data()),
            static_cast<std::streamsize>(bytes.size()));
  return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: tarn_fuzz_seeds DIR\n");
    return 2;
  }
  const std::filesystem::path dir = argv[1];
  std::filesystem::create_directories(dir);
  const bool written =
      Write(dir / "new-file", InitialFileImage()) && Write(dir / "compact", CompactImage());
  return written ? 0 : 1;
}
