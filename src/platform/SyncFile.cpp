#include "platform/SyncFile.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "platform/IoFaultInjection.h"

namespace Pt {
namespace {

using Kind = IoFaultInjection::Kind;
using Outcome = IoFaultInjection::SyncOutcome;

// The errno of a call that just failed; a call that failed without setting
// it is reported as an I/O error rather than as "success".
int LastError() {
  return errno != 0 ? errno : EIO;
}

// The fault-injection seam's say on a call: nothing unless a rule is set.
Outcome Intercept(Kind kind, int64_t offset = -1, int64_t length = -1) {
  if (!IoFaultInjection::Armed()) return Outcome{};
  return IoFaultInjection::InterceptSync(kind, offset, length);
}

// Runs `call` (a system call returning -1 and errno on failure) under the
// outcome the seam chose, repeating it on EINTR; returns its result or
// throws at `where`.
template <class Call>
auto Checked(Outcome& outcome, const ExWhere& where, Call call) {
  if (outcome.error != 0) throw ExSystem(outcome.error, where);
  while (true) {
    if (outcome.transientErrors > 0) {
      --outcome.transientErrors;
      continue;  // as if the call had been interrupted
    }
    errno = 0;
    const auto result = call();
    if (result >= 0) return result;
    if (errno != EINTR) throw ExSystem(LastError(), where);
  }
}

// The bytes the next transfer may move: the rest, unless the seam shortens
// the first one.
size_t Chunk(Outcome& outcome, size_t rest) {
  if (outcome.shortBytes < 0) return rest;
  const auto chunk =
      std::min<size_t>(rest, static_cast<size_t>(std::max<int64_t>(outcome.shortBytes, 1)));
  outcome.shortBytes = -1;
  return chunk;
}

int OpenFlags(SyncFile::Mode mode) {
  switch (mode) {
    case SyncFile::Mode::ReadOnly:
      return O_RDONLY;
    case SyncFile::Mode::ReadWrite:
      return O_RDWR;
    case SyncFile::Mode::Create:
      return O_WRONLY | O_CREAT | O_TRUNC;
  }
  return O_RDONLY;
}

}  // namespace

SyncFile SyncFile::Open(const std::string& path, Mode mode, const ExWhere& where) {
  Outcome outcome = Intercept(mode == Mode::Create ? Kind::SyncCreate : Kind::SyncOpen);
  // 0666 before the umask, as a C library's fopen creates files.
  const int fd = Checked(outcome, where,
                         [&] { return ::open(path.c_str(), OpenFlags(mode) | O_CLOEXEC, 0666); });
  return SyncFile(fd);
}

SyncFile& SyncFile::operator=(SyncFile&& other) noexcept {
  if (this != &other) {
    close();
    fd_ = other.fd_;
    other.fd_ = -1;
  }
  return *this;
}

void SyncFile::readAt(void* out, size_t length, uint64_t offset, const ExWhere& where) const {
  Outcome outcome =
      Intercept(Kind::SyncRead, static_cast<int64_t>(offset), static_cast<int64_t>(length));
  auto* next = static_cast<uint8_t*>(out);
  while (length > 0) {
    const size_t chunk = Chunk(outcome, length);
    const ssize_t got = Checked(
        outcome, where, [&] { return ::pread(fd_, next, chunk, static_cast<off_t>(offset)); });
    if (got == 0) throw ExSystem(EIO, where);  // the file ends first
    next += got;
    length -= static_cast<size_t>(got);
    offset += static_cast<uint64_t>(got);
  }
}

void SyncFile::writeAt(const void* data, size_t length, uint64_t offset, const ExWhere& where) {
  Outcome outcome =
      Intercept(Kind::SyncWrite, static_cast<int64_t>(offset), static_cast<int64_t>(length));
  const auto* next = static_cast<const uint8_t*>(data);
  while (length > 0) {
    const size_t chunk = Chunk(outcome, length);
    const ssize_t put = Checked(
        outcome, where, [&] { return ::pwrite(fd_, next, chunk, static_cast<off_t>(offset)); });
    if (put == 0) throw ExSystem(EIO, where);
    next += put;
    length -= static_cast<size_t>(put);
    offset += static_cast<uint64_t>(put);
  }
}

uint64_t SyncFile::length(const ExWhere& where) const {
  Outcome outcome = Intercept(Kind::SyncLength);
  struct stat status {};
  Checked(outcome, where, [&] { return ::fstat(fd_, &status); });
  return static_cast<uint64_t>(std::max<off_t>(status.st_size, 0));
}

void SyncFile::sync(const ExWhere& where) {
  Outcome outcome = Intercept(Kind::Sync);
  Checked(outcome, where, [&] { return ::fdatasync(fd_); });
}

void SyncFile::truncate(uint64_t length, const ExWhere& where) {
  Outcome outcome = Intercept(Kind::SyncTruncate);
  Checked(outcome, where, [&] { return ::ftruncate(fd_, static_cast<off_t>(length)); });
}

void SyncFile::lockExclusive(const ExWhere& where) {
  Outcome outcome = Intercept(Kind::Lock);
  Checked(outcome, where, [&] { return ::flock(fd_, LOCK_EX | LOCK_NB); });
}

void SyncFile::close(const ExWhere& where) {
  if (fd_ < 0) return;
  const int fd = fd_;
  fd_ = -1;
  // No retry on EINTR: the descriptor is released whatever close says.
  if (::close(fd) != 0 && errno != EINTR) throw ExSystem(LastError(), where);
}

void SyncFile::close() noexcept {
  if (fd_ >= 0) ::close(fd_);
  fd_ = -1;
}

bool FileExists(const std::string& path) noexcept {
  return ::access(path.c_str(), F_OK) == 0;
}

void UnlinkFile(const std::string& path, const ExWhere& where) {
  Outcome outcome = Intercept(Kind::Unlink);
  Checked(outcome, where, [&] { return ::unlink(path.c_str()); });
}

void RenameFile(const std::string& from, const std::string& to, const ExWhere& where) {
  Outcome outcome = Intercept(Kind::Rename);
  Checked(outcome, where, [&] { return ::rename(from.c_str(), to.c_str()); });
}

void SyncParentDirectory(const std::string& path, const ExWhere& where) {
  Outcome outcome = Intercept(Kind::SyncDir);
  const size_t slash = path.rfind('/');
  const std::string folder =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const int fd = Checked(
      outcome, where, [&] { return ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); });
  try {
    Checked(outcome, where, [&] { return ::fsync(fd); });
  } catch (...) {
    ::close(fd);
    throw;
  }
  ::close(fd);
}

}  // namespace Pt
