#include "pt/Exception.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "support/PostedExceptions.h"

namespace {

constexpr Pt::ExWhere kHere{"ExceptionTest.cpp", 17};

std::wstring Widen(const char* text) {
  std::wstring wide;
  for (const char* p = text; *p != '\0'; ++p) wide.push_back(static_cast<unsigned char>(*p));
  return wide;
}

// ---------------------------------------------------------------------------
// Construction, copies and clones

TEST(PlatformException, KeepsItsOwnCopyOfTheReason) {
  std::wstring message = L"cache file is locked";
  Pt::Exception exception(Pt::ExReason{message.c_str(), kHere, 3});
  message.assign(message.size(), L'x');  // the caller's buffer may change or go away

  EXPECT_EQ(exception.message(), L"cache file is locked");
  EXPECT_STREQ(exception.what(), "cache file is locked");
  EXPECT_STREQ(exception.where().file, "ExceptionTest.cpp");
  EXPECT_EQ(exception.where().line, 17);
  EXPECT_EQ(exception.flags(), 3);
  EXPECT_EQ(exception.nested(), nullptr);
}

TEST(PlatformException, WhatIsTheMessageInUtf8) {
  Pt::Exception exception(Pt::ExReason{L"caf\u00e9 \u20ac \U0001F600", kHere});
  EXPECT_STREQ(exception.what(), "caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x98\x80");

  // A message always renders: a value that is not a character becomes U+FFFD.
  const wchar_t broken[] = {L'a', static_cast<wchar_t>(0xD800), L'b', 0};
  Pt::Exception lossy(Pt::ExReason{broken, kHere});
  EXPECT_STREQ(lossy.what(),
               "a\xEF\xBF\xBD"
               "b");
}

TEST(PlatformException, NestedIsAnOwnedCloneThatOutlivesTheOriginal) {
  auto cause = std::make_unique<Pt::ExSystem>(ENOSPC, Pt::ExWhere{"cause.cpp", 5});
  Pt::Exception outer(Pt::ExReason{L"write failed", kHere}, *cause);
  const Pt::Exception* cloned = cause.get();
  cause.reset();

  ASSERT_NE(outer.nested(), nullptr);
  EXPECT_NE(outer.nested(), cloned);
  const auto* nested = dynamic_cast<const Pt::ExSystem*>(outer.nested());
  ASSERT_NE(nested, nullptr) << "the nested exception lost its class";
  EXPECT_EQ(nested->code(), ENOSPC);
  EXPECT_STREQ(nested->what(), std::strerror(ENOSPC));
  EXPECT_STREQ(nested->where().file, "cause.cpp");
}

TEST(PlatformException, CopiesAndAssignmentsOwnTheirNestedChain) {
  Pt::ExSystem root(EIO, kHere);
  Pt::Exception middle(Pt::ExReason{L"read failed", kHere}, root);
  auto original = std::make_unique<Pt::Exception>(Pt::ExReason{L"open failed", kHere}, middle);

  Pt::Exception copy(*original);
  Pt::Exception assigned(Pt::ExReason{L"to be replaced", kHere},
                         Pt::Exception(Pt::ExReason{L"old cause", kHere}));
  assigned = *original;
  original.reset();

  for (const Pt::Exception* e : {&copy, &assigned}) {
    EXPECT_EQ(e->message(), L"open failed");
    ASSERT_NE(e->nested(), nullptr);
    EXPECT_EQ(e->nested()->message(), L"read failed");
    ASSERT_NE(e->nested()->nested(), nullptr);
    const auto* system = dynamic_cast<const Pt::ExSystem*>(e->nested()->nested());
    ASSERT_NE(system, nullptr);
    EXPECT_EQ(system->code(), EIO);
  }

  Pt::Exception& same = assigned;
  assigned = same;
  EXPECT_EQ(assigned.message(), L"open failed");
  ASSERT_NE(assigned.nested(), nullptr);
  EXPECT_EQ(assigned.nested()->message(), L"read failed");
}

TEST(PlatformException, CloneKeepsTheDynamicClass) {
  Pt::ExSystem system(ENOENT, kHere);
  const Pt::Exception& base = system;
  std::unique_ptr<Pt::Exception> clone(base.clone());

  const auto* cloned = dynamic_cast<const Pt::ExSystem*>(clone.get());
  ASSERT_NE(cloned, nullptr);
  EXPECT_NE(cloned, &system);
  EXPECT_EQ(cloned->code(), ENOENT);
  EXPECT_EQ(cloned->message(), system.message());
  EXPECT_STREQ(cloned->what(), system.what());
  EXPECT_EQ(cloned->where().line, kHere.line);

  Pt::Exception plain(Pt::ExReason{L"plain", kHere});
  std::unique_ptr<Pt::Exception> plainClone(plain.clone());
  EXPECT_EQ(dynamic_cast<const Pt::ExSystem*>(plainClone.get()), nullptr);
  EXPECT_EQ(plainClone->message(), L"plain");
}

// ---------------------------------------------------------------------------
// System errors

TEST(PlatformException, SystemErrorCarriesTheCodeAndTheSystemText) {
  errno = 0;
  EXPECT_EQ(::open("/nonexistent-tarn-test/file", O_RDONLY), -1);
  const int code = Pt::ErrorCode();
  EXPECT_EQ(code, ENOENT);

  Pt::ExSystem error(code, kHere);
  EXPECT_EQ(error.code(), ENOENT);
  EXPECT_EQ(error.message(), Widen(std::strerror(ENOENT)));
  EXPECT_STREQ(error.what(), std::strerror(ENOENT));

  errno = EBADF;
  EXPECT_EQ(Pt::ErrorCode(), EBADF);
}

// ---------------------------------------------------------------------------
// Posting

// A handler that records what it was given, and where the object lived.
struct Recorder {
  std::vector<std::wstring> messages;
  std::vector<const Pt::Exception*> addresses;
  std::vector<int> codes;  // -1 when not an ExSystem

