#include "pt/Exception.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

namespace {

constexpr Pt::ExWhere kHere{"ExceptionTest.cpp", 17};

TEST(PlatformException, KeepsItsOwnReasonAndRendersItAsUtf8) {
  std::wstring message = L"caf\u00e9 \u20ac \U0001F600";
  Pt::Exception exception(Pt::ExReason{message.c_str(), kHere, 3});
  message.assign(message.size(), L'x');  // the caller's buffer may change or go away
  EXPECT_EQ(exception.message(), L"caf\u00e9 \u20ac \U0001F600");
  EXPECT_STREQ(exception.what(), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");
  EXPECT_EQ(exception.flags(), 3);

  // A value that is not a character still renders, as U+FFFD.
  const wchar_t broken[] = {L'a', static_cast<wchar_t>(0xD800), 0};
  EXPECT_STREQ(Pt::Exception(Pt::ExReason{broken, kHere}).what(), "a\xEF\xBF\xBD");
}

// A nested exception is held as a clone, and copies clone the whole chain:
// each link outlives the original and keeps its dynamic class.
TEST(PlatformException, NestedChainIsClonedAndOutlivesTheOriginal) {
  auto original = std::make_unique<Pt::Exception>(
      Pt::ExReason{L"open failed", kHere},
      Pt::Exception(Pt::ExReason{L"read failed", kHere}, Pt::ExSystem(ENOSPC, kHere)));
  Pt::Exception copy(*original);
  Pt::Exception assigned(Pt::ExReason{L"old", kHere}, Pt::ExSystem(EIO, kHere));
  assigned = *original;
  original.reset();

  for (const Pt::Exception* e : {&copy, &assigned}) {
    EXPECT_EQ(e->message(), L"open failed");
    ASSERT_NE(e->nested(), nullptr);
    EXPECT_EQ(e->nested()->message(), L"read failed");
    const auto* system = dynamic_cast<const Pt::ExSystem*>(e->nested()->nested());
    ASSERT_NE(system, nullptr) << "the nested exception lost its class";
    EXPECT_EQ(system->code(), ENOSPC);
    EXPECT_STREQ(system->what(), std::strerror(ENOSPC));
  }
}

// Records what the post handler was given, and where the object lived.
struct Recorder {
  std::vector<std::wstring> messages;
  std::vector<const Pt::Exception*> addresses;
  int code = -1;  // of the last Pt::ExSystem

  static void Handle(const Pt::Exception& posted, void* context) {
    auto* self = static_cast<Recorder*>(context);
    self->messages.push_back(posted.message());
    self->addresses.push_back(&posted);
    const auto* system = dynamic_cast<const Pt::ExSystem*>(&posted);
    if (system != nullptr) self->code = system->code();
  }
};

TEST(PlatformExceptionPost, HandlerGetsACopyAndTheDefaultWritesOneLineToStderr) {
  Recorder recorder;
  Pt::Exception::PostHandler original = nullptr;
  Pt::Exception::PostHandler previous = nullptr;
  void* originalContext = nullptr;
  void* previousContext = nullptr;
  Pt::Exception::SetPostHandler(&Recorder::Handle, &recorder, &original, &originalContext);
  const Pt::ExSystem local(EROFS, kHere);
  Pt::Exception::Post(local);

  // Null installs the default handler; handing back the previous one restores it.
  Pt::Exception::SetPostHandler(nullptr, nullptr, &previous, &previousContext);
  testing::internal::CaptureStderr();
  Pt::Exception::Post(
      Pt::Exception(Pt::ExReason{L"disk \u00e9 full", Pt::ExWhere{"Store.cpp", 42}},
                    Pt::Exception(Pt::ExReason{L"write failed", Pt::ExWhere{"Entry.cpp", 9}},
                                  Pt::ExSystem(ENOSPC, Pt::ExWhere{"Device.cpp", 7}))));
  const std::string output = testing::internal::GetCapturedStderr();
  Pt::Exception::SetPostHandler(previous, previousContext);
  Pt::Exception::Post(Pt::Exception(Pt::ExReason{L"restored", kHere}));
  Pt::Exception::SetPostHandler(original, originalContext);

  EXPECT_EQ(recorder.code, EROFS);
  ASSERT_EQ(recorder.messages.size(), 2u);
  EXPECT_NE(recorder.addresses[0], &local) << "the handler must get a copy";
  EXPECT_EQ(recorder.messages[1], L"restored");
  // The line names the exception and each nested cause, outermost first.
  size_t from = 0;
  for (const std::string& part :
       {std::string("disk \xC3\xA9 full"), std::string("Store.cpp:42"), std::string("write failed"),
        std::string("Entry.cpp:9"), std::string(std::strerror(ENOSPC)),
        std::string("Device.cpp:7")}) {
    const size_t at = output.find(part, from);
    EXPECT_NE(at, std::string::npos) << "missing or out of order: " << part << "\n" << output;
    if (at != std::string::npos) from = at + part.size();
  }
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
  EXPECT_EQ(output.back(), '\n');
}

}  // namespace
