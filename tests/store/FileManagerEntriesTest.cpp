// Entry writes and deletes of the file store, checked on the file's bytes:
// data before header, deletes deferred past writes in flight, slots reused.
#include <memory>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "store/FileManager.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/Exceptions.h"

namespace {

using Pt::IoFaultInjection;
using Tarn::PrimaryKey;

constexpr uint32_t kSlot0 = 816, kData0 = 262'960;

const auto Key = [](const std::string& key) { return PrimaryKey::FromString(key); };

class FileManagerEntriesTest : public testing::Test {
 protected:
  void SetUp() override {
    Pt::PlatformInit(Pt::Config{.asyncFileIo = true});
    store_ = open();
  }
  void TearDown() override {
    IoFaultInjection::Clear();
    store_.reset();
    Pt::PlatformUninit();
  }
  std::unique_ptr<Tarn::FileManager> open() {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.createIfMissing = true;
    return std::make_unique<Tarn::FileManager>(dir_.wfile("c.tarn").c_str(), nullptr, config,
                                               TarnTest::FactoriesFor({"tile"}));
  }
  void write(const std::string& key, size_t length, const std::string& secondary = "s") {
    const std::vector<uint8_t> data(length, 0xAB);
    store_->write(Key(key), Tarn::SecondaryKey::FromString(secondary), "tile",
                  static_cast<int32_t>(length), data.data());
  }
  void reopen() { store_ = nullptr, store_ = open(); }
  std::vector<uint8_t> file() { return TarnTest::ReadFileBytes(dir_.file("c.tarn")); }
  static void HoldWrites(int length) {
    IoFaultInjection::Add(
        {.action = IoFaultInjection::Action::HoldBack, .length = length, .count = -1});
  }

  TarnTest::TempDir dir_;
  std::unique_ptr<Tarn::FileManager> store_;
};

TEST_F(FileManagerEntriesTest, DataIsWrittenBeforeTheHeader) {
  HoldWrites(1008);
  write("a", 1000);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_TRUE(store_->contains(Key("a")));  // visible at once, although nothing is on disk yet
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 64));
  IoFaultInjection::Clear();
  store_->commit();
  const auto bytes = file();
  EXPECT_EQ((std::vector{TarnTest::U32At(bytes, kSlot0 + 52), TarnTest::U32At(bytes, kSlot0 + 56),
                         TarnTest::U32At(bytes, kSlot0 + 60)}),
            (std::vector<uint32_t>{kData0, 1000, 1008}));  // data offset, length, allocated
  EXPECT_EQ(bytes[kData0 + 999], 0xAB);
}

// A failed data write (256 bytes) or header write (64) is posted, and leaves
// no header on disk and no write pending.
TEST_F(FileManagerEntriesTest, FailedWritesArePostedAndLeaveNoHeader) {
  TarnTest::PostedExceptions posted;
  for (const int length : {256, 64}) {  // the data's request, then the header's
    IoFaultInjection::Add({.length = length});
    write("k" + std::to_string(length), 10);
    store_->commit();
    EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 128));
  }
  ASSERT_TRUE(posted.waitFor(2));
  EXPECT_EQ(dynamic_cast<Tarn::ExFileWriteEntry&>(*posted.at(0)).where().line, 103);
  EXPECT_EQ(dynamic_cast<Tarn::ExFileWriteEntryHeader&>(*posted.at(1)).where().line, 72);
  Pt::MutexLock guard(store_->lock());
  for (const auto& [key, info] : store_->entries()) EXPECT_FALSE(info.writePending());
}

// The settled entry's slot and data are freed for the next write, and the
// other entry under its secondary key stays listed, also once reopened.
TEST_F(FileManagerEntriesTest, EraseOfASettledEntryFreesItsSlotForTheNextWrite) {
  write("a", 10, "shared");
  write("b", 10, "shared");
  store_->commit();
  EXPECT_TRUE(store_->erase(Key("a")));
  std::vector<PrimaryKey> keys;
  store_->findPrimaryKeys(Tarn::SecondaryKey::FromString("shared"), keys);
  EXPECT_EQ(keys, std::vector{Key("b")});
  store_->commit();
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 64));
  reopen();  // the reopened store builds its index from the file
  write("c", 10, "shared");
  store_->erase(Key("b"));
  store_->findPrimaryKeys(Tarn::SecondaryKey::FromString("shared"), keys = {});
  EXPECT_EQ(keys, std::vector{Key("c")});
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->entries().at(Key("c")).headerOffset, kSlot0);
  EXPECT_EQ(store_->entries().at(Key("c")).header.dataOffset, kData0);
}

// An erase while the entry's own write is in flight waits for that write:
// clearing the header first would let the header write bring it back.
TEST_F(FileManagerEntriesTest, EraseInFlightIsCarriedOutWhenTheWriteEnds) {
  HoldWrites(256);
  write("a", 10);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_TRUE(store_->erase(Key("a")));
  EXPECT_FALSE(store_->erase(Key("a")));
  write("a", 20);  // insert again while the first write still waits
  ASSERT_TRUE(IoFaultInjection::WaitHeld(2));
  IoFaultInjection::Clear();
  store_->commit();
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 64));  // first write's slot
  EXPECT_EQ(TarnTest::U32At(file(), kSlot0 + 64 + 56), 20u);    // second write's header
  EXPECT_TRUE(store_->checkInvariants());
  reopen();
  EXPECT_EQ(store_->entryCount(), 1);
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->freeEntryHeaders().front(), kSlot0);
}

TEST_F(FileManagerEntriesTest, BadWritesReserveNothing) {
  write("a", 10);
  const std::vector<uint8_t> data(10);
  Tarn::SecondaryKey tooLong{};
  tooLong.length = 17;
  EXPECT_THROW(store_->write(Key("b"), {}, "nope", 10, data.data()), Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(store_->write(Key("a"), {}, "tile", 10, data.data()), std::invalid_argument);
  EXPECT_THROW(store_->write(Key("b"), tooLong, "tile", 10, data.data()), std::invalid_argument);
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->freeEntryHeaders().front(), kSlot0 + 64);
  EXPECT_EQ(store_->fileEnd(), kData0 + 256);
}

}  // namespace
