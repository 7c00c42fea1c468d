#include "tarn/CacheFile.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <vector>

#include "core/RaiseSites.h"
#include "pt/Exception.h"
#include "store/FileFormat.h"
#include "store/NativePath.h"

namespace Tarn {
namespace {

// The errno of a call that just failed. A failing stdio call that leaves
// errno at 0 is still reported as an I/O error rather than as "success".
int LastError() {
  const int code = Pt::ErrorCode();
  return code != 0 ? code : EIO;
}

// Writes `image` to the open `file` and closes it; 0 on success, else the
// error code of the first step that failed. fflush and fclose are checked
// too: a write that the C library buffered and then lost is a failed write.
int WriteAndClose(std::FILE* file, const std::vector<uint8_t>& image) {
  int error = 0;
  if (std::fwrite(image.data(), image.size(), 1, file) != 1) error = LastError();
  if (error == 0 && std::fflush(file) != 0) error = LastError();
  if (std::fclose(file) != 0 && error == 0) error = LastError();
  return error;
}

}  // namespace

void CreateCacheFile(const wchar_t* path) {
  const std::string narrow = NativePath(path, kCreateFileOpen);
  // Built before the file is touched, so that running out of memory leaves
  // any existing file as it was.
  const std::vector<uint8_t> image = InitialFileImage();
  // "e": close-on-exec, so that a process the application forks meanwhile
  // does not inherit the descriptor.
  std::FILE* file = std::fopen(narrow.c_str(), "wbe");
  if (file == nullptr) throw Pt::ExSystem(LastError(), kCreateFileOpen.where);
  const int error = WriteAndClose(file, image);
  if (error != 0) {
    // The code was taken before the removal, whose own errno would hide it.
    ::unlink(narrow.c_str());
    throw Pt::ExSystem(error, kCreateFileWrite.where);
  }
}

void DestroyCacheFile(const wchar_t* path) {
  const std::string narrow = NativePath(path, kDestroyFileRemove);
  // unlink rather than remove: a cache path that names a folder, even an
  // empty one, must not make the folder disappear.
  if (::unlink(narrow.c_str()) != 0) throw Pt::ExSystem(LastError(), kDestroyFileRemove.where);
}

}  // namespace Tarn
