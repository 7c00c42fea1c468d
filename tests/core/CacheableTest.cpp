#include "tarn/Cacheable.h"

#include <gtest/gtest.h>

namespace Tarn {
namespace {

TEST(CacheableDefaults, VerifyNeedsNonEmptyDataAndEncodeReturnsTheData) {
  EXPECT_FALSE(Cacheable::Create("plain", nullptr)->verify());
  EXPECT_FALSE(Cacheable::Create("plain", Buffer::Create(0, nullptr))->verify());
  const Pt::SmartPointer<Cacheable> object = Cacheable::Create("plain", Buffer::Create(3, "abc"));
  EXPECT_TRUE(object->verify());
  EXPECT_EQ(object->size(), 3);
  EXPECT_TRUE(object->encode(false) == object->getData());
  EXPECT_TRUE(object->encode(true) == object->getData());
}

}  // namespace
}  // namespace Tarn
