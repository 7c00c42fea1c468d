#include "tarn/Cacheable.h"

#include <gtest/gtest.h>

namespace Tarn {
namespace {

class Plain : public Cacheable {
 public:
  explicit Plain(const Pt::SmartPointer<Buffer>& data) : Cacheable("plain", data) {}
  Plain() : Cacheable("plain") {}
};

TEST(CacheableDefaults, VerifyNeedsNonEmptyData) {
  EXPECT_FALSE(Pt::SmartPointer<Plain>(new Plain())->verify());
  EXPECT_FALSE(Pt::SmartPointer<Plain>(new Plain(Buffer::Create(0, nullptr)))->verify());
  EXPECT_TRUE(Pt::SmartPointer<Plain>(new Plain(Buffer::Create(1, "x")))->verify());
}

TEST(CacheableDefaults, SizeIsTheDataLength) {
  EXPECT_EQ(Pt::SmartPointer<Plain>(new Plain(Buffer::Create(5, "12345")))->size(), 5);
  EXPECT_EQ(Pt::SmartPointer<Plain>(new Plain())->size(), 0);
}

TEST(CacheableDefaults, EncodeReturnsTheDataWhateverTheArgument) {
  const auto data = Buffer::Create(3, "abc");
  const Pt::SmartPointer<Cacheable> object = Cacheable::Create("blob", data);
  EXPECT_EQ(object->getType(), "blob");
  EXPECT_TRUE(object->getData() == data);
  EXPECT_TRUE(object->encode(false) == data);
  EXPECT_TRUE(object->encode(true) == data);
}

TEST(CacheableDefaults, SetDataReplacesAndReleasesThePreviousBuffer) {
  const auto first = Buffer::Create(1, "a");
  const auto second = Buffer::Create(1, "b");
  const Pt::SmartPointer<Cacheable> object = Cacheable::Create("blob", first);
  EXPECT_EQ(first->refCount(), 2);

  object->setData(first);  // the same pointer again changes nothing
  EXPECT_EQ(first->refCount(), 2);
  EXPECT_TRUE(object->getData() == first);

  object->setData(second);
  EXPECT_EQ(first->refCount(), 1);
  EXPECT_EQ(second->refCount(), 2);
  object->setData(nullptr);
  EXPECT_EQ(second->refCount(), 1);
  EXPECT_FALSE(object->verify());
}

}  // namespace
}  // namespace Tarn
