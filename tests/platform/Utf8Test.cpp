#include "platform/Utf8.h"

#include <gtest/gtest.h>

#include <string>

namespace {

TEST(PlatformUtf8, EncodesEveryLengthBoundary) {
  const struct {
    char32_t value;
    std::string utf8;
  } kBoundaries[] = {
      {0x0000, std::string("\0", 1)}, {0x007F, "\x7F"},
      {0x0080, "\xC2\x80"},           {0x07FF, "\xDF\xBF"},
      {0x0800, "\xE0\xA0\x80"},       {0xD7FF, "\xED\x9F\xBF"},  // just below the surrogates
      {0xE000, "\xEE\x80\x80"},                                  // just above them
      {0xFFFF, "\xEF\xBF\xBF"},       {0x10000, "\xF0\x90\x80\x80"},
      {0x10FFFF, "\xF4\x8F\xBF\xBF"},
  };
  for (const auto& e : kBoundaries) {
    SCOPED_TRACE(static_cast<unsigned>(e.value));
    const std::wstring text = L"a" + std::wstring(1, static_cast<wchar_t>(e.value));
    EXPECT_EQ(Pt::WideToUtf8(text), "a" + e.utf8);
    EXPECT_EQ(Pt::WideToUtf8Lossy(text), "a" + e.utf8);
  }
}

// Surrogates and values beyond U+10FFFF are not characters: the strict form
// refuses the text, the lossy one replaces each with U+FFFD.
TEST(PlatformUtf8, StrictRejectsAndLossyReplacesValuesThatAreNotCharacters) {
  for (const long bad : {0xD800L, 0xDBFFL, 0xDC00L, 0xDFFFL, 0x110000L, 0x7FFFFFFFL, -1L}) {
    SCOPED_TRACE(bad);
    const wchar_t value = static_cast<wchar_t>(bad);
    const std::wstring text = {L'a', value, L'b', value};
    EXPECT_EQ(Pt::WideToUtf8(text), std::nullopt);
    EXPECT_EQ(Pt::WideToUtf8Lossy(text),
              "a\xEF\xBF\xBD"
              "b\xEF\xBF\xBD");
  }
}

}  // namespace
