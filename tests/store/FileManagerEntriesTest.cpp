// Entry writes and deletes of the file store, checked on the file's bytes:
// data before header, deletes deferred past writes in flight, slots reused.
#include <cstring>
#include <memory>

#include <gtest/gtest.h>

#include "platform/IoFaultInjection.h"
#include "pt/Platform.h"
#include "store/FileManager.h"
#include "support/PostedExceptions.h"
#include "support/RawCacheFile.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "tarn/Exceptions.h"

namespace {

using Pt::IoFaultInjection;
using Tarn::FileManager;
using Tarn::PrimaryKey;
using Tarn::SecondaryKey;
using TarnTest::ReadFileBytes;
using TarnTest::U32At;

constexpr uint32_t kSlot0 = 816;
constexpr uint32_t kData0 = 262'960;

class FileManagerEntriesTest : public testing::Test {
 protected:
  void SetUp() override {
    Pt::Config config;
    config.asyncFileIo = true;
    Pt::PlatformInit(config);
    store_ = open();
  }
  void TearDown() override {
    IoFaultInjection::Clear();
    store_.reset();
    Pt::PlatformUninit();
  }
  std::unique_ptr<FileManager> open() {
    Tarn::Config config{};
    config.createIfMissing = true;
    return std::make_unique<FileManager>(dir_.wfile("c.tarn").c_str(), nullptr, config,
                                         TarnTest::FactoriesFor({"tile"}));
  }
  void write(const std::string& key, size_t length, uint8_t fill = 0xAB,
             const std::string& secondary = "s") {
    const std::vector<uint8_t> data(length, fill);
    store_->write(PrimaryKey::FromString(key), SecondaryKey::FromString(secondary), "tile",
                  static_cast<int32_t>(length), data.data());
  }
  std::vector<uint8_t> file() { return ReadFileBytes(dir_.file("c.tarn")); }
  static int HoldDataWrites(int length) {
    IoFaultInjection::Rule hold;
    hold.action = IoFaultInjection::Action::HoldBack;
    hold.length = length;
    hold.count = -1;
    return IoFaultInjection::Add(hold);
  }
  std::vector<PrimaryKey> keysUnder(const std::string& secondary) {
    std::vector<PrimaryKey> keys;
    store_->findPrimaryKeys(SecondaryKey::FromString(secondary), keys);
    return keys;
  }

  TarnTest::TempDir dir_;
  std::unique_ptr<FileManager> store_;
};

TEST_F(FileManagerEntriesTest, DataIsWrittenBeforeTheHeader) {
  HoldDataWrites(1008);
  write("a", 1000);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  // Visible at once, although nothing is on disk yet.
  EXPECT_TRUE(store_->contains(PrimaryKey::FromString("a")));
  EXPECT_EQ(keysUnder("s").size(), 1u);
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 64));
  IoFaultInjection::Clear();
  store_->commit();
  const auto bytes = file();
  EXPECT_EQ(bytes[kSlot0 + 2], 1);  // primary key length
  EXPECT_EQ(U32At(bytes, kSlot0 + 52), kData0);
  EXPECT_EQ(U32At(bytes, kSlot0 + 56), 1000u);
  EXPECT_EQ(U32At(bytes, kSlot0 + 60), 1008u);
  EXPECT_EQ(bytes[kData0 + 999], 0xAB);
  EXPECT_TRUE(TarnTest::AllZero(bytes, kData0 + 1000, kData0 + 1008));
}

TEST_F(FileManagerEntriesTest, FailedWritesArePostedAndLeaveNoHeader) {
  TarnTest::PostedExceptions posted;
  struct Case {
    int length;  // of the request to fail: the data (256) or the header (64)
    int line;
  };
  const Case cases[] = {{256, 103}, {64, 72}};
  int written = 0;
  for (const Case& failure : cases) {
    IoFaultInjection::Rule fail;
    fail.length = failure.length;
    IoFaultInjection::Add(fail);
    write("k" + std::to_string(written), 10);
    store_->commit();
    IoFaultInjection::Clear();
    ASSERT_TRUE(posted.waitFor(static_cast<size_t>(++written)));
    EXPECT_EQ(posted.at(written - 1)->where().line, failure.line);
    EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 128));
  }
  EXPECT_NE(dynamic_cast<Tarn::ExFileWriteEntry*>(posted.at(0).get()), nullptr);
  EXPECT_NE(dynamic_cast<Tarn::ExFileWriteEntryHeader*>(posted.at(1).get()), nullptr);
  Pt::MutexLock guard(store_->lock());
  for (const auto& [key, info] : store_->entries()) EXPECT_FALSE(info.writePending);
}

