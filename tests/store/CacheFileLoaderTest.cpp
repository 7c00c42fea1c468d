#include "store/CacheFileLoader.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <tuple>
#include <vector>

#include "store/LittleEndian.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Image = std::vector<uint8_t>;
using Damage = std::function<void(Image&)>;

// Records every visit; `order` spells the sequence, one letter per call
// (Type, Extent, Free slot, Live entry).
struct Recorder : CacheFileLoader::Visitor {
  std::string order;
  std::vector<std::string> types;
  std::vector<uint32_t> extents, freeSlots;
  std::vector<std::pair<uint32_t, EntryHeader>> live;

  void onType(const TypeRecord& r) override { order += 'T', types.push_back(r.typeName()); }
  void onExtent(const ExtentHeader&, uint32_t at) override { order += 'E', extents.push_back(at); }
  void onFreeSlot(uint32_t at) override { order += 'F', freeSlots.push_back(at); }
  void onEntry(uint32_t s, const EntryHeader& h) override { order += 'L', live.push_back({s, h}); }
};

// Edits of a file image's bytes; a second extent goes at kSecond.
struct Edit {
  static constexpr uint32_t kSecond = kInitialFileSize;
  static uint32_t Slot(uint32_t n) { return kFirstEntriesOffset + n * kEntryHeaderSize; }
  static EntryHeader Entry(const char* key, uint32_t at, uint32_t allocated, uint16_t type = 1) {
    return EntryHeader::ForEntry(type, PrimaryKey::FromString(key), SecondaryKey::FromString("s"),
                                 at, allocated / 2, allocated);
  }
  template <class Bytes>
  static Damage Put(size_t at, const Bytes& b) {
    return [=](Image& f) { std::copy(b.begin(), b.end(), f.begin() + at); };
  }
  static Damage Live(uint32_t n, const EntryHeader& h) { return Put(Slot(n), h.encode()); }
  static Damage Type(uint32_t n, uint16_t id, const char* name) {
    return Put(kTypeTableOffset + n * kTypeRecordSize, TypeRecord::ForType(id, name).encode());
  }
  static Damage Cut(size_t length) {
    return [=](Image& f) { f.resize(length); };
  }
  static Damage Set32(size_t at, uint32_t v) {
    return [=](Image& f) { PutU32(&f[at], v); };
  }
  static Damage All(std::vector<Damage> all) {
    return [=](Image& f) { std::ranges::for_each(all, [&](const Damage& d) { d(f); }); };
  }
  static Damage SecondExtent() {
    return All({Set32(812, kSecond), Cut(kSecond + kExtentBlockSize),
                Put(kSecond, NewExtentImage(kSecond))});
  }
  // A new file that knows type 1, "T", and is `length` bytes long, then `damage`.
  static Image File(size_t length, const Damage& damage = Put(0, Image())) {
    Image image = InitialFileImage();
    All({Type(0, 1, "T"), Cut(length), damage})(image);
    return image;
  }
};

class CacheFileLoaderTest : public ::testing::Test, protected Edit {
 protected:
  CacheFileLoader::Summary load(const Image& image) {
    EXPECT_TRUE(TarnTest::WriteFileBytes(path, image));
    return loadFile();
  }
  CacheFileLoader::Summary loadFile() {
    const std::unique_ptr<FILE, int (*)(FILE*)> file(fopen(path.c_str(), "rbe"), &fclose);
    return CacheFileLoader::Load(fileno(file.get()), visits);
  }
  // Expects the file to be refused with Pt::ExSystem carrying `code` or, for
  // code 0, ExUnsupportedFileVersion, raised at `line`.
  void expectRejected(int code, int line) {
    try {
      loadFile();
      ADD_FAILURE() << "the file was accepted";
    } catch (const Pt::Exception& error) {
      const auto* system = dynamic_cast<const Pt::ExSystem*>(&error);
      EXPECT_EQ(system ? system->code() : 0, code) << error.what();
      EXPECT_TRUE(system || dynamic_cast<const ExUnsupportedFileVersion*>(&error));
      EXPECT_EQ(error.where().line, line);
    }
  }

  TarnTest::TempDir dir;
  const std::string path = dir.file("cache.tarn");
  Recorder visits;
};

