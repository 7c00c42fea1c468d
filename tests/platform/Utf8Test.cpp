#include "platform/Utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

struct Encoding {
  char32_t value;
  std::string utf8;
};

// The first and last value of every encoded length.
const Encoding kBoundaries[] = {
    {0x0000, std::string("\0", 1)}, {0x007F, "\x7F"},
    {0x0080, "\xC2\x80"},           {0x07FF, "\xDF\xBF"},
    {0x0800, "\xE0\xA0\x80"},       {0xD7FF, "\xED\x9F\xBF"},  // just below the surrogates
    {0xE000, "\xEE\x80\x80"},                                  // just above them
    {0xFFFF, "\xEF\xBF\xBF"},       {0x10000, "\xF0\x90\x80\x80"},
    {0x10FFFF, "\xF4\x8F\xBF\xBF"},
};

// Values that are not Unicode scalar values.
const wchar_t kInvalid[] = {
    static_cast<wchar_t>(0xD800), static_cast<wchar_t>(0xDBFF),   static_cast<wchar_t>(0xDC00),
    static_cast<wchar_t>(0xDFFF), static_cast<wchar_t>(0x110000), static_cast<wchar_t>(0x7FFFFFFF),
    static_cast<wchar_t>(-1),
};

TEST(PlatformUtf8, EncodesEveryLengthBoundary) {
  for (const Encoding& e : kBoundaries) {
    SCOPED_TRACE(static_cast<unsigned>(e.value));
    const std::wstring text(1, static_cast<wchar_t>(e.value));
    EXPECT_EQ(Pt::WideToUtf8(text), e.utf8);
    EXPECT_EQ(Pt::WideToUtf8Lossy(text), e.utf8);
  }
}

TEST(PlatformUtf8, EncodesMixedText) {
  const std::wstring path = L"/var/cache/\u00fcber/\u65e5\u672c/\U0001F4BE.tarn";
  const std::string expected =
      "/var/cache/\xC3\xBC"
      "ber/\xE6\x97\xA5\xE6\x9C\xAC/\xF0\x9F\x92\xBE.tarn";
  EXPECT_EQ(Pt::WideToUtf8(path), expected);
  EXPECT_EQ(Pt::WideToUtf8(L""), std::string());
}

TEST(PlatformUtf8, StrictRejectsValuesThatAreNotCharacters) {
  for (wchar_t bad : kInvalid) {
    SCOPED_TRACE(static_cast<unsigned>(bad));
    std::wstring text = L"ab";
    text.insert(text.begin() + 1, bad);
    EXPECT_EQ(Pt::WideToUtf8(text), std::nullopt);
  }
}

TEST(PlatformUtf8, LossyReplacesEachInvalidValue) {
  for (wchar_t bad : kInvalid) {
    SCOPED_TRACE(static_cast<unsigned>(bad));
    std::wstring text = L"ab";
    text.insert(text.begin() + 1, bad);
    text.push_back(bad);
    EXPECT_EQ(Pt::WideToUtf8Lossy(text),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
  }
}

}  // namespace
