// The fixed English messages of the library's exceptions.
//
// Each exception class of the family carries one message, chosen by an error
// code. The texts are part of the library's observable behaviour and are kept
// character for character, including their doubled slashes and misspellings,
// which applications may already match on.
#pragma once

namespace Tarn {

enum MessageCode : int {
  kMsgUnsupportedFileVersion = 0,  // ExUnsupportedFileVersion
  kMsgCachableNotVerified = 1,     // ExCachableNotVerified
  kMsgFactoryClassNotFound = 2,    // ExFactoryClassNotFound
  kMsgFileReadEntry = 3,           // ExFileReadEntry
  kMsgFileWriteEntry = 4,          // ExFileWriteEntry
  kMsgFileWriteExtent = 5,         // ExFileWriteExtent
  kMsgFileWriteEntryHeader = 6,    // ExFileWriteEntryHeader
  kMsgFileWriteExtentHeader = 7,   // ExFileWriteExtentHeader
  kMsgFileDeleteHeader = 8,        // carried by no class
  kMsgInvalidTypeName = 9,         // ExInvalidTypeName
  kMessageCount = 10,
};

// The message of `code` (0 to 9). The same pointer comes back on every call
// and stays valid for the life of the library; the text never changes.
// Lock-free and safe from any thread. A code outside the table is a
// programming error: it yields a fixed "unknown error" text.
const wchar_t* errorMessage(int code) noexcept;

}  // namespace Tarn
