// Damage generated from a small grammar rather than picked by hand: every
// field of every record of a sample file (the header, a type record, both
// extent headers, three entry headers) is set in turn to 0, to its largest
// value, to just past the end of the file and to the record's own offset.
// Whatever the loader makes of each file, it must end (no loop), fail only
// with the library's own exceptions, and, when it accepts the file, hand
// over entries that are sane: inside the file, clear of the skeleton and of
// each other. Damage to an entry header never rejects the file.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "store/CacheFileLoader.h"
#include "store/LittleEndian.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Image = std::vector<uint8_t>;

constexpr uint32_t kSecond = kInitialFileSize;  // where the second extent lies
constexpr uint32_t kDataStart = kSecond + kExtentBlockSize;

struct Field {
  const char* record;
  uint32_t at;     // absolute offset of the field
  uint32_t width;  // 1, 2 or 4 bytes
  uint32_t recordAt;
  bool inEntry;
};

// Header, type table and first extent of a new file; a second extent linked
// behind it; entries in slots 0 and 1 of the first extent and slot 0 of the
// second, their data behind the second extent.
Image SampleFile() {
  Image image = InitialFileImage();
  const auto type = TypeRecord::ForType(1, "T").encode();
  std::copy(type.begin(), type.end(), image.begin() + kTypeTableOffset);
  PutU32(&image[kFirstExtentOffset + ExtentHeader::kNextExtentAt], kSecond);
  const Image second = NewExtentImage(kSecond);
  image.insert(image.end(), second.begin(), second.end());
  const uint32_t slots[] = {kFirstEntriesOffset, kFirstEntriesOffset + kEntryHeaderSize,
                            kSecond + kExtentHeaderSize};
  for (uint32_t n = 0; n < 3; ++n) {
    const uint32_t data = kDataStart + n * 256;
    const auto header = EntryHeader::ForEntry(1, PrimaryKey::FromString("k" + std::to_string(n)),
                                              SecondaryKey::FromString("s"), data, 100 + n, 256)
                            .encode();
    std::copy(header.begin(), header.end(), image.begin() + slots[n]);
  }
  image.resize(kDataStart + 3 * 256, 0x5A);
  return image;
}

std::vector<Field> Fields() {
  std::vector<Field> fields;
  for (uint32_t at = 0; at < kFileHeaderSize; at += 4) fields.push_back({"file", at, 4, 0, false});
  fields.push_back({"type", kTypeTableOffset + TypeRecord::kIdAt, 2, kTypeTableOffset, false});
  fields.push_back(
      {"type", kTypeTableOffset + TypeRecord::kNameLengthAt, 2, kTypeTableOffset, false});
  for (const uint32_t extent : {kFirstExtentOffset, kSecond}) {
    for (uint32_t at = 0; at < kExtentHeaderSize; at += 4) {
      fields.push_back({"extent", extent + at, 4, extent, false});
    }
  }
  for (const uint32_t slot :
       {kFirstEntriesOffset, kFirstEntriesOffset + kEntryHeaderSize, kSecond + kExtentHeaderSize}) {
    const std::pair<uint32_t, uint32_t> entryFields[] = {{EntryHeader::kTypeIdAt, 2},
                                                         {EntryHeader::kPrimaryKeyLengthAt, 1},
                                                         {EntryHeader::kSecondaryKeyLengthAt, 1},
                                                         {EntryHeader::kDataOffsetAt, 4},
                                                         {EntryHeader::kDataLengthAt, 4},
                                                         {EntryHeader::kAllocatedLengthAt, 4}};
    for (const auto& [at, width] : entryFields)
      fields.push_back({"entry", slot + at, width, slot, true});
  }
  return fields;
}

void Put(Image& image, const Field& field, uint64_t value) {
  for (uint32_t i = 0; i < field.width; ++i) {
    image[field.at + i] = static_cast<uint8_t>(value >> (8 * i));
  }
}

