#include "store/FileLock.h"

#include "core/RaiseSites.h"

namespace Tarn {

void FileLock::acquire(const std::string& path) {
  release();
  Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadWrite, kOpenFile.where);
  // On a throw `file` closes the descriptor.
  file.lockExclusive(kOpenFileLocked.where);
  file_ = std::move(file);
}

void FileLock::release() {
  file_.close();
}

}  // namespace Tarn
