#include "tarn/Buffer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace Tarn {
namespace {

TEST(Buffer, HoldsItsBytesRightBehindItselfInOneBlock) {
  const std::string text = "hello, cache";
  const auto buffer = Buffer::Create(static_cast<int32_t>(text.size()), text.data());
  EXPECT_EQ(buffer->refCount(), 1);
  EXPECT_EQ(buffer->bytes(), reinterpret_cast<const uint8_t*>(buffer.get()) + sizeof(Buffer));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->bytes()), buffer->length()), text);
}

TEST(Buffer, CopiesTheBytesItIsGiven) {
  std::string text = "original";
  const auto buffer = Buffer::Create(static_cast<int32_t>(text.size()), text.data());
  text.assign("changed!");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->bytes()), buffer->length()),
            "original");
}

TEST(Buffer, EmptyNeedsNoBytesButOthersDo) {
  EXPECT_EQ(Buffer::Create(0, nullptr)->length(), 0);
  const char byte = 'x';
  EXPECT_THROW(Buffer::Create(-1, &byte), std::invalid_argument);
  EXPECT_THROW(Buffer::Create(1, nullptr), std::invalid_argument);
}

}  // namespace
}  // namespace Tarn
