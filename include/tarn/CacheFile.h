// Making, removing and compacting cache files without a Cache.
//
// Paths are wide strings (UTF-32 on Linux) and are converted to UTF-8 before
// they reach the file system. The functions run on the calling thread with
// blocking calls and report every failure as Pt::ExSystem carrying the errno
// value; a null path or one that is not valid Unicode fails with EINVAL.
//
// CreateCacheFile and DestroyCacheFile do not check whether a Cache has the
// file open; the outcome is then whatever the file system makes of it.
// CompactCacheFile does, and refuses.
#pragma once

#include "tarn/Export.h"

namespace Tarn {

// Writes an empty cache file at `path`, replacing any file of that name.
// When the file cannot be created nothing is created or changed; when its
// content cannot be written whole or made durable, the partial file is
// removed. On return the file and its entry in the folder are on disk
// (both synced), so a power loss cannot take the new file back.
TARN_EXPORT void CreateCacheFile(const wchar_t* path);

// Removes the file at `path`. Throws Pt::ExSystem when it cannot be removed,
// for example because it does not exist; a folder is never removed (EISDIR).
TARN_EXPORT void DestroyCacheFile(const wchar_t* path);

// Writes the live entries of the cache file `source` (same primary and
// secondary keys, types and bytes) into a new cache file with no free space
// between them, and puts it at `destination`, replacing any file there;
// `destination` may be `source`. The source is read as an open reads it:
// entries an open would drop as damaged are not copied, and a file an open
// rejects is refused with Tarn::ExUnsupportedFileVersion. Both files are
// locked as a Cache locks its file while this runs, so a file that a Cache
// holds open is refused (Pt::ExSystem, EWOULDBLOCK), and no Cache can open
// either meanwhile. The new file is written under a temporary name in the
// destination's folder (the destination's name followed by ".compacting"),
// synced, renamed over the destination, and then the folder is synced: a
// crash or a failure at any step before the rename leaves the destination
// as it was and removes the temporary file; the rename replaces it whole. A
// failure of the final folder sync is reported although the destination
// already holds the new file (the same entries); only whether its new name
// survives a power loss is then unknown. Throws Pt::ExSystem,
// ExUnsupportedFileVersion or std::bad_alloc.
TARN_EXPORT void CompactCacheFile(const wchar_t* source, const wchar_t* destination);

}  // namespace Tarn
