// Every place where the library raises an exception, in one table.
//
// A raise site is data: the source path and line reported in the exception's
// Pt::ExWhere, and the message code of the family class raised there (or
// kSystemError where the site raises Pt::ExSystem, whose message is the
// system's text for errno). The paths and lines are fixed identifiers that
// applications and support staff recognise, so they are kept here as named
// constants rather than taken from __FILE__ and __LINE__.
#pragma once

#include "core/Messages.h"
#include "pt/Exception.h"

namespace Tarn {

struct RaiseSite {
  int messageCode;  // a MessageCode, or kSystemError
  Pt::ExWhere where;
};

inline constexpr int kSystemError = -1;
// The site raises a plain Pt::Exception with a message of its own (below).
inline constexpr int kOwnMessage = -2;

// Source paths reported in ExWhere.
inline constexpr const char* kSrcFactoryManager = "shared/tarn/cache/TarnFactoryManager";
inline constexpr const char* kSrcFileManager = "shared/tarn/cache/TarnFileManager";
inline constexpr const char* kSrcManager = "shared/tarn/cache/TarnManager";
inline constexpr const char* kSrcWriteEntryReceiver =
    "shared/tarn/cache/TarnFileWriteEntryReceiver";
inline constexpr const char* kSrcWriteEntryHeaderReceiver =
    "shared/tarn/cache/TarnFileWriteEntryHeaderReceiver";
inline constexpr const char* kSrcWriteExtentReceiver =
    "shared/tarn/cache/TarnFileWriteExtentReceiver";
inline constexpr const char* kSrcWriteExtentHeaderReceiver =
    "shared/tarn/cache/TarnFileWriteExtentHeaderReceiver";
inline constexpr const char* kSrcDeleteEntryReceiver =
    "shared/tarn/cache/TarnFileDeleteEntryReceiver";
inline constexpr const char* kSrcReadEntryReceiver = "shared/tarn/cache/TarnFileReadEntryReceiver";
inline constexpr const char* kSrcWorkManager = "shared/tarn/cache/TarnWorkManager";

// Factory registry: no factory serves the type looked up.
inline constexpr RaiseSite kFactoryLookup{kMsgFactoryClassNotFound, {kSrcFactoryManager, 43}};

// Creating and destroying cache files.
inline constexpr RaiseSite kCreateFileOpen{kSystemError, {kSrcFileManager, 129}};
inline constexpr RaiseSite kCreateFileWrite{kSystemError, {kSrcFileManager, 142}};
inline constexpr RaiseSite kDestroyFileRemove{kSystemError, {kSrcFileManager, 158}};

// Opening a cache file: reading and checking its records.
inline constexpr RaiseSite kOpenFile{kSystemError, {kSrcFileManager, 279}};
inline constexpr RaiseSite kOpenReadHeader{kSystemError, {kSrcFileManager, 287}};
inline constexpr RaiseSite kOpenVersion{kMsgUnsupportedFileVersion, {kSrcFileManager, 292}};
inline constexpr RaiseSite kOpenReadTypeTable{kSystemError, {kSrcFileManager, 307}};
inline constexpr RaiseSite kOpenReadExtentHeader{kSystemError, {kSrcFileManager, 332}};
inline constexpr RaiseSite kOpenEntryHeaderSize{kMsgUnsupportedFileVersion, {kSrcFileManager, 344}};
inline constexpr RaiseSite kOpenReadEntryHeaders{kSystemError, {kSrcFileManager, 358}};

// Opening a cache file: checks beyond the version that protect against a
// truncated, corrupted or hostile file. Each rejects the file as unsupported.
inline constexpr RaiseSite kOpenFileTooLarge{kMsgUnsupportedFileVersion, {kSrcFileManager, 283}};
// Shorter than its header: no writer leaves such a file, so it is damage.
inline constexpr RaiseSite kOpenFileTooShort{kMsgUnsupportedFileVersion, {kSrcFileManager, 288}};
inline constexpr RaiseSite kOpenTypeTableDamaged{kMsgUnsupportedFileVersion,
                                                 {kSrcFileManager, 311}};
inline constexpr RaiseSite kOpenExtentChainDamaged{kMsgUnsupportedFileVersion,
                                                   {kSrcFileManager, 336}};
inline constexpr RaiseSite kOpenRangesDamaged{kMsgUnsupportedFileVersion, {kSrcFileManager, 371}};
// Another open of the same file (this process or another) holds it.
inline constexpr RaiseSite kOpenFileLocked{kSystemError, {kSrcFileManager, 281}};

// Opening a cache file: matching the factories to the file's type table.
// A factory's type name is empty or does not fit a type record.
inline constexpr RaiseSite kOpenTypeNameTooLong{kMsgInvalidTypeName, {kSrcFileManager, 205}};
inline constexpr RaiseSite kOpenTypeCount{kMsgFactoryClassNotFound, {kSrcFileManager, 210}};
inline constexpr RaiseSite kOpenTypeTableForUpdate{kSystemError, {kSrcFileManager, 221}};
inline constexpr RaiseSite kOpenWriteTypeTable{kSystemError, {kSrcFileManager, 231}};
// Opening a damaged file: clearing the slots of the entries it dropped and a
// link that leads to no extent, and syncing that, failed.
inline constexpr RaiseSite kOpenSalvageWrite{kSystemError, {kSrcFileManager, 375}};
// Opening a file with bytes behind its last claimed range: cutting them
// off, and syncing that, failed.
inline constexpr RaiseSite kOpenTrimTrailing{kSystemError, {kSrcFileManager, 381}};
// Clearing a cache: unlinking its extents behind the first, cutting the file
// back and syncing that failed.
inline constexpr RaiseSite kClearShrink{kSystemError, {kSrcFileManager, 1260}};
// Compacting a cache file: reading the source (opening and locking it use
// the open's sites), locking the destination, writing and syncing the new
// file, and putting it in place (rename, folder sync).
inline constexpr RaiseSite kCompactRead{kSystemError, {kSrcFileManager, 1301}};
inline constexpr RaiseSite kCompactDestinationLocked{kSystemError, {kSrcFileManager, 1305}};
inline constexpr RaiseSite kCompactWrite{kSystemError, {kSrcFileManager, 1312}};
inline constexpr RaiseSite kCompactReplace{kSystemError, {kSrcFileManager, 1320}};
// Closing a cache: moving the entries at the end of the file into free space
// nearer its start (reading, writing, flushing) or cutting the file back
// behind them failed; the file keeps every entry.
inline constexpr RaiseSite kCloseRelocate{kSystemError, {kSrcFileManager, 1340}};

// Asynchronous file requests that failed, reported by their receivers.
inline constexpr RaiseSite kWriteEntryFailed{kMsgFileWriteEntry, {kSrcWriteEntryReceiver, 103}};
inline constexpr RaiseSite kWriteEntryHeaderFailed{kMsgFileWriteEntryHeader,
                                                   {kSrcWriteEntryHeaderReceiver, 72}};
inline constexpr RaiseSite kWriteExtentFailed{kMsgFileWriteExtent, {kSrcWriteExtentReceiver, 86}};
inline constexpr RaiseSite kWriteExtentHeaderFailed{kMsgFileWriteExtentHeader,
                                                    {kSrcWriteExtentHeaderReceiver, 62}};
// A failed delete header is reported with the entry-read class and message.
inline constexpr RaiseSite kDeleteHeaderFailed{kMsgFileReadEntry, {kSrcDeleteEntryReceiver, 83}};
inline constexpr RaiseSite kReadEntryFailed{kMsgFileReadEntry, {kSrcReadEntryReceiver, 103}};
// The read completed, but the entry it read had failed its write or been
// erased meanwhile: its range may hold anything.
inline constexpr RaiseSite kReadEntryGone{kMsgFileReadEntry, {kSrcReadEntryReceiver, 88}};
// The read completed but decode, or the insert after it, threw.
inline constexpr RaiseSite kReadEntryRebuild{kMsgFileReadEntry, {kSrcReadEntryReceiver, 82}};

// The group sync that was to make a completed write durable failed; the
// ExSystem is the cause carried by the failure of the write it covered.
inline constexpr RaiseSite kWriteEntrySync{kSystemError, {kSrcWriteEntryReceiver, 110}};
inline constexpr RaiseSite kWriteExtentSync{kSystemError, {kSrcWriteExtentReceiver, 92}};
inline constexpr RaiseSite kDeleteSync{kSystemError, {kSrcDeleteEntryReceiver, 90}};

// Space allocation: growing the file would take it to 2 GiB, beyond which
// its 32-bit offsets could not be handed to the device.
inline constexpr RaiseSite kGrowFileTooLarge{kSystemError, {kSrcFileManager, 1204}};

// Cache manager: an object's verify() was false on insert.
inline constexpr RaiseSite kInsertNotVerified{kMsgCachableNotVerified, {kSrcManager, 467}};
// Cache manager: all 65,536 slots hold requests in progress; nothing can be
// evicted to make room for another key.
inline constexpr RaiseSite kSlotTableFull{kOwnMessage, {kSrcManager, 212}};
inline constexpr const wchar_t* kSlotTableFullMessage =
    L"Cache slot table is full: 65536 keys are in memory or in progress, none can be evicted!";
// Cache manager: an object whose type no factory serves cannot be stored,
// since the file could not name its type.
inline constexpr RaiseSite kInsertUnknownType{kMsgFactoryClassNotFound, {kSrcManager, 441}};
// A generate request whose factory's create() returned no object.
inline constexpr RaiseSite kGenerateNoObject{kOwnMessage, {kSrcManager, 1190}};
inline constexpr const wchar_t* kGenerateNoObjectMessage =
    L"The factory's create() returned no object!";
// A receiver's callback threw something other than a Pt::Exception; it is
// posted with this location and the thrown text.
inline constexpr RaiseSite kReceiverThrew{kOwnMessage, {kSrcManager, 1350}};
// A work request's handleException() threw something that is not a
// Pt::Exception; it is posted with this location.
inline constexpr RaiseSite kWorkRequestThrew{kOwnMessage, {kSrcWorkManager, 120}};
// An entry read whose factory's decode() returned no object.
inline constexpr RaiseSite kDecodeNoObject{kOwnMessage, {kSrcReadEntryReceiver, 78}};
inline constexpr const wchar_t* kDecodeNoObjectMessage =
    L"The factory's decode() returned no object!";
// A factory's create() or decode(), or an object's verify(), size() or
// encode(), threw something that is not a Pt::Exception; the waiting
// receivers get it wrapped, with the thrown text after this message.
inline constexpr RaiseSite kClientThrew{kOwnMessage, {kSrcManager, 1362}};
inline constexpr const wchar_t* kClientThrewMessage =
    L"An object or its factory threw an exception that is not a Pt::Exception: ";
// An entry whose recorded data length exceeds its allocation (or the largest
// read the device takes) is damaged; its find fails without reading.
inline constexpr RaiseSite kReadEntryDamaged{kMsgFileReadEntry, {kSrcReadEntryReceiver, 64}};

// Cache manager: a shared tier lookup found the tier unreachable. Posted
// once per outage; requests go on as on a miss.
inline constexpr RaiseSite kTierUnavailable{kOwnMessage, {kSrcManager, 1410}};
inline constexpr const wchar_t* kTierUnavailableMessage = L"Shared Tier Unavailable!";

// A std::filesystem::path given to the API that is not valid UTF-8.
inline constexpr RaiseSite kApiPathEncoding{kSystemError, {kSrcManager, 80}};

// All of the above, for checks over the whole table.
inline constexpr RaiseSite kAllRaiseSites[] = {
    kFactoryLookup,
    kCreateFileOpen,
    kCreateFileWrite,
    kDestroyFileRemove,
    kOpenFile,
    kOpenReadHeader,
    kOpenVersion,
    kOpenReadTypeTable,
    kOpenReadExtentHeader,
    kOpenEntryHeaderSize,
    kOpenReadEntryHeaders,
    kOpenFileTooLarge,
    kOpenTypeTableDamaged,
    kOpenExtentChainDamaged,
    kOpenFileTooShort,
    kOpenSalvageWrite,
    kOpenTrimTrailing,
    kClearShrink,
    kCompactRead,
    kCompactDestinationLocked,
    kCompactWrite,
    kCompactReplace,
    kCloseRelocate,
    kOpenRangesDamaged,
    kOpenFileLocked,
    kOpenTypeNameTooLong,
    kGrowFileTooLarge,
    kOpenTypeCount,
    kOpenTypeTableForUpdate,
    kOpenWriteTypeTable,
    kWriteEntryFailed,
    kWriteEntryHeaderFailed,
    kWriteExtentFailed,
    kWriteExtentHeaderFailed,
    kWriteEntrySync,
    kWriteExtentSync,
    kDeleteSync,
    kDeleteHeaderFailed,
    kReadEntryFailed,
    kReadEntryGone,
    kReadEntryRebuild,
    kInsertNotVerified,
    kSlotTableFull,
    kInsertUnknownType,
    kGenerateNoObject,
    kDecodeNoObject,
    kReceiverThrew,
    kWorkRequestThrew,
    kClientThrew,
    kReadEntryDamaged,
    kApiPathEncoding,
    kTierUnavailable,
};

}  // namespace Tarn
