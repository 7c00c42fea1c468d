// Every exception raised at the API names what it concerned after its fixed
// text: the file and the step for file errors, the type, the key.
#include <fcntl.h>

#include <string>

#include <gtest/gtest.h>

#include "core/Subject.h"
#include "platform/IoFaultInjection.h"
#include "support/CacheFixture.h"
#include "support/PostedExceptions.h"
#include "tarn/tarn.h"

namespace TarnTest {
namespace {

template <class E, class F>
std::string WhatOf(F&& action) {
  try {
    action();
  } catch (const E& e) {
    return e.what();
  }
  return "(nothing thrown)";
}

bool StartsWith(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

class ErrorSubjectTest : public CacheFixture {};

TEST_F(ErrorSubjectTest, FileErrorsNameThePathAndTheStep) {
  Tarn::Config config;
  config.createIfMissing = false;
  const std::string missing = dir_.file("missing.tarn");
  const std::string what = WhatOf<Pt::ExSystem>([&] { Tarn::Cache c(missing, config, factory_); });
  EXPECT_EQ(what, "No such file or directory (open and lock cache file \"" + missing + "\")");

  open();
  const std::string held = dir_.file("cache.tarn");
  const std::string locked = WhatOf<Pt::ExSystem>([&] { Tarn::Cache c(held, config, factory_); });
  EXPECT_EQ(locked, "Resource temporarily unavailable (open and lock cache file \"" + held + "\")");

  const std::string noFolder = dir_.file("none/a.tarn");
  EXPECT_EQ(WhatOf<Pt::ExSystem>([&] { Tarn::Cache c(noFolder, Tarn::Config{}, factory_); }),
            "No such file or directory (create cache file \"" + noFolder + "\")");
  EXPECT_EQ(WhatOf<Pt::ExSystem>([&] { Tarn::DestroyCacheFile(dir_.wfile("gone").c_str()); }),
            "No such file or directory (remove cache file \"" + dir_.file("gone") + "\")");
  EXPECT_EQ(WhatOf<Pt::ExSystem>([&] {
              Tarn::CompactCacheFile(dir_.wfile("gone").c_str(), dir_.wfile("to").c_str());
            }),
            "No such file or directory (compact cache file \"" + dir_.file("gone") + "\" into \"" +
                dir_.file("to") + "\")");

  const std::string notUtf8 =
      WhatOf<Pt::ExSystem>([&] { Tarn::Cache c(std::string("bad\xff.tarn"), config, factory_); });
  EXPECT_TRUE(StartsWith(notUtf8, "Invalid or incomplete multibyte or wide character (decode"))
      << notUtf8;
}

TEST_F(ErrorSubjectTest, TypeNamesAreNamedAndBadOnesRefused) {
  open();
  const std::string unknown = WhatOf<Tarn::ExFactoryClassNotFound>(
      [&] { cache_->findCreate(Key("k"), Secondary("s"), "tilex", [](const Tarn::Outcome&) {}); });
  EXPECT_EQ(unknown, "Factory Class for the specified type Not Found! (type \"tilex\")");
  close();

  struct Case {
    std::string type;
    std::string what;
  };
  const std::string longName(45, 'n');
  for (const Case& c : {Case{"", "(type \"\" is 0 bytes)"},
                        Case{longName, "(type \"" + longName + "\" is 45 bytes)"}}) {
    NamedFactory factory(c.type);
    const std::string what = WhatOf<Tarn::ExInvalidTypeName>(
        [&] { Tarn::Cache cache(dir_.file("types.tarn"), Tarn::Config{}, factory); });
    EXPECT_EQ(what, "Type name is empty or longer than the 44 bytes a cache file holds! " + c.what);
  }
  EXPECT_NO_THROW(Tarn::Cache(
      dir_.file("types.tarn"), Tarn::Config{},
      Pt::SmartPointer<Tarn::CacheableFactory>(new NamedFactory(std::string(44, 'n')))));
}

// A failed read reaches the future with the key; a failed write is posted
// with it (binary keys in hex).
TEST_F(ErrorSubjectTest, ReadAndWriteFailuresNameTheKey) {
  using Pt::IoFaultInjection;
  open();
  insert("z3/x5/y7", 100);
  cache_->commit();
  cache_->purge(Key("z3/x5/y7"));  // from now on only the file holds it
  IoFaultInjection::Add({.action = IoFaultInjection::Action::Fail,
                         .kind = IoFaultInjection::Kind::Read,
                         .error = EIO});
  const std::string read =
      WhatOf<Tarn::ExFileReadEntry>([&] { cache_->findFuture(Key("z3/x5/y7")).get(); });
  EXPECT_EQ(read, "Asynchronous File Entry Read I//O Operation Failed! (key \"z3/x5/y7\")");

  PostedExceptions posted;
  IoFaultInjection::Add({.action = IoFaultInjection::Action::Fail,
                         .kind = IoFaultInjection::Kind::Write,
                         .error = ENOSPC});
  Tarn::PrimaryKey binary = Key("k");
  binary.data[0] = 0x01;
  cache_->insert(binary, Secondary("s"), Object(10));
  cache_->commit();
  ASSERT_TRUE(posted.waitFor(1));
  EXPECT_EQ(std::string(posted.at(0)->what()),
            "Asynchronous File Entry Write I//O Operation Failed! (key 0x01)");
}

TEST(SubjectTest, KeysArePrintableOrHex) {
  EXPECT_EQ(Tarn::KeySubject(Tarn::PrimaryKey::FromString("z3/x5/y7")), "key \"z3/x5/y7\"");
  Tarn::PrimaryKey binary = Tarn::PrimaryKey::FromString("ab");
  binary.data[1] = 0xff;
  EXPECT_EQ(Tarn::KeySubject(binary), "key 0x61ff");
  EXPECT_EQ(Tarn::Printable("say \"hi\""), "0x7361792022686922");
  EXPECT_EQ(Tarn::KeySubject(Tarn::PrimaryKey::FromString("")), "key \"\"");
}

}  // namespace
}  // namespace TarnTest
