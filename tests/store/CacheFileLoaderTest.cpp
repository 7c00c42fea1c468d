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

#include "core/RaiseSites.h"
#include "platform/IoFaultInjection.h"
#include "store/LittleEndian.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

using Image = std::vector<uint8_t>;
using Damage = std::function<void(Image&)>;

// Records every visit; `order` spells the sequence, one letter per call
// (Type, Extent, Free slot, Live entry, Dropped entry).
struct Recorder : CacheFileLoader::Visitor {
  std::string order;
  std::vector<std::string> types;
  std::vector<uint32_t> extents, freeSlots;
  std::vector<std::pair<uint32_t, EntryHeader>> live;
  std::vector<std::pair<uint32_t, DropReason>> dropped;

  void onType(const TypeRecord& r) override { order += 'T', types.push_back(r.typeName()); }
  void onExtent(const ExtentHeader&, uint32_t at) override { order += 'E', extents.push_back(at); }
  void onFreeSlot(uint32_t at) override { order += 'F', freeSlots.push_back(at); }
  void onEntry(uint32_t s, const EntryHeader& h) override { order += 'L', live.push_back({s, h}); }
  void onDroppedEntry(uint32_t s, const EntryHeader&, DropReason r) override {
    order += 'D', dropped.push_back({s, r});
  }
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
    const Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, {});
    return CacheFileLoader::Load(file, visits);
  }
  void TearDown() override { Pt::IoFaultInjection::Clear(); }
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