// Everything the loader hands over, to check it against the file.
struct Collector : CacheFileLoader::Visitor {
  std::vector<std::pair<uint32_t, EntryHeader>> live;
  std::vector<std::pair<uint32_t, uint64_t>> skeleton;  // extents: offset, block length
  void onEntry(uint32_t slot, const EntryHeader& header) override {
    live.push_back({slot, header});
  }
  void onExtent(const ExtentHeader& header, uint32_t at) override {
    skeleton.push_back({at, kExtentHeaderSize});
    skeleton.push_back({header.entriesOffset, header.slotsLength()});
  }
};

// Empty when the entries are sane, else what is wrong.
std::string Insane(const Collector& seen, uint64_t fileLength) {
  std::vector<std::pair<uint64_t, uint64_t>> ranges = {{0, kFirstExtentOffset}};
  for (const auto& [at, length] : seen.skeleton) ranges.push_back({at, at + length});
  std::vector<PrimaryKey> keys;
  for (const auto& [slot, header] : seen.live) {
    const uint64_t begin = header.dataOffset, end = begin + header.allocatedLength;
    if (header.dataLength > header.allocatedLength || end > fileLength || !header.keysValid()) {
      return "entry at slot " + std::to_string(slot) + " has lengths or a range that cannot be";
    }
    ranges.push_back({begin, end});
    keys.push_back(header.primaryKeyValue());
  }
  std::sort(ranges.begin(), ranges.end());
  for (size_t i = 1; i < ranges.size(); ++i) {
    if (ranges[i].first < ranges[i - 1].second) return "two claimed ranges overlap";
  }
  std::sort(keys.begin(), keys.end());
  if (std::adjacent_find(keys.begin(), keys.end()) != keys.end()) return "a key is live twice";
  return {};
}

TEST(LoaderDamageGrammar, EveryFieldAtEveryExtremeLoadsSanelyOrIsRefused) {
  TarnTest::TempDir dir;
  const std::string path = dir.file("damaged.tarn");
  const Image sample = SampleFile();
  size_t refused = 0, loaded = 0;
  for (const Field& field : Fields()) {
    const uint64_t max = field.width == 4 ? 0xFFFFFFFFu : (uint64_t{1} << (8 * field.width)) - 1;
    for (const uint64_t value :
         {uint64_t{0}, max, uint64_t{sample.size()}, uint64_t{field.recordAt}}) {
      SCOPED_TRACE(std::string(field.record) + " field at " + std::to_string(field.at) + " = " +
                   std::to_string(value & max));
      Image image = sample;
      Put(image, field, value & max);
      ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
      Collector seen;
      try {
        const Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, {});
        const CacheFileLoader::Summary summary = CacheFileLoader::Load(file, seen);
        ++loaded;
        EXPECT_EQ(Insane(seen, summary.fileLength), "");
      } catch (const ExUnsupportedFileVersion&) {
        ++refused;
        EXPECT_FALSE(field.inEntry) << "damage to one entry rejected the whole file";
      } catch (const Pt::ExSystem&) {
        ++refused;
        EXPECT_FALSE(field.inEntry) << "damage to one entry rejected the whole file";
      }
    }
  }
  EXPECT_GT(refused, 0u);
  EXPECT_GT(loaded, 0u);
}

// An extent without slots whose link points back at itself (or at the first
// extent) is a loop however few slots it holds: refused, never followed.
TEST(LoaderDamageGrammar, ChainLoopsAreRefusedEvenThroughEmptyExtents) {
  TarnTest::TempDir dir;
  const std::string path = dir.file("loop.tarn");
  for (const uint32_t target : {kSecond, kFirstExtentOffset}) {
    Image image = SampleFile();
    PutU32(&image[kSecond + ExtentHeader::kEntryCountAt], 0);
    PutU32(&image[kSecond + ExtentHeader::kNextExtentAt], target);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
    Collector seen;
    const Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, {});
    EXPECT_THROW(CacheFileLoader::Load(file, seen), ExUnsupportedFileVersion) << target;
  }
}

}  // namespace
}  // namespace Tarn
