// Making and removing cache files without a Cache.
//
// Paths are wide strings (UTF-32 on Linux) and are converted to UTF-8 before
// they reach the file system. Both functions run on the calling thread with
// blocking calls and report every failure as Pt::ExSystem carrying the errno
// value; a null path or one that is not valid Unicode fails with EINVAL.
//
// Neither function checks whether a Cache has the file open; the outcome is
// then whatever the file system makes of it.
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

}  // namespace Tarn