// Damage to the skeleton (header, type table, the first extent, the chain)
// rejects the whole file as unsupported.
TEST_F(CacheFileLoaderTest, RejectsDamagedSkeletonsWithoutWritingThem) {
  // Name, damage, the raise site.
  const std::tuple<const char*, Damage, RaiseSite> kDamagedFiles[] = {
      // Records that lie past the end.
      {"empty", Cut(0), kOpenFileTooShort},
      {"short header", Cut(10), kOpenFileTooShort},
      {"header only", Cut(31), kOpenFileTooShort},
      {"short type table", Cut(799), kOpenTypeTableDamaged},
      {"type table past the end", Set32(16, 300'000), kOpenTypeTableDamaged},
      {"short extent header", Cut(815), kOpenExtentChainDamaged},
      {"first extent past the end", Set32(28, 400'000), kOpenExtentChainDamaged},
      {"short slot array", Cut(262'959), kOpenExtentChainDamaged},
      // The two checks of the format itself.
      {"version 1", Set32(0, 1), kOpenVersion},
      {"version 2.0", Set32(0, 0x20000), kOpenVersion},
      {"32-byte slots", Set32(800, 32), kOpenEntryHeaderSize},
      // Type tables.
      {"name of 45 bytes",
       All({Type(1, 2, "U"), Put(kTypeTableOffset + kTypeRecordSize + 2, Image{45, 0})}),
       kOpenTypeTableDamaged},
      {"name twice", Type(1, 2, "T"), kOpenTypeTableDamaged},
      {"id out of slot order", Type(1, 3, "U"), kOpenTypeTableDamaged},
      {"first id not 1", Type(0, 2, "T"), kOpenTypeTableDamaged},
      // Extent chains.
      {"extent linked to itself", Set32(812, 800), kOpenExtentChainDamaged},
      {"chain back to the first", All({SecondExtent(), Set32(kSecond + 12, 800)}),
       kOpenExtentChainDamaged},
      {"more slots than the file holds", Set32(804, 0xFFFF'FFFF), kOpenExtentChainDamaged},
      {"slot count just past the file", Set32(804, kInitialFileSize / 64 + 1),
       kOpenExtentChainDamaged},
      {"extents share one slot array",
       All({Set32(812, kSecond), Cut(kSecond + 16),
            Put(kSecond, ExtentHeader{64, kEntriesPerExtent, kFirstEntriesOffset, 0}.encode())}),
       kOpenExtentChainDamaged},
      // Tables over tables.
      {"type table over the header", Set32(16, 24), kOpenRangesDamaged},
      {"slots over the type table", Set32(808, 64), kOpenRangesDamaged},
  };
  for (const auto& [name, damage, site] : kDamagedFiles) {
    SCOPED_TRACE(name);
    const Image image = File(kInitialFileSize, damage);
    ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
    expectRejected(0, site.where.line);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), image);
  }
  // The size limit is checked on the length alone (the file is sparse).
  ASSERT_TRUE(TarnTest::WriteFileBytes(path, File(kInitialFileSize)));
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize - 1);
  EXPECT_EQ(loadFile().trailingBytes, CacheFileLoader::kMaxFileSize - 1 - kInitialFileSize);
  std::filesystem::resize_file(path, CacheFileLoader::kMaxFileSize);
  expectRejected(0, kOpenFileTooLarge.where.line);
}

// A read that fails is the system's error at the read's own raise site.
TEST_F(CacheFileLoaderTest, FailedReadsAreSystemErrorsAtTheirRecord) {
  const Image image = File(kInitialFileSize);
  ASSERT_TRUE(TarnTest::WriteFileBytes(path, image));
  const std::tuple<int64_t, int, RaiseSite> kReads[] = {
      {0, EIO, kOpenReadHeader},
      {kTypeTableOffset, EIO, kOpenReadTypeTable},
      {kFirstExtentOffset, ENOMEM, kOpenReadExtentHeader},
      {kFirstEntriesOffset, EIO, kOpenReadEntryHeaders},
  };
  for (const auto& [offset, error, site] : kReads) {
    SCOPED_TRACE(offset);
    Pt::IoFaultInjection::Add(
        {.kind = Pt::IoFaultInjection::Kind::SyncRead, .offset = offset, .error = error});
    expectRejected(error, site.where.line);
    Pt::IoFaultInjection::Clear();
  }
  // A shortened read is continued: the file loads.
  Pt::IoFaultInjection::Add({.action = Pt::IoFaultInjection::Action::Shorten,
                             .kind = Pt::IoFaultInjection::Kind::SyncRead,
                             .count = -1,
                             .shortBytes = 7});
  EXPECT_EQ(loadFile().freeSlots, kEntriesPerExtent);
}

// Damage confined to entries drops those entries only; the others load.
TEST_F(CacheFileLoaderTest, SalvagesFilesWhoseDamageIsConfinedToEntries) {
  using R = DropReason;
  const auto withLengths = [](EntryHeader h, uint32_t data, uint32_t allocated) {
    h.dataLength = data, h.allocatedLength = allocated;
    return h;
  };
  const EntryHeader good = Entry("good", 263'728, 256);
  const auto torn = Entry("k", 262'960, 256).encode();  // its first 40 bytes reach the disk
  const struct {
    const char* name;
    Damage damage;
    std::vector<std::pair<uint32_t, R>> dropped;  // slot number, reason
    std::vector<uint32_t> kept;                   // slot numbers
  } kCases[] = {
      {"data past the end", Live(0, Entry("k", 263'900, 256)), {{0, R::DataPastEnd}}, {9}},
      {"no data range", Live(0, Entry("k", 262'960, 0)), {{0, R::LengthsDamaged}}, {9}},
      {"data longer than its range",
       Live(0, withLengths(Entry("k", 262'960, 256), 257, 256)),
       {{0, R::LengthsDamaged}},
       {9}},
      {"range of 2 GiB",
       Live(0, withLengths(Entry("k", 262'960, 256), 16, 1u << 31)),
       {{0, R::LengthsDamaged}},
       {9}},
      {"primary key of 33",
       All({Live(0, Entry("k", 262'960, 256)), Put(Slot(0) + 2, Image{33})}),
       {{0, R::KeyDamaged}},
       {9}},
      {"secondary key of 17",
       All({Live(0, Entry("k", 262'960, 256)), Put(Slot(0) + 3, Image{17})}),
       {{0, R::KeyDamaged}},
       {9}},
      {"torn header: keys only",
       Put(Slot(0), Image(torn.begin(), torn.begin() + 40)),
       {{0, R::LengthsDamaged}},
       {9}},
      {"unknown type id", Live(0, Entry("k", 262'960, 256, 2)), {{0, R::UnknownType}}, {9}},
      {"type id 0", Live(0, Entry("k", 262'960, 256, 0)), {{0, R::UnknownType}}, {9}},
      {"data over the slots", Live(0, Entry("k", 1000, 256)), {{0, R::DataOverlap}}, {9}},
      {"two entries share data",
       All({Live(0, Entry("a", 263'000, 256)), Live(1, Entry("b", 263'200, 256))}),
       {{0, R::DataOverlap}, {1, R::DataOverlap}},
       {9}},
      {"one range inside another",
       All({Live(0, Entry("a", 262'960, 512)), Live(1, Entry("b", 263'000, 16)),
            Live(2, Entry("c", 263'200, 16))}),
       {{0, R::DataOverlap}, {1, R::DataOverlap}, {2, R::DataOverlap}},
       {9}},
      {"one key twice: the first in chain order stays",
       All({Live(0, Entry("good", 262'960, 256)), Live(1, Entry("x", 263'216, 256))}),
       {{9, R::DuplicateKey}},
       {0, 1}},
      {"one key three times, out of data order: the first in chain order stays",
       All({Live(0, Entry("good", 263'216, 256)), Live(1, Entry("good", 262'960, 256))}),
       {{1, R::DuplicateKey}, {9, R::DuplicateKey}},
       {0}},
      {"entries out of data order, apart",
       All({Live(0, Entry("a", 263'300, 256)), Live(1, Entry("b", 262'960, 256))}),
       {},
       {0, 1, 9}},
      {"entries out of data order, overlapping",
       All({Live(0, Entry("a", 263'300, 256)), Live(1, Entry("b", 262'960, 256)),
            Live(2, Entry("c", 263'100, 256))}),
       {{0, R::DataOverlap}, {1, R::DataOverlap}, {2, R::DataOverlap}},
       {9}},
      {"one key twice, the first overlapping",
       All({Live(0, Entry("good", 262'960, 256)), Live(1, Entry("x", 263'000, 256))}),
       {{0, R::DataOverlap}, {1, R::DataOverlap}},
       {9}},
  };
  for (const auto& c : kCases) {
    SCOPED_TRACE(c.name);
    visits = Recorder();
    const Image image = File(264'000, All({Live(9, good), c.damage}));
    const CacheFileLoader::Summary summary = load(image);
    std::vector<std::pair<uint32_t, R>> dropped;
    for (const auto& [slot, reason] : c.dropped) dropped.push_back({Slot(slot), reason});
    EXPECT_EQ(visits.dropped, dropped);
    std::vector<uint32_t> kept;
    for (const auto& [slot, header] : visits.live) kept.push_back(slot);
    std::vector<uint32_t> expected;
    for (const uint32_t slot : c.kept) expected.push_back(Slot(slot));
    EXPECT_EQ(kept, expected);
    EXPECT_EQ(summary.droppedEntries, c.dropped.size());
    EXPECT_EQ(summary.liveEntries, c.kept.size());
    EXPECT_EQ(summary.freeSlots + summary.droppedEntries + summary.liveEntries, kEntriesPerExtent);
    EXPECT_EQ(summary.chainCutAt, 0u);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), image);
  }
}

// A dropped entry's range is free unless another record claims it.
TEST_F(CacheFileLoaderTest, DroppedEntriesClaimNoSpace) {
  const CacheFileLoader::Summary summary =
      load(File(264'000, All({Live(0, Entry("a", 262'960, 256)), Live(1, Entry("b", 263'000, 64)),
                              Live(2, Entry("c", 263'472, 256))})));
  EXPECT_EQ(summary.gaps, (std::vector<FileRange>{{262'960, 512}}));
  EXPECT_EQ(summary.trailingBytes, 264'000u - 263'728u);
}

// A link to a further extent that leads nowhere ends the chain there.
TEST_F(CacheFileLoaderTest, BrokenLinksEndTheChain) {
  const Damage zeroedSecond = Put(kSecond, Image(kExtentHeaderSize, 0));
  const std::pair<const char*, Damage> kCases[] = {
      {"link past the end", Set32(812, 400'000)},
      {"link to the last bytes", Set32(812, kInitialFileSize - 8)},
      {"link to zeros", All({SecondExtent(), zeroedSecond})},
      {"link to an extent whose slots are cut", All({SecondExtent(), Cut(kSecond + 1000)})},
      {"link to 32-byte slots", All({SecondExtent(), Set32(kSecond, 32)})},
  };
  for (const auto& [name, damage] : kCases) {
    SCOPED_TRACE(name);
    visits = Recorder();
    const Image image =
        File(kInitialFileSize,
             All({damage, Live(0, Entry("k", 1, 1)), Live(1, Entry("j", kFirstExtentOffset, 16))}));
    const CacheFileLoader::Summary summary = load(image);
    EXPECT_EQ(summary.chainCutAt, kFirstExtentOffset);
    EXPECT_EQ(visits.extents, std::vector<uint32_t>{kFirstExtentOffset});
    EXPECT_EQ(summary.droppedEntries, 2u);
    EXPECT_EQ(TarnTest::ReadFileBytes(path), image);
  }
}

// Free space lies only between claimed ranges: a slot whose key length is 0
// claims nothing, whatever else it holds, and the bytes behind the last
// entry are not free. Then types come first, then each extent of the chain
// with its slots in slot order.
TEST_F(CacheFileLoaderTest, GoodFiles) {
  const CacheFileLoader::Summary summary = load(File(
      264'000, All({Live(0, Entry("first", 262'960, 256)), Live(1, Entry("second", 263'472, 256)),
                    Live(2, Entry("ghost", 263'216, 256)), Put(Slot(2) + 2, Image{0})})));
  EXPECT_EQ(summary.gaps, (std::vector<FileRange>{{263'216, 256}}));
  EXPECT_EQ(summary.trailingBytes, 264'000u - 263'728u);
  EXPECT_EQ(visits.freeSlots.front(), Slot(2));
  ASSERT_EQ(visits.live.size(), 2u);
  EXPECT_EQ(visits.live[1], std::make_pair(Slot(1), Entry("second", 263'472, 256)));
  EXPECT_EQ(summary.droppedEntries, 0u);

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
