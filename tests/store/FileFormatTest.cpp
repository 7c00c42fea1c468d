#include "store/FileFormat.h"

#include <gtest/gtest.h>

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

TEST(FileFormat, FileHeaderIsEightLittleEndianWords) {
  const FileHeader header{0x01020304, 2, 3, 4, 5, 6, 7, 0xA0B0C0D0};
  const std::vector<uint8_t> image = Bytes(header.encode());
  EXPECT_EQ(image[0], 0x04);  // least significant byte first
  for (uint32_t field = 1; field < 7; ++field) EXPECT_EQ(U32At(image, 4 * field), field + 1);
  EXPECT_EQ(U32At(image, 28), 0xA0B0C0D0u);
  EXPECT_EQ(FileHeader::Decode(header.encode()), header);
}

TEST(FileFormat, TypeRecordsAndTheTypeTable) {
  const auto image = Bytes(TypeRecord::ForType(0x0102, "Photo").encode());
  EXPECT_EQ(std::vector<uint8_t>(image.begin(), image.begin() + 4),
            (std::vector<uint8_t>{0x02, 0x01, 5, 0}));
  EXPECT_EQ(std::string(image.begin() + 4, image.begin() + 9), "Photo");
  EXPECT_TRUE(AllZero(image, 9, 48));
  EXPECT_THROW(TypeRecord::ForType(1, std::string(45, 'n')), std::length_error);
  TypeRecord damaged = TypeRecord::ForType(1, std::string(44, 'd'));
  damaged.nameLength = 300;  // a damaged record cannot make the reader overrun it
  EXPECT_EQ(damaged.typeName(), std::string(44, 'd'));

  // Records go to slot id - 1; the first unused slot ends the table.
  const std::vector<TypeRecord> records = {TypeRecord::ForType(2, "B"),
                                           TypeRecord::ForType(1, "A")};
  const auto table = EncodeTypeTable(records);
  EXPECT_EQ(table[4], 'A');
  EXPECT_EQ(table[52], 'B');
  EXPECT_TRUE(AllZero(Bytes(table), 96, 768));
  const std::vector<TypeRecord> decoded = DecodeTypeTable(table);
  ASSERT_EQ(decoded.size(), 2u);
  EXPECT_EQ(decoded[1], records[0]);
  EXPECT_EQ(
      DecodeTypeTable(EncodeTypeTable(std::vector{records[1], TypeRecord::ForType(3, "C")})).size(),
      1u);
  EXPECT_THROW(EncodeTypeTable(std::vector{TypeRecord::ForType(0, "x")}), std::out_of_range);
  EXPECT_THROW(EncodeTypeTable(std::vector{TypeRecord::ForType(17, "x")}), std::out_of_range);
}

TEST(FileFormat, NewExtentPointsBehindItsOwnHeader) {
  const std::vector<uint8_t> image = NewExtentImage(300'000);
  ASSERT_EQ(image.size(), 262'160u);
  EXPECT_EQ(U32At(image, 0), 64u);
  EXPECT_EQ(U32At(image, 4), 4096u);
  EXPECT_EQ(U32At(image, 8), 300'016u);
  EXPECT_TRUE(AllZero(image, 12, image.size()));
  const ExtentHeader linked{64, 4096, 816, 0xDEADBEEF};
  EXPECT_EQ(U32At(Bytes(linked.encode()), 12), 0xDEADBEEFu);
  EXPECT_EQ(ExtentHeader::Decode(linked.encode()), linked);
}

TEST(FileFormat, EntryHeaderFieldsAndDamagedKeyLengths) {
  PrimaryKey primary = PrimaryKey::FromString("key");
  primary.data[10] = 0x5A;  // junk behind the length must not reach the file
  const EntryHeader header =
      EntryHeader::ForEntry(0x0203, primary, SecondaryKey::FromString("sk"), 262'960, 10, 256);
  const std::vector<uint8_t> image = Bytes(header.encode());
  EXPECT_EQ(std::vector<uint8_t>(image.begin(), image.begin() + 4),
            (std::vector<uint8_t>{0x03, 0x02, 3, 2}));
  EXPECT_EQ(std::string(image.begin() + 4, image.begin() + 36), "key" + std::string(29, '\0'));
  EXPECT_EQ(std::string(image.begin() + 36, image.begin() + 52), "sk" + std::string(14, '\0'));
  EXPECT_EQ(U32At(image, 52), 262'960u);
  EXPECT_EQ(U32At(image, 56), 10u);
  EXPECT_EQ(U32At(image, 60), 256u);
  const EntryHeader decoded = EntryHeader::Decode(header.encode());
  EXPECT_EQ(decoded, header);
  EXPECT_TRUE(decoded.primaryKeyValue() == PrimaryKey::FromString("key"));
  EXPECT_TRUE(decoded.secondaryKeyValue() == SecondaryKey::FromString("sk"));

  EntryHeader damaged;
  damaged.primaryKeyLength = 200;
  damaged.secondaryKeyLength = 17;
  EXPECT_EQ(damaged.primaryKeyValue().length, 32);
  EXPECT_EQ(damaged.secondaryKeyValue().length, 16);
  PrimaryKey tooLong{};
  tooLong.length = 33;
  EXPECT_THROW(EntryHeader::ForEntry(1, tooLong, SecondaryKey{}, 0, 0, 0), std::invalid_argument);
}

TEST(FileFormat, AllocationRoundsUpToSixteenButNotBelowTheMinimum) {
  EXPECT_EQ(AllocatedLengthFor(10, 256), 256u);
  EXPECT_EQ(AllocatedLengthFor(300, 256), 304u);
  EXPECT_EQ(AllocatedLengthFor(17, 1), 32u);
  EXPECT_EQ(AllocatedLengthFor(0xFFFFFFFFu, 256), 0x1'0000'0000u);  // no wrap
}

}  // namespace
}  // namespace Tarn
