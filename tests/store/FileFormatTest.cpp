#include "store/FileFormat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <stdexcept>
#include <vector>

#include "support/RawCacheFile.h"

namespace Tarn {
namespace {

using TarnTest::AllZero;
using TarnTest::U32At;

template <size_t N>
std::vector<uint8_t> Bytes(const std::array<uint8_t, N>& image) {
  return std::vector<uint8_t>(image.begin(), image.end());
}

TEST(FileHeaderFormat, FieldsSitAtTheirOffsetsLittleEndian) {
  const FileHeader header{0x01020304, 2, 3, 4, 5, 6, 7, 0xA0B0C0D0};
  const std::vector<uint8_t> image = Bytes(header.encode());
  EXPECT_EQ(image[0], 0x04);  // least significant byte first
  EXPECT_EQ(image[3], 0x01);
  for (uint32_t field = 1; field < 7; ++field) EXPECT_EQ(U32At(image, 4 * field), field + 1);
  EXPECT_EQ(U32At(image, 28), 0xA0B0C0D0u);
  EXPECT_EQ(FileHeader::Decode(header.encode()), header);
  EXPECT_FALSE(header.supported());
  EXPECT_TRUE(FileHeader::ForNewFile().supported());
}

TEST(TypeRecordFormat, LayoutAndRoundTrip) {
  const TypeRecord record = TypeRecord::ForType(0x0102, "Photo");
  const auto image = record.encode();
  EXPECT_EQ(image[0], 0x02);
  EXPECT_EQ(image[1], 0x01);
  EXPECT_EQ(image[2], 5);
  EXPECT_EQ(image[3], 0);
  EXPECT_EQ(std::string(image.begin() + 4, image.begin() + 9), "Photo");
  EXPECT_TRUE(AllZero(Bytes(image), 9, 48));
  EXPECT_EQ(TypeRecord::Decode(image), record);
  EXPECT_EQ(TypeRecord::Decode(image).typeName(), "Photo");
}

TEST(TypeRecordFormat, NameLimits) {
  EXPECT_EQ(TypeRecord::ForType(1, std::string(44, 'n')).typeName().size(), 44u);
  EXPECT_THROW(TypeRecord::ForType(1, std::string(45, 'n')), std::length_error);
  TypeRecord damaged = TypeRecord::ForType(1, std::string(44, 'd'));
  damaged.nameLength = 300;  // a damaged record cannot make the reader overrun it
  EXPECT_EQ(damaged.typeName(), std::string(44, 'd'));
}

TEST(TypeTableFormat, RecordsGoToSlotIdMinusOne) {
  const std::vector<TypeRecord> records = {TypeRecord::ForType(2, "B"),
                                           TypeRecord::ForType(1, "A")};
  const std::vector<uint8_t> table = Bytes(EncodeTypeTable(records));
  ASSERT_EQ(table.size(), 768u);
  EXPECT_EQ(table[0], 1);
  EXPECT_EQ(table[4], 'A');
  EXPECT_EQ(table[48], 2);
  EXPECT_EQ(table[52], 'B');
  EXPECT_TRUE(AllZero(table, 96, 768));
  const std::vector<TypeRecord> decoded = DecodeTypeTable(EncodeTypeTable(records));
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[1].typeName(), "B");
  EXPECT_THROW(EncodeTypeTable(std::vector{TypeRecord::ForType(0, "x")}), std::out_of_range);
  EXPECT_THROW(EncodeTypeTable(std::vector{TypeRecord::ForType(17, "x")}), std::out_of_range);
}

TEST(TypeTableFormat, FirstUnusedSlotEndsTheTable) {
  // Ids 1 and 3 in slots 0 and 2: the empty slot 1 hides slot 2.
  auto table =
      EncodeTypeTable(std::vector{TypeRecord::ForType(1, "A"), TypeRecord::ForType(3, "C")});
  EXPECT_EQ(DecodeTypeTable(table).size(), 1u);
  std::array<uint8_t, kTypeTableSize> empty{};
  empty[48] = 2;  // a record behind an unused first slot
  EXPECT_TRUE(DecodeTypeTable(empty).empty());
}

TEST(ExtentHeaderFormat, NewExtentLayout) {
  const ExtentHeader header = ExtentHeader::ForNewExtent(262'960);
  const std::vector<uint8_t> image = Bytes(header.encode());
  EXPECT_EQ(U32At(image, 0), 64u);
  EXPECT_EQ(U32At(image, 4), 4096u);
  EXPECT_EQ(U32At(image, 8), 262'976u);
  EXPECT_EQ(U32At(image, 12), 0u);
  EXPECT_TRUE(header.supported());
  EXPECT_EQ(header.slotsLength(), 262'144u);
  const ExtentHeader linked{64, 4096, 816, 0xDEADBEEF};
  EXPECT_EQ(ExtentHeader::Decode(linked.encode()), linked);
  EXPECT_FALSE((ExtentHeader{63, 4096, 816, 0}).supported());
}

TEST(EntryHeaderFormat, FieldsSitAtTheirOffsets) {
  PrimaryKey primary = PrimaryKey::FromString("key");
  primary.data[10] = 0x5A;  // junk behind the length must not reach the file
  const EntryHeader header =
      EntryHeader::ForEntry(0x0203, primary, SecondaryKey::FromString("sk"), 262'960, 10, 256);
  const std::vector<uint8_t> image = Bytes(header.encode());
  EXPECT_EQ(image[0], 0x03);
  EXPECT_EQ(image[1], 0x02);
  EXPECT_EQ(image[2], 3);
  EXPECT_EQ(image[3], 2);
  EXPECT_EQ(std::string(image.begin() + 4, image.begin() + 7), "key");
  EXPECT_TRUE(AllZero(image, 7, 36));
  EXPECT_EQ(std::string(image.begin() + 36, image.begin() + 38), "sk");
  EXPECT_TRUE(AllZero(image, 38, 52));
  EXPECT_EQ(U32At(image, 52), 262'960u);
  EXPECT_EQ(U32At(image, 56), 10u);
  EXPECT_EQ(U32At(image, 60), 256u);
  const EntryHeader decoded = EntryHeader::Decode(header.encode());
  EXPECT_EQ(decoded, header);
  EXPECT_TRUE(decoded.primaryKeyValue() == PrimaryKey::FromString("key"));
  EXPECT_TRUE(decoded.secondaryKeyValue() == SecondaryKey::FromString("sk"));
}

TEST(EntryHeaderFormat, FreeSlotsAndDeleteHeader) {
  EXPECT_TRUE(AllZero(Bytes(EntryHeader{}.encode()), 0, 64));
  EntryHeader stale =
      EntryHeader::ForEntry(1, PrimaryKey::FromString("k"), SecondaryKey{}, 1, 2, 256);
  EXPECT_FALSE(stale.isFree());
  stale.primaryKeyLength = 0;  // free whatever else the slot holds
  EXPECT_TRUE(EntryHeader::Decode(stale.encode()).isFree());
}

TEST(EntryHeaderFormat, DamagedKeyLengthsAreClampedAndFlagged) {
  EntryHeader damaged;
  damaged.primaryKeyLength = 200;
  damaged.secondaryKeyLength = 17;
  EXPECT_FALSE(damaged.keysValid());
  EXPECT_EQ(damaged.primaryKeyValue().length, 32);
  EXPECT_EQ(damaged.secondaryKeyValue().length, 16);
  PrimaryKey tooLong{};
  tooLong.length = 33;
  EXPECT_THROW(EntryHeader::ForEntry(1, tooLong, SecondaryKey{}, 0, 0, 0), std::invalid_argument);
}

TEST(Allocation, RoundsUpToSixteenButNotBelowTheMinimum) {
  EXPECT_EQ(AllocatedLengthFor(10, 256), 256u);
  EXPECT_EQ(AllocatedLengthFor(0, 256), 256u);
  EXPECT_EQ(AllocatedLengthFor(300, 256), 304u);
  EXPECT_EQ(AllocatedLengthFor(1000, 256), 1008u);
  EXPECT_EQ(AllocatedLengthFor(17, 1), 32u);
  EXPECT_EQ(AllocatedLengthFor(0xFFFFFFFFu, 256), 0x1'0000'0000u);  // no wrap
}

TEST(FileImages, InitialFileIsHeaderEmptyTypesAndOneFreeExtent) {
  const std::vector<uint8_t> image = InitialFileImage();
  ASSERT_EQ(image.size(), 262'960u);
  const uint32_t header[] = {65536, 32, 48, 16, 32, 16, 1, 800};
  for (int i = 0; i < 8; ++i) EXPECT_EQ(U32At(image, 4 * i), header[i]) << "field " << i;
  EXPECT_EQ(U32At(image, 800), 64u);
  EXPECT_EQ(U32At(image, 804), 4096u);
  EXPECT_EQ(U32At(image, 808), 816u);
  EXPECT_EQ(U32At(image, 812), 0u);
  EXPECT_TRUE(AllZero(image, 32, 800));
  EXPECT_TRUE(AllZero(image, 816, image.size()));
}

TEST(FileImages, AppendedExtentPointsBehindItsOwnHeader) {
  const std::vector<uint8_t> image = NewExtentImage(300'000);
  ASSERT_EQ(image.size(), 262'160u);
  EXPECT_EQ(U32At(image, 0), 64u);
  EXPECT_EQ(U32At(image, 4), 4096u);
  EXPECT_EQ(U32At(image, 8), 300'016u);
  EXPECT_TRUE(AllZero(image, 12, image.size()));
}

}  // namespace
}  // namespace Tarn