TEST_F(FileManagerEntriesTest, EraseOfASettledEntryFreesItsSlotForTheNextWrite) {
  write("a", 10);
  write("b", 10);
  store_->commit();
  EXPECT_TRUE(store_->erase(PrimaryKey::FromString("a")));
  EXPECT_FALSE(store_->contains(PrimaryKey::FromString("a")));
  EXPECT_FALSE(store_->erase(PrimaryKey::FromString("a")));
  store_->commit();
  EXPECT_TRUE(TarnTest::AllZero(file(), kSlot0, kSlot0 + 64));
  write("c", 10);
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->entries().at(PrimaryKey::FromString("c")).headerOffset, kSlot0);
  EXPECT_EQ(store_->entries().at(PrimaryKey::FromString("c")).header.dataOffset, kData0);
}

// An erase while the entry's own write is in flight waits for that write:
// clearing the header first would let the header write bring it back.
TEST_F(FileManagerEntriesTest, EraseInFlightIsCarriedOutWhenTheWriteEnds) {
  HoldDataWrites(256);
  write("a", 10);
  ASSERT_TRUE(IoFaultInjection::WaitHeld(1));
  EXPECT_TRUE(store_->erase(PrimaryKey::FromString("a")));
  EXPECT_FALSE(store_->erase(PrimaryKey::FromString("a")));
  write("a", 20, 0xCD);  // insert again while the first write still waits
  ASSERT_TRUE(IoFaultInjection::WaitHeld(2));
  {
    Pt::MutexLock guard(store_->lock());
    EXPECT_EQ(store_->pendingErasures().size(), 1u);
  }
  IoFaultInjection::Clear();
  store_->commit();
  const auto bytes = file();
  EXPECT_TRUE(TarnTest::AllZero(bytes, kSlot0, kSlot0 + 64));  // first write's slot
  EXPECT_EQ(U32At(bytes, kSlot0 + 64 + 56), 20u);              // second write's header
  {
    Pt::MutexLock guard(store_->lock());
    EXPECT_TRUE(store_->pendingErasures().empty());
    EXPECT_EQ(store_->freeEntryHeaders().front(), kSlot0);
    EXPECT_FALSE(store_->entries().at(PrimaryKey::FromString("a")).writePending);
  }
  store_->checkInvariants();
  store_.reset();
  store_ = open();
  EXPECT_EQ(store_->entryCount(), 1);
}

TEST_F(FileManagerEntriesTest, SharedSecondaryKeyKeepsTheOtherEntryListed) {
  write("a", 10, 1, "shared");
  write("b", 10, 1, "shared");
  EXPECT_EQ(keysUnder("shared"),
            (std::vector<PrimaryKey>{PrimaryKey::FromString("a"), PrimaryKey::FromString("b")}));
  store_->erase(PrimaryKey::FromString("a"));
  EXPECT_EQ(keysUnder("shared"), std::vector<PrimaryKey>{PrimaryKey::FromString("b")});
  store_->commit();
  store_.reset();
  store_ = open();  // the reopened store builds its index from the file
  write("c", 10, 1, "shared");
  store_->erase(PrimaryKey::FromString("b"));
  EXPECT_EQ(keysUnder("shared"), std::vector<PrimaryKey>{PrimaryKey::FromString("c")});
}

TEST_F(FileManagerEntriesTest, BadWritesReserveNothing) {
  write("a", 10);
  const std::vector<uint8_t> data(10);
  EXPECT_THROW(store_->write(PrimaryKey::FromString("b"), SecondaryKey{}, "nope", 10, data.data()),
               Tarn::ExFactoryClassNotFound);
  EXPECT_THROW(store_->write(PrimaryKey::FromString("a"), SecondaryKey{}, "tile", 10, data.data()),
               std::invalid_argument);
  SecondaryKey tooLong{};
  tooLong.length = 17;
  EXPECT_THROW(store_->write(PrimaryKey::FromString("b"), tooLong, "tile", 10, data.data()),
               std::invalid_argument);
  Pt::MutexLock guard(store_->lock());
  EXPECT_EQ(store_->freeEntryHeaders().front(), kSlot0 + 64);
  EXPECT_EQ(store_->fileEnd(), kData0 + 256);
}

}  // namespace
