#include "platform/Utf8.h"

namespace Pt {
namespace {

constexpr char32_t kReplacementCharacter = 0xFFFD;

bool IsScalarValue(char32_t c) {
  return c <= 0x10FFFF && (c < 0xD800 || c > 0xDFFF);
}

void AppendUtf8(std::string& out, char32_t c) {
  if (c < 0x80) {
    out.push_back(static_cast<char>(c));
  } else if (c < 0x800) {
    out.push_back(static_cast<char>(0xC0 | (c >> 6)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else if (c < 0x10000) {
    out.push_back(static_cast<char>(0xE0 | (c >> 12)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  } else {
    out.push_back(static_cast<char>(0xF0 | (c >> 18)));
    out.push_back(static_cast<char>(0x80 | ((c >> 12) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | ((c >> 6) & 0x3F)));
    out.push_back(static_cast<char>(0x80 | (c & 0x3F)));
  }
}

}  // namespace

std::optional<std::string> WideToUtf8(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t w : text) {
    const auto c = static_cast<char32_t>(w);
    if (!IsScalarValue(c)) return std::nullopt;
    AppendUtf8(out, c);
  }
  return out;
}

std::string WideToUtf8Lossy(std::wstring_view text) {
  std::string out;
  out.reserve(text.size());
  for (wchar_t w : text) {
    const auto c = static_cast<char32_t>(w);
    AppendUtf8(out, IsScalarValue(c) ? c : kReplacementCharacter);
  }
  return out;
}

}  // namespace Pt
