// Conversion of wide strings (UTF-32 on Linux) to UTF-8: the one place where
// the library turns the wide paths and messages of its API into the narrow
// text that Linux takes.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Pt {

// Strict: nullopt when `text` holds a value that is not a Unicode scalar value
// (a surrogate or anything above U+10FFFF).
std::optional<std::string> WideToUtf8(std::wstring_view text);

// Lenient: invalid values become U+FFFD. For messages, which must always render.
std::string WideToUtf8Lossy(std::wstring_view text);

}  // namespace Pt
