#include "tarn/Exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <latch>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "core/Messages.h"

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

// The threads make the first calls of the process, racing to build the texts.
TEST(Messages, ConcurrentFirstCallersGetTheSameNineTexts) {
  constexpr int kThreads = 8;
  std::latch start(kThreads);
  std::vector<std::vector<const wchar_t*>> seen(kThreads);
  std::vector<std::thread> threads;
  for (auto& mine : seen) {
    threads.emplace_back([&start, &mine] {
      start.arrive_and_wait();
      for (int code = 0; code < kMessageCount; ++code) mine.push_back(errorMessage(code));
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int code = 0; code < kMessageCount; ++code) {
    EXPECT_EQ(std::wstring(errorMessage(code)), kExpectedMessages[code]) << "code " << code;
    for (const auto& mine : seen) EXPECT_EQ(mine[code], errorMessage(code)) << "code " << code;
  }
  EXPECT_NE(errorMessage(kMessageCount), nullptr);
  EXPECT_NE(errorMessage(-1), nullptr);
}

constexpr Pt::ExWhere kHere{"shared/tarn/cache/TarnFileManager", 292};

// Checks the family class X, which carries message `code`.
template <class X>
void ExpectFamilyMember(int code) {
  SCOPED_TRACE(code);
  EXPECT_THROW(throw X(kHere), Pt::Exception);
  EXPECT_THROW(throw X(kHere), std::exception);
  try {
    throw X(kHere, Pt::ExSystem(EIO, kHere));
  } catch (const ExBase& caught) {
    EXPECT_EQ(caught.message(), kExpectedMessages[code]);
    EXPECT_STREQ(caught.where().file, kHere.file);
    EXPECT_EQ(caught.where().line, 292);
    // Copies and clones keep the class and own their nested exception.
    const X copy(dynamic_cast<const X&>(caught));
    const std::unique_ptr<const Pt::Exception> clone(caught.clone());
    for (const Pt::Exception* e : {static_cast<const Pt::Exception*>(&copy), clone.get()}) {
      EXPECT_NE(dynamic_cast<const X*>(e), nullptr);
      EXPECT_EQ(e->message(), caught.message());
      EXPECT_NE(dynamic_cast<const Pt::ExSystem*>(e->nested()), nullptr);
      EXPECT_NE(e->nested(), caught.nested());
    }
  }
}

template <class... X>
void ExpectFamily() {
  int code = 0;
  (ExpectFamilyMember<X>(code++), ...);
}

TEST(ExceptionFamily, EachIsCaughtAsEveryBaseWithItsMessageLocationAndClass) {
  ExpectFamily<ExUnsupportedFileVersion, ExCachableNotVerified, ExFactoryClassNotFound,
               ExFileReadEntry, ExFileWriteEntry, ExFileWriteExtent, ExFileWriteEntryHeader,
               ExFileWriteExtentHeader>();
}

}  // namespace
}  // namespace Tarn
