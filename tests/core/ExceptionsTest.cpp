#include "tarn/Exceptions.h"

#include <gtest/gtest.h>

#include <cerrno>
#include <memory>
#include <string>

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
    L"Type name is empty or longer than the 44 bytes a cache file holds!",
};

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
  // The last message is carried by no class; a code outside the table gets a text too.
  EXPECT_EQ(std::wstring(errorMessage(kMsgFileDeleteHeader)), kExpectedMessages[8]);
  ExpectFamilyMember<ExInvalidTypeName>(kMsgInvalidTypeName);
  EXPECT_NE(errorMessage(kMessageCount), nullptr);
  EXPECT_NE(errorMessage(-1), nullptr);
}

// The subject follows the fixed text in what(), survives every copy (a
// posted or nested exception is a clone), and leaves message() alone.
TEST(ExceptionFamily, ContextFollowsTheFixedTextThroughCopies) {
  ExFileReadEntry error(kHere, Pt::ExSystem(EIO, kHere));
  error.addContext("key \"a\"");
  error.addContext("");
  error.addContext("second");
  const std::string expected =
      "Asynchronous File Entry Read I//O Operation Failed! (key \"a\"; second)";
  EXPECT_EQ(std::string(error.what()), expected);
  EXPECT_EQ(error.message(), kExpectedMessages[kMsgFileReadEntry]);
  const std::unique_ptr<Pt::Exception> copy(error.clone());
  EXPECT_EQ(std::string(copy->what()), expected);
  EXPECT_EQ(copy->context(), "key \"a\"; second");
  ExFileReadEntry assigned(kHere);
  assigned = error;
  EXPECT_EQ(std::string(assigned.what()), expected);
}

}  // namespace
}  // namespace Tarn
