// The shared tier's records: what is written reads back, and every way a
// value can be wrong is refused with its reason.
#include "tier/TierRecord.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "store/LittleEndian.h"

namespace {

using Tarn::CheckTierRecord;
using Tarn::TierRecordCheck;

const Tarn::PrimaryKey kKey = Tarn::PrimaryKey::FromString("z3/x5/y7");
const Tarn::SecondaryKey kSecondary = Tarn::SecondaryKey::FromString("z3");
const std::string kPayload = "the encoded bytes of a tile";

std::string TileKey(const Tarn::PrimaryKey& key = kKey) {
  return Tarn::TierKey("app", "tile", key);
}

std::string Record(const std::string& payload = kPayload) {
  return Tarn::EncodeTierRecord(TileKey(), "tile", kSecondary,
                                reinterpret_cast<const uint8_t*>(payload.data()),
                                static_cast<uint32_t>(payload.size()));
}

TEST(TierRecordTest, RoundTripKeepsSecondaryKeyAndPayload) {
  for (const std::string& payload : {kPayload, std::string(), std::string(70000, '\xAB')}) {
    const std::string record = Record(payload);
    EXPECT_EQ(record.size(), Tarn::TierRecordSize(TileKey(), "tile", kSecondary,
                                                  static_cast<uint32_t>(payload.size())));
    Tarn::TierRecordView view;
    ASSERT_EQ(CheckTierRecord(record, TileKey(), "tile", view), TierRecordCheck::Valid);
    EXPECT_EQ(view.payload, payload);
    EXPECT_TRUE(view.secondaryKey == kSecondary);
  }
}

TEST(TierRecordTest, HeaderIsLittleEndianAtItsDocumentedOffsets) {
  const std::string record = Record();
  const auto* bytes = reinterpret_cast<const uint8_t*>(record.data());
  EXPECT_EQ(record.substr(0, 4), "TRTV");
  EXPECT_EQ(Tarn::GetU16(bytes + 4), 1);
  EXPECT_EQ(bytes[6], 4);  // "tile"
  EXPECT_EQ(bytes[7], 2);  // "z3"
  EXPECT_EQ(Tarn::GetU16(bytes + 8), TileKey().size());
  EXPECT_EQ(Tarn::GetU32(bytes + 12), kPayload.size());
  EXPECT_EQ(record.substr(20, 4), "tile");
  EXPECT_EQ(record.substr(record.size() - kPayload.size()), kPayload);
}

TEST(TierRecordTest, KeysOfDifferentPartsNeverCollide) {
  // Length prefixes keep "ab"+"c" apart from "a"+"bc".
  EXPECT_NE(Tarn::TierKey("ab", "c", kKey), Tarn::TierKey("a", "bc", kKey));
  EXPECT_NE(Tarn::TierKey("app", "tile", Tarn::PrimaryKey::FromString("k")),
            Tarn::TierKey("app", "tile", Tarn::PrimaryKey::FromString("k2")));
}

struct Damage {
  const char* name;
  std::function<std::string()> value;
  TierRecordCheck expected;
};

std::string Flip(std::string record, size_t at) {
  record[at] = static_cast<char>(record[at] ^ 0x40);
  return record;
}

std::string WithU16(std::string record, size_t at, uint16_t value) {
  Tarn::PutU16(reinterpret_cast<uint8_t*>(record.data()) + at, value);
  return record;
}

TEST(TierRecordTest, EveryDamageIsRefusedWithItsReason) {
  const std::string good = Record();
  const Damage cases[] = {
      {"empty", [] { return std::string(); }, TierRecordCheck::TooShort},
      {"half a header", [&] { return good.substr(0, 10); }, TierRecordCheck::TooShort},
      {"another program's value", [] { return std::string(64, 'x'); }, TierRecordCheck::Foreign},
      {"newer version", [&] { return WithU16(good, 4, 2); }, TierRecordCheck::UnknownVersion},
      {"truncated payload", [&] { return good.substr(0, good.size() - 1); },
       TierRecordCheck::BadLength},
      {"bytes appended", [&] { return good + "x"; }, TierRecordCheck::BadLength},
      {"reserved field set", [&] { return WithU16(good, 10, 1); }, TierRecordCheck::BadLength},
      {"payload bit flipped", [&] { return Flip(good, good.size() - 3); },
       TierRecordCheck::Corrupted},
      {"secondary key flipped", [&] { return Flip(good, 24); }, TierRecordCheck::Corrupted},
      {"checksum flipped", [&] { return Flip(good, 17); }, TierRecordCheck::Corrupted},
      {"another type",
       [] { return Tarn::EncodeTierRecord(TileKey(), "icon", kSecondary, nullptr, 0); },
       TierRecordCheck::WrongType},
      {"another key",
       [] {
         return Tarn::EncodeTierRecord(TileKey(Tarn::PrimaryKey::FromString("other")), "tile",
                                       kSecondary, nullptr, 0);
       },
       TierRecordCheck::WrongKey},
  };
  for (const Damage& damage : cases) {
    Tarn::TierRecordView view;
    EXPECT_EQ(CheckTierRecord(damage.value(), TileKey(), "tile", view), damage.expected)
        << damage.name;
  }
}

}  // namespace
