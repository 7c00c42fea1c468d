#include "tarn/Buffer.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

namespace Tarn {
namespace {

TEST(Buffer, CopiesItsBytesRightBehindItselfInOneBlock) {
  std::string text = "hello, cache";
  const auto buffer = Buffer::Create(static_cast<int32_t>(text.size()), text.data());
  text.assign("changed text");
  EXPECT_EQ(buffer->bytes(), reinterpret_cast<const uint8_t*>(buffer.get()) + sizeof(Buffer));
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(buffer->bytes()), buffer->length()),
            "hello, cache");
}

TEST(Buffer, EmptyNeedsNoBytesButOthersDo) {
  EXPECT_EQ(Buffer::Create(0, nullptr)->length(), 0);
  EXPECT_THROW(Buffer::Create(-1, "x"), std::invalid_argument);
  EXPECT_THROW(Buffer::Create(1, nullptr), std::invalid_argument);
}

}  // namespace
}  // namespace Tarn
