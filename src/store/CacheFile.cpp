#include "tarn/CacheFile.h"

#include <vector>

#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "platform/SyncFile.h"
#include "pt/Exception.h"
#include "store/FileFormat.h"
#include "store/NativePath.h"

namespace Tarn {
namespace {

// Writes the new file's image, makes it durable and closes it, then makes
// its entry in the folder durable: a cache file that a power loss could take
// back, or leave empty, after its creation returned would break the promise
// that committed entries survive. Throws Pt::ExSystem at the write's site.
void WriteDurably(Pt::SyncFile& file, const std::string& path, const std::vector<uint8_t>& image) {
  file.writeAt(image.data(), image.size(), 0, kCreateFileWrite.where);
  file.sync(kCreateFileWrite.where);
  file.close(kCreateFileWrite.where);
  Pt::SyncParentDirectory(path, kCreateFileWrite.where);
}

}  // namespace

void CreateCacheFile(const wchar_t* path) {
  const std::string narrow = NativePath(path, kCreateFileOpen);
  // Built before the file is touched, so that running out of memory leaves
  // any existing file as it was.
  const std::vector<uint8_t> image = InitialFileImage();
  Pt::SyncFile file;
  try {
    file = Pt::SyncFile::Open(narrow, Pt::SyncFile::Mode::Create, kCreateFileOpen.where);
  } catch (Pt::Exception& failure) {
    failure.addContext(PathSubject("create cache file", narrow));
    throw;
  }
  try {
    WriteDurably(file, narrow, image);
  } catch (Pt::ExSystem& failure) {
    failure.addContext(PathSubject("write new cache file", narrow));
    // A half-made file would be rejected by every open; it goes. The
    // exception was made before the removal, whose own errno cannot hide it.
    file.close();
    try {
      Pt::UnlinkFile(narrow, kCreateFileWrite.where);
    } catch (const Pt::ExSystem&) {
    }
    throw;
  }
}

void DestroyCacheFile(const wchar_t* path) {
  const std::string narrow = NativePath(path, kDestroyFileRemove);
  // unlink rather than remove: a cache path that names a folder, even an
  // empty one, must not make the folder disappear.
  try {
    Pt::UnlinkFile(narrow, kDestroyFileRemove.where);
  } catch (Pt::Exception& failure) {
    failure.addContext(PathSubject("remove cache file", narrow));
    throw;
  }
}

}  // namespace Tarn
