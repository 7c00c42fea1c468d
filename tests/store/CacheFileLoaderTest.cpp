#include "store/CacheFileLoader.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "pt/Exception.h"
#include "store/LittleEndian.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Image = std::vector<uint8_t>;

// Records every visit; `order` spells the sequence, one letter per call
// (Type, Extent, Free slot, Live entry).
struct Recorder : CacheFileLoader::Visitor {
  std::string order;
  std::vector<TypeRecord> types;
  std::vector<uint32_t> extentLocations;
  std::vector<uint32_t> freeSlots;
  std::vector<std::pair<uint32_t, EntryHeader>> entries;

  void onType(const TypeRecord& record) override {
    order += 'T';
    types.push_back(record);
  }
  void onExtent(const ExtentHeader&, uint32_t location) override {
    order += 'E';
    extentLocations.push_back(location);
  }
  void onFreeSlot(uint32_t slotOffset) override {
    order += 'F';
    freeSlots.push_back(slotOffset);
  }
  void onEntry(uint32_t slotOffset, const EntryHeader& header) override {
    order += 'L';
    entries.emplace_back(slotOffset, header);
  }
};

uint32_t SlotOffset(uint32_t slot) {
  return kFirstEntriesOffset + slot * kEntryHeaderSize;
}

void PutEntry(Image& image, uint32_t slotOffset, const EntryHeader& header) {
  header.encodeTo(
      std::span<uint8_t, kEntryHeaderSize>(image.data() + slotOffset, kEntryHeaderSize));
}

void PutType(Image& image, uint32_t slot, const TypeRecord& record) {
  record.encodeTo(std::span<uint8_t, kTypeRecordSize>(
      image.data() + kTypeTableOffset + slot * kTypeRecordSize, kTypeRecordSize));
}

EntryHeader Entry(const char* key, uint32_t dataOffset, uint32_t allocated, uint16_t type = 1) {
  return EntryHeader::ForEntry(type, PrimaryKey::FromString(key), SecondaryKey::FromString("s"),
                               dataOffset, allocated - 10, allocated);
}

// A new file that knows type 1, "T", and is `length` bytes long.
Image FileOfLength(size_t length) {
  Image image = InitialFileImage();
  PutType(image, 0, TypeRecord::ForType(1, "T"));
  image.resize(length);
  return image;
}

// Appends a new extent at the end of `image` and links it behind the
// extent at `previous`.
uint32_t AppendExtent(Image& image, uint32_t previous) {
  const auto location = static_cast<uint32_t>(image.size());
  const Image block = NewExtentImage(location);
  image.insert(image.end(), block.begin(), block.end());
  PutU32(image.data() + previous + ExtentHeader::kNextExtentAt, location);
  return location;
}

class CacheFileLoaderTest : public ::testing::Test {
 protected:
  CacheFileLoader::Summary load(const Image& image) {
    EXPECT_TRUE(TarnTest::WriteFileBytes(path, image));
    return loadFile();
  }

  CacheFileLoader::Summary loadFile() {
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0) throw std::runtime_error("cannot open the test file");
    try {
      CacheFileLoader::Summary summary = CacheFileLoader::Load(fd, visits);
      ::close(fd);
      return summary;
    } catch (...) {
      ::close(fd);
      throw;
    }
  }

  TarnTest::TempDir dir;
  const std::string path = dir.file("cache.tarn");
  Recorder visits;
};

// Expects `load` to throw Pt::ExSystem with `code` (when `code` is not 0) or
// else ExUnsupportedFileVersion without a cause, raised at `line`.
void ExpectRejected(const std::function<void()>& load, int code, int line) {
  try {
    load();
    ADD_FAILURE() << "the file was accepted";
  } catch (const Pt::ExSystem& error) {
    EXPECT_EQ(error.code(), code) << error.what();
    EXPECT_EQ(error.where().line, line);
  } catch (const ExUnsupportedFileVersion& error) {
    EXPECT_EQ(code, 0) << "rejected as unsupported at " << error.where().line;
    EXPECT_EQ(error.where().line, line);
    EXPECT_EQ(error.nested(), nullptr);
  }
}

constexpr int kUnsupported = 0;

struct DamagedFile {
  const char* name;
  std::function<void(Image&)> damage;
  int code;  // the ExSystem's errno, or kUnsupported
  int line;
};

