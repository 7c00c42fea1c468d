#include "core/Messages.h"

namespace Tarn {
namespace {

// String literals live as long as the library, so they serve as the process'
// message cache directly: there is nothing to fill on first use, and hence no
// first-use race between threads.
constexpr const wchar_t* kMessages[kMessageCount] = {
    L"Existing Cache file is unsupported or corrupt!",
    L"Cachable failied to Verify -- not inserted into cache!",
    L"Factory Class for the specified type Not Found!",
    L"Asynchronous File Entry Read I//O Operation Failed!",
    L"Asynchronous File Entry Write I//O Operation Failed!",
    L"Asynchronous File Extent Write I//O Operation Failed!",
    L"Asynchronous File Entry Header Write I//O Operation Failed!",
    L"Asynchronous File Extent Header Write I//O Operation Failed!",
    L"Asynchronous File Delete Header Write I//O Operation Failed!",
    L"Type name is empty or longer than the 44 bytes a cache file holds!",
};

constexpr const wchar_t* kUnknownMessage = L"Unknown error code!";

}  // namespace

const wchar_t* errorMessage(int code) noexcept {
  if (code < 0 || code >= kMessageCount) return kUnknownMessage;
  return kMessages[code];
}

}  // namespace Tarn
