// A cache on a file in a temporary folder, with one test factory ("tile").
#pragma once

#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "support/RecordingReceiver.h"
#include "support/TempDir.h"
#include "support/TestFactory.h"
#include "tarn/tarn.h"

namespace TarnTest {

class CacheFixture : public testing::Test {
 protected:
  void TearDown() override;

  static Tarn::Config DefaultConfig();
  // (Re)opens the cache on the fixture's file with `config`.
  Tarn::Cache& open(const Tarn::Config& config = DefaultConfig());
  void close() { cache_.reset(); }

  static Tarn::PrimaryKey Key(const std::string& text) {
    return Tarn::PrimaryKey::FromString(text);
  }
  static Tarn::SecondaryKey Secondary(const std::string& text) {
    return Tarn::SecondaryKey::FromString(text);
  }
  // A plain "tile" object of `size` bytes of `fill`.
  static Pt::SmartPointer<Tarn::Cacheable> Object(size_t size, uint8_t fill = 0x5A);
  void insert(const std::string& key, size_t size, const std::string& secondary = "s");
  Tarn::Statistics stats();

  TempDir dir_;
  std::wstring path_ = dir_.wfile("cache.tarn");
  Pt::SmartPointer<NamedFactory> factory_{new NamedFactory("tile")};
  std::unique_ptr<Tarn::Cache> cache_;
};

}  // namespace TarnTest