const DamagedFile kDamagedFiles[] = {
    // Records that cannot be read whole.
    {"empty", [](Image& f) { f.clear(); }, EIO, 287},
    {"short header", [](Image& f) { f.resize(31); }, EIO, 287},
    {"short type table", [](Image& f) { f.resize(799); }, EIO, 307},
    {"type table past the end", [](Image& f) { PutU32(&f[16], 300'000); }, EIO, 307},
    {"short extent header", [](Image& f) { f.resize(815); }, EIO, 332},
    {"next extent past the end", [](Image& f) { PutU32(&f[812], 400'000); }, EIO, 332},
    {"short slot array", [](Image& f) { f.resize(262'959); }, EIO, 358},
    // The two checks of the format itself.
    {"version 1", [](Image& f) { PutU32(&f[0], 1); }, kUnsupported, 292},
    {"version 2.0", [](Image& f) { PutU32(&f[0], 0x20000); }, kUnsupported, 292},
    {"32-byte slots", [](Image& f) { PutU32(&f[800], 32); }, kUnsupported, 344},
    // Type tables.
    {"name of 45 bytes",
     [](Image& f) {
       PutType(f, 1, TypeRecord::ForType(2, "U"));
       PutU16(&f[kTypeTableOffset + kTypeRecordSize + 2], 45);
     },
     kUnsupported, 311},
    {"name twice", [](Image& f) { PutType(f, 1, TypeRecord::ForType(2, "T")); }, kUnsupported, 311},
    {"id out of slot order", [](Image& f) { PutType(f, 1, TypeRecord::ForType(3, "U")); },
     kUnsupported, 311},
    {"first id not 1", [](Image& f) { PutType(f, 0, TypeRecord::ForType(2, "T")); }, kUnsupported,
     311},
    // Extent chains.
    {"extent linked to itself", [](Image& f) { PutU32(&f[812], 800); }, kUnsupported, 336},
    {"chain back to the first", [](Image& f) { PutU32(&f[AppendExtent(f, 800) + 12], 800); },
     kUnsupported, 336},
    {"more slots than the file holds", [](Image& f) { PutU32(&f[804], 0xFFFF'FFFF); }, kUnsupported,
     336},
    {"slot count just past the file",
     [](Image& f) { PutU32(&f[804], static_cast<uint32_t>(f.size() / 64 + 1)); }, kUnsupported,
     336},
    {"extents share one slot array",
     [](Image& f) {
       PutU32(&f[812], 262'960);
       for (const uint32_t next : {262'976u, 0u}) {
         const auto bare =
             ExtentHeader{kEntryHeaderSize, kEntriesPerExtent, kFirstEntriesOffset, next}.encode();
         f.insert(f.end(), bare.begin(), bare.end());
       }
     },
     kUnsupported, 336},
    // Live entries.
    {"primary key of 33", [](Image& f) { f[SlotOffset(3) + 2] = 33; }, kUnsupported, 362},
    {"secondary key of 17",
     [](Image& f) {
       PutEntry(f, SlotOffset(3), Entry("k", 262'960, 256));
       f[SlotOffset(3) + 3] = 17;
     },
     kUnsupported, 362},
    {"unknown type id", [](Image& f) { PutEntry(f, SlotOffset(0), Entry("k", 262'960, 256, 2)); },
     kUnsupported, 362},
    {"type id 0", [](Image& f) { PutEntry(f, SlotOffset(0), Entry("k", 262'960, 256, 0)); },
     kUnsupported, 362},
    // Claimed ranges.
    {"data past the end", [](Image& f) { PutEntry(f, SlotOffset(0), Entry("k", 262'960, 256)); },
     kUnsupported, 371},
    {"empty data range past the end",
     [](Image& f) {
       PutEntry(f, SlotOffset(0), Entry("k", 262'961, 16));
       PutU32(&f[SlotOffset(0) + EntryHeader::kAllocatedLengthAt], 0);
       PutU32(&f[SlotOffset(0) + EntryHeader::kDataLengthAt], 0);
     },
     kUnsupported, 371},
    {"data over the slots", [](Image& f) { PutEntry(f, SlotOffset(0), Entry("k", 1000, 256)); },
     kUnsupported, 371},
    {"two entries share data",
     [](Image& f) {
       f.resize(264'000);
       PutEntry(f, SlotOffset(0), Entry("a", 263'000, 256));
       PutEntry(f, SlotOffset(1), Entry("b", 263'200, 256));
     },
     kUnsupported, 371},
    {"type table over the header", [](Image& f) { PutU32(&f[16], 24); }, kUnsupported, 371},
    {"slots over the type table", [](Image& f) { PutU32(&f[808], 64); }, kUnsupported, 371},
};

TEST_F(CacheFileLoaderTest, RejectsDamagedFilesWithoutWritingThem) {
  for (const DamagedFile& damaged : kDamagedFiles) {
    SCOPED_TRACE(damaged.name);
    Image image = FileOfLength(kInitialFileSize);
    damaged.damage(image);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
    ExpectRejected([&] { loadFile(); }, damaged.code, damaged.line);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), image);
  }
}

// The limit is checked on the length alone (the files are sparse).
TEST_F(CacheFileLoaderTest, FilesFrom2GiBOnAreRefused) {
  ASSERT_TRUE(TarnTest::WriteFileBytes(path, FileOfLength(kInitialFileSize)));
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize - 1);
  EXPECT_EQ(loadFile().trailingBytes, CacheFileLoader::kMaxFileSize - 1 - kInitialFileSize);
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize);
  ExpectRejected([&] { loadFile(); }, kUnsupported, 283);
  EXPECT_EQ(std::filesystem::file_size(path), CacheFileLoader::kMaxFileSize);
}

TEST_F(CacheFileLoaderTest, NewFileHasOnlyFreeSlotsInSlotOrder) {
  const CacheFileLoader::Summary summary = load(InitialFileImage());
  EXPECT_EQ(summary.header, FileHeader::ForNewFile());
  EXPECT_EQ(summary.fileLength, kInitialFileSize);
  EXPECT_EQ(summary.extentCount, 1u);
  EXPECT_EQ(summary.liveEntries, 0u);
  EXPECT_EQ(summary.freeSlots, kEntriesPerExtent);
  EXPECT_TRUE(summary.gaps.empty());
  EXPECT_EQ(summary.trailingBytes, 0u);
  EXPECT_EQ(visits.order, "E" + std::string(kEntriesPerExtent, 'F'));
  EXPECT_EQ(visits.extentLocations, std::vector<uint32_t>{kFirstExtentOffset});
  for (uint32_t slot = 0; slot < kEntriesPerExtent; ++slot) {
    ASSERT_EQ(visits.freeSlots[slot], SlotOffset(slot));
  }
}

// Free space lies only between claimed ranges: a slot whose key length is 0
// claims nothing, whatever else it holds, and the bytes behind the last
// entry are not free.
TEST_F(CacheFileLoaderTest, GapsLieBetweenClaimedRangesOnly) {
  Image image = FileOfLength(264'000);
  PutEntry(image, SlotOffset(0), Entry("first", 262'960, 256));
  PutEntry(image, SlotOffset(1), Entry("second", 263'472, 256));
  EntryHeader looksLive = Entry("ghost", 263'216, 256);
  looksLive.primaryKeyLength = 0;
  PutEntry(image, SlotOffset(2), looksLive);

  const CacheFileLoader::Summary summary = load(image);
  EXPECT_EQ(summary.gaps, (std::vector<FileRange>{{263'216, 256}}));
  EXPECT_EQ(summary.trailingBytes, 264'000u - 263'728u);
  EXPECT_EQ(summary.liveEntries, 2u);
  EXPECT_EQ(summary.freeSlots, kEntriesPerExtent - 2);
  EXPECT_EQ(summary.dataBytes, 2u * 246u);
  EXPECT_EQ(summary.allocatedBytes, 512u);
  EXPECT_EQ(visits.freeSlots.front(), SlotOffset(2));
  ASSERT_EQ(visits.entries.size(), 2u);
  EXPECT_EQ(visits.entries[1], std::make_pair(SlotOffset(1), Entry("second", 263'472, 256)));
}

// The store keeps the first of two entries with one key; the loader
// reports both and claims both data ranges.
TEST_F(CacheFileLoaderTest, DuplicateKeysAreBothVisited) {
  Image image = FileOfLength(263'472);
  PutEntry(image, SlotOffset(5), Entry("same", 262'960, 256));
  PutEntry(image, SlotOffset(9), Entry("same", 263'216, 256));
  const CacheFileLoader::Summary summary = load(image);
  ASSERT_EQ(visits.entries.size(), 2u);
  EXPECT_EQ(visits.entries[0].first, SlotOffset(5));
  EXPECT_EQ(visits.entries[1].first, SlotOffset(9));
  EXPECT_TRUE(summary.gaps.empty());
}

TEST_F(CacheFileLoaderTest, FollowsTheChainAndVisitsTypesFirst) {
  Image image = FileOfLength(kInitialFileSize);
  PutType(image, 1, TypeRecord::ForType(2, "U"));
  PutType(image, 3, TypeRecord::ForType(9, "ignored behind the unused slot"));
  const uint32_t second = AppendExtent(image, kFirstExtentOffset);
  PutEntry(image, second + kExtentHeaderSize,
           Entry("k", static_cast<uint32_t>(image.size()), 32, 2));
  image.resize(image.size() + 32);

  const CacheFileLoader::Summary summary = load(image);
  EXPECT_EQ(summary.extentCount, 2u);
  EXPECT_EQ(summary.freeSlots, 2 * kEntriesPerExtent - 1);
  EXPECT_TRUE(summary.gaps.empty());
  ASSERT_EQ(visits.types.size(), 2u);
  EXPECT_EQ(visits.types[1].typeName(), "U");
  EXPECT_EQ(visits.extentLocations, (std::vector<uint32_t>{kFirstExtentOffset, second}));
  EXPECT_EQ(visits.order, "TTE" + std::string(kEntriesPerExtent, 'F') + "EL" +
                              std::string(kEntriesPerExtent - 1, 'F'));
}

}  // namespace
}  // namespace Tarn