  static void Handle(const Pt::Exception& posted, void* context) {
    auto* self = static_cast<Recorder*>(context);
    self->messages.push_back(posted.message());
    self->addresses.push_back(&posted);
    const auto* system = dynamic_cast<const Pt::ExSystem*>(&posted);
    self->codes.push_back(system ? system->code() : -1);
  }
};

// Installs a handler for one test and puts the previous one back afterwards.
class PlatformExceptionPost : public testing::Test {
 protected:
  void SetUp() override {
    Pt::Exception::SetPostHandler(&Recorder::Handle, &recorder_, &previous_, &previousContext_);
  }
  void TearDown() override { Pt::Exception::SetPostHandler(previous_, previousContext_); }

  Recorder recorder_;
  Pt::Exception::PostHandler previous_ = nullptr;
  void* previousContext_ = nullptr;
};

TEST_F(PlatformExceptionPost, HandlerGetsACopyOfTheSameClass) {
  Pt::ExSystem local(EROFS, kHere);
  Pt::Exception::Post(local);

  ASSERT_EQ(recorder_.messages.size(), 1u);
  EXPECT_NE(recorder_.addresses[0], &local) << "the handler must get a copy";
  EXPECT_EQ(recorder_.codes[0], EROFS);
  EXPECT_EQ(recorder_.messages[0], local.message());
}

TEST_F(PlatformExceptionPost, RestoringTheHandlerRestoresThePreviousOne) {
  Recorder second;
  Pt::Exception::PostHandler previous = nullptr;
  void* previousContext = nullptr;
  Pt::Exception::SetPostHandler(&Recorder::Handle, &second, &previous, &previousContext);
  EXPECT_EQ(previous, &Recorder::Handle);
  EXPECT_EQ(previousContext, &recorder_);

  Pt::Exception::Post(Pt::Exception(Pt::ExReason{L"to second", kHere}));
  Pt::Exception::SetPostHandler(previous, previousContext);
  Pt::Exception::Post(Pt::Exception(Pt::ExReason{L"to first", kHere}));

  EXPECT_EQ(second.messages, std::vector<std::wstring>{L"to second"});
  EXPECT_EQ(recorder_.messages, std::vector<std::wstring>{L"to first"});
}

TEST_F(PlatformExceptionPost, PostsFromManyThreadsAllArrive) {
  TarnTest::PostedExceptions posted;  // takes over from the fixture's recorder
  constexpr int kThreads = 4;
  constexpr int kEach = 50;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([] {
      for (int i = 0; i < kEach; ++i) Pt::Exception::Post(Pt::ExSystem(EAGAIN, kHere));
    });
  }
  for (auto& thread : threads) thread.join();

  ASSERT_TRUE(posted.waitFor(kThreads * kEach));
  EXPECT_EQ(posted.count(), static_cast<size_t>(kThreads * kEach));
  EXPECT_TRUE(recorder_.messages.empty());
  auto last = posted.at(kThreads * kEach - 1);
  ASSERT_NE(dynamic_cast<Pt::ExSystem*>(last.get()), nullptr);
}

TEST_F(PlatformExceptionPost, CollectorKeepsPostsAfterTheCallerDropsThem) {
  {
    TarnTest::PostedExceptions posted;
    {
      Pt::ExSystem cause(ENOSPC, kHere);
      Pt::Exception local(Pt::ExReason{L"flush failed", kHere}, cause);
      Pt::Exception::Post(local);
    }
    ASSERT_TRUE(posted.waitFor(1));
    auto kept = posted.at(0);
    ASSERT_NE(kept, nullptr);
    EXPECT_EQ(kept->message(), L"flush failed");
    ASSERT_NE(kept->nested(), nullptr);
    EXPECT_NE(dynamic_cast<const Pt::ExSystem*>(kept->nested()), nullptr);
  }
  // The collector is gone: posts reach the fixture's handler again.
  Pt::Exception::Post(Pt::Exception(Pt::ExReason{L"after", kHere}));
  EXPECT_EQ(recorder_.messages, std::vector<std::wstring>{L"after"});
}

TEST_F(PlatformExceptionPost, DefaultHandlerWritesOneLineToStderr) {
  Pt::Exception::SetPostHandler(nullptr, nullptr);  // the default

  testing::internal::CaptureStderr();
  Pt::Exception::Post(
      Pt::Exception(Pt::ExReason{L"disk \u00e9 full", Pt::ExWhere{"Store.cpp", 42}}));
  const std::string output = testing::internal::GetCapturedStderr();

  EXPECT_NE(output.find("disk \xC3\xA9 full"), std::string::npos) << output;
  EXPECT_NE(output.find("Store.cpp:42"), std::string::npos) << output;
  EXPECT_EQ(std::count(output.begin(), output.end(), '\n'), 1) << output;
  EXPECT_EQ(output.back(), '\n');
  EXPECT_TRUE(recorder_.messages.empty());

  // Asking for the previous handler while the default is installed gives null,
  // which installs the default again when handed back.
  Pt::Exception::PostHandler previous = &Recorder::Handle;
  void* previousContext = &recorder_;
  Pt::Exception::SetPostHandler(&Recorder::Handle, &recorder_, &previous, &previousContext);
  EXPECT_EQ(previous, nullptr);
  EXPECT_EQ(previousContext, nullptr);
}

}  // namespace