TEST_F(CacheFileLoaderTest, RejectsDamagedFilesWithoutWritingThem) {
  // Name, damage, the ExSystem's errno (or 0 for ExUnsupportedFileVersion), line raised at.
  const std::tuple<const char*, Damage, int, int> kDamagedFiles[] = {
      // Records that cannot be read whole.
      {"empty", Cut(0), EIO, 287},
      {"short header", Cut(31), EIO, 287},
      {"short type table", Cut(799), EIO, 307},
      {"type table past the end", Set32(16, 300'000), EIO, 307},
      {"short extent header", Cut(815), EIO, 332},
      {"next extent past the end", Set32(812, 400'000), EIO, 332},
      {"short slot array", Cut(262'959), EIO, 358},
      // The two checks of the format itself.
      {"version 1", Set32(0, 1), 0, 292},
      {"version 2.0", Set32(0, 0x20000), 0, 292},
      {"32-byte slots", Set32(800, 32), 0, 344},
      // Type tables.
      {"name of 45 bytes",
       All({Type(1, 2, "U"), Put(kTypeTableOffset + kTypeRecordSize + 2, Image{45, 0})}), 0, 311},
      {"name twice", Type(1, 2, "T"), 0, 311},
      {"id out of slot order", Type(1, 3, "U"), 0, 311},
      {"first id not 1", Type(0, 2, "T"), 0, 311},
      // Extent chains.
      {"extent linked to itself", Set32(812, 800), 0, 336},
      {"chain back to the first", All({SecondExtent(), Set32(kSecond + 12, 800)}), 0, 336},
      {"more slots than the file holds", Set32(804, 0xFFFF'FFFF), 0, 336},
      {"slot count just past the file", Set32(804, kInitialFileSize / 64 + 1), 0, 336},
      {"extents share one slot array",
       All({Set32(812, kSecond), Cut(kSecond + 16),
            Put(kSecond, ExtentHeader{64, kEntriesPerExtent, kFirstEntriesOffset, 0}.encode())}),
       0, 336},
      // Live entries.
      {"primary key of 33", Put(Slot(3) + 2, Image{33}), 0, 362},
      {"secondary key of 17", All({Live(3, Entry("k", 262'960, 256)), Put(Slot(3) + 3, Image{17})}),
       0, 362},
      {"unknown type id", Live(0, Entry("k", 262'960, 256, 2)), 0, 362},
      {"type id 0", Live(0, Entry("k", 262'960, 256, 0)), 0, 362},
      // Claimed ranges.
      {"data past the end", Live(0, Entry("k", 262'960, 256)), 0, 371},
      {"empty data range past the end", Live(0, Entry("k", 262'961, 0)), 0, 371},
      {"data over the slots", Live(0, Entry("k", 1000, 256)), 0, 371},
      {"two entries share data",
       All({Cut(264'000), Live(0, Entry("a", 263'000, 256)), Live(1, Entry("b", 263'200, 256))}), 0,
       371},
      {"type table over the header", Set32(16, 24), 0, 371},
      {"slots over the type table", Set32(808, 64), 0, 371},
  };
  for (const auto& [name, damage, code, line] : kDamagedFiles) {
    SCOPED_TRACE(name);
    const Image image = File(kInitialFileSize, damage);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
    expectRejected(code, line);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), image);
  }
  // The size limit is checked on the length alone (the file is sparse).
  ASSERT_TRUE(TarnTest::WriteFileBytes(path, File(kInitialFileSize)));
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize - 1);
  EXPECT_EQ(loadFile().trailingBytes, CacheFileLoader::kMaxFileSize - 1 - kInitialFileSize);
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize);
  expectRejected(0, 283);
}

// Free space lies only between claimed ranges: a slot whose key length is 0
// claims nothing, whatever else it holds, and the bytes behind the last
// entry are not free. Of two entries with one key both are visited and both
// ranges claimed. Then types come first, then each extent of the chain with
// its slots in slot order.
TEST_F(CacheFileLoaderTest, GoodFiles) {
  const CacheFileLoader::Summary summary = load(File(
      264'000, All({Live(0, Entry("first", 262'960, 256)), Live(1, Entry("second", 263'472, 256)),
                    Live(2, Entry("ghost", 263'216, 256)), Put(Slot(2) + 2, Image{0}),
                    Live(9, Entry("first", 263'728, 256))})));
  EXPECT_EQ(summary.gaps, (std::vector<FileRange>{{263'216, 256}}));
  EXPECT_EQ(visits.freeSlots.front(), Slot(2));
  ASSERT_EQ(visits.live.size(), 3u);
  EXPECT_EQ(visits.live[1], std::make_pair(Slot(1), Entry("second", 263'472, 256)));
  EXPECT_EQ(visits.live[2].first, Slot(9));

  visits = Recorder();
  const uint32_t slot = kSecond + kExtentHeaderSize, end = kSecond + kExtentBlockSize;
  EXPECT_TRUE(
      load(File(kInitialFileSize,
                All({Type(1, 2, "U"), Type(3, 9, "ignored behind the unused slot"), SecondExtent(),
                     Put(slot, Entry("k", end, 32, 2).encode()), Cut(end + 32)})))
          .gaps.empty());
  EXPECT_EQ(visits.types, (std::vector<std::string>{"T", "U"}));
  EXPECT_EQ(visits.extents, (std::vector<uint32_t>{kFirstExtentOffset, kSecond}));
  EXPECT_EQ(visits.freeSlots[kEntriesPerExtent - 1], Slot(kEntriesPerExtent - 1));
  EXPECT_EQ(visits.order, "TTE" + std::string(kEntriesPerExtent, 'F') + "EL" +
                              std::string(kEntriesPerExtent - 1, 'F'));
}

}  // namespace
}  // namespace Tarn
