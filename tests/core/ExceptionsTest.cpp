#include "tarn/Exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <latch>
#include <memory>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "core/Messages.h"
#include "core/RaiseSites.h"

namespace Tarn {
namespace {

const wchar_t* const kExpectedMessages[kMessageCount] = {
    L"Existing Cache file is unsupported or corrupt!",
    L"Cachable failied to Verify -- not inserted into cache!",
    L"Factory Class for the specified type Not Found!",
    L"Asynchronous File Entry Read I//O Operation Failed!",
    L"Asynchronous File Entry Write I//O Operation Failed!",
    L"Asynchronous File Extent Write I//O Operation Failed!",
    L"Asynchronous File Entry Header Write I//O Operation Failed!",
    L"Asynchronous File Extent Header Write I//O Operation Failed!",
    L"Asynchronous File Delete Header Write I//O Operation Failed!",
};

TEST(Messages, AreTheNineFixedTexts) {
  for (int code = 0; code < kMessageCount; ++code) {
    EXPECT_EQ(std::wstring(errorMessage(code)), kExpectedMessages[code]) << "code " << code;
  }
  EXPECT_NE(errorMessage(9), nullptr);
  EXPECT_NE(errorMessage(-1), nullptr);
}

TEST(Messages, ConcurrentCallersAllGetTheSamePointers) {
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::vector<const wchar_t*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([&, t] {
      start.arrive_and_wait();
      for (int code = 0; code < kMessageCount; ++code) seen[t].push_back(errorMessage(code));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int t = 0; t < kThreads; ++t) {
    for (int code = 0; code < kMessageCount; ++code) {
      EXPECT_EQ(seen[t][code], errorMessage(code)) << "thread " << t << " code " << code;
    }
  }
}

// Each class of the family with the message code it carries.
template <class T, int Code>
struct Member {
  using Type = T;
  static constexpr int kCode = Code;
};

template <class M>
class ExceptionFamily : public ::testing::Test {};

using Members =
    ::testing::Types<Member<ExUnsupportedFileVersion, 0>, Member<ExCachableNotVerified, 1>,
                     Member<ExFactoryClassNotFound, 2>, Member<ExFileReadEntry, 3>,
                     Member<ExFileWriteEntry, 4>, Member<ExFileWriteExtent, 5>,
                     Member<ExFileWriteEntryHeader, 6>, Member<ExFileWriteExtentHeader, 7>>;
TYPED_TEST_SUITE(ExceptionFamily, Members);

constexpr Pt::ExWhere kHere{"shared/tarn/cache/TarnFileManager", 292};

TYPED_TEST(ExceptionFamily, CarriesItsMessageLocationAndFlag) {
  using X = typename TypeParam::Type;
  const X error(kHere);
  EXPECT_EQ(error.message(), kExpectedMessages[TypeParam::kCode]);
  EXPECT_STREQ(error.where().file, kHere.file);
  EXPECT_EQ(error.where().line, 292);
  EXPECT_EQ(error.flags(), 1);
  EXPECT_EQ(error.nested(), nullptr);
  // what() is the same text, narrowed.
  EXPECT_EQ(std::string(error.what()).size(), error.message().size());
}

TYPED_TEST(ExceptionFamily, IsCaughtAsEveryBase) {
  using X = typename TypeParam::Type;
  EXPECT_THROW(throw X(kHere), ExBase);
  EXPECT_THROW(throw X(kHere), Pt::Exception);
  EXPECT_THROW(throw X(kHere), std::exception);
}

TYPED_TEST(ExceptionFamily, CloneKeepsTheClass) {
  using X = typename TypeParam::Type;
  const X error(kHere, Pt::ExSystem(EIO, kHere));
  const Pt::Exception& asBase = error;
  const std::unique_ptr<Pt::Exception> copy(asBase.clone());
  ASSERT_NE(dynamic_cast<X*>(copy.get()), nullptr);
  EXPECT_EQ(copy->message(), error.message());
  ASSERT_NE(copy->nested(), nullptr);
  EXPECT_NE(copy->nested(), error.nested());  // an owned copy, not a shared one
}

// Reaches the protected cloneMe of ExFileWriteExtent.
class ExposedWriteExtent : public ExFileWriteExtent {
 public:
  using ExFileWriteExtent::cloneMe;
  using ExFileWriteExtent::ExFileWriteExtent;
};

void ExpectSameWriteExtent(const Pt::Exception& copy, const Pt::Exception& original) {
  EXPECT_NE(dynamic_cast<const ExFileWriteExtent*>(&copy), nullptr);
  EXPECT_EQ(copy.message(), original.message());
  EXPECT_STREQ(copy.where().file, original.where().file);
  EXPECT_EQ(copy.where().line, original.where().line);
  const auto* nested = dynamic_cast<const Pt::ExSystem*>(copy.nested());
  ASSERT_NE(nested, nullptr);
  EXPECT_EQ(nested->code(), ENOSPC);
  EXPECT_EQ(nested->where().line, 4);
}

TEST(ExceptionCopies, CopyAndCloneMeKeepClassMessageLocationAndNested) {
  const ExposedWriteExtent original(kWriteExtentFailed.where,
                                    Pt::ExSystem(ENOSPC, Pt::ExWhere{"device", 4}));
  const ExFileWriteExtent copy(original);
  ExpectSameWriteExtent(copy, original);

  const std::unique_ptr<Pt::Exception> cloned(original.cloneMe());
  ExpectSameWriteExtent(*cloned, original);
  EXPECT_EQ(cloned->where().line, 86);
}

TEST(RaiseSites, NoTwoSitesShareALocation) {
  std::set<std::pair<std::string, int>> seen;
  for (const RaiseSite& site : kAllRaiseSites) {
    EXPECT_TRUE(seen.emplace(site.where.file, site.where.line).second)
        << site.where.file << ":" << site.where.line;
    EXPECT_EQ(std::strncmp(site.where.file, "shared/tarn/cache/Tarn", 22), 0);
    EXPECT_TRUE(site.messageCode == kSystemError ||
                (site.messageCode >= 0 && site.messageCode < kMsgFileDeleteHeader));
  }
}

TEST(RaiseSites, FailedDeleteHeaderIsReportedAsAnEntryRead) {
  // No class carries the delete-header message; the delete receiver reuses
  // the entry-read class and text.
  EXPECT_EQ(kDeleteHeaderFailed.messageCode, kMsgFileReadEntry);
  const ExFileReadEntry posted(kDeleteHeaderFailed.where);
  EXPECT_EQ(posted.message(), L"Asynchronous File Entry Read I//O Operation Failed!");
  EXPECT_STREQ(posted.where().file, "shared/tarn/cache/TarnFileDeleteEntryReceiver");
  EXPECT_EQ(posted.where().line, 83);
}

}  // namespace
}  // namespace Tarn
