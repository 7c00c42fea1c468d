#include "store/FileLock.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>

#include "core/RaiseSites.h"

namespace Tarn {

void FileLock::acquire(const std::string& path) {
  release();
  const int fd = ::open(path.c_str(), O_RDWR | O_CLOEXEC);
  if (fd < 0) throw Pt::ExSystem(errno, kOpenFile.where);
  if (flock(fd, LOCK_EX | LOCK_NB) != 0) {
    const int error = errno;
    ::close(fd);
    throw Pt::ExSystem(error, kOpenFileLocked.where);
  }
  fd_ = fd;
}

void FileLock::release() {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

}  // namespace Tarn
