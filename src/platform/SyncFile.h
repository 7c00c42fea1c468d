// SyncFile: a file for blocking reads and writes, and the blocking file
// operations around it (existence, removal, renaming, syncing a folder).
//
// The asynchronous device (PtIoDeviceFile) carries a cache's entries; this
// is the small synchronous side that opening, creating, locking and
// inspecting a cache file need. Every operating-system call on files that
// the library makes outside the device goes through here, so that the
// fault-injection seam (IoFaultInjection, the Sync* kinds) can fail, shorten
// or hold any of them.
//
// Ownership: a SyncFile owns its descriptor and closes it when destroyed or
// moved over; closing drops a lock it holds. It can be moved, not copied.
//
// Errors: every operation that fails throws Pt::ExSystem carrying the errno
// of the failed call (never 0: a failure that leaves errno at 0 is EIO) and
// the ExWhere the caller passes, so that each caller reports its failure at
// its own raise site. A read that meets the end of the file before it is
// complete is EIO. An interrupted call (EINTR) is repeated, a short transfer
// continued.
//
// Thread-safety: one SyncFile belongs to one thread at a time; the free
// functions may be called from any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "pt/Exception.h"

namespace Pt {

class SyncFile {
 public:
  enum class Mode {
    ReadOnly,   // an existing file, for reading
    ReadWrite,  // an existing file, for reading and writing; never truncated
    Create,     // created if missing, else emptied; for writing
  };

  // Opens `path` (UTF-8). Throws Pt::ExSystem at `where`.
  static SyncFile Open(const std::string& path, Mode mode, const ExWhere& where);

  SyncFile() = default;
  ~SyncFile() { close(); }
  SyncFile(SyncFile&& other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
  SyncFile& operator=(SyncFile&& other) noexcept;
  SyncFile(const SyncFile&) = delete;
  SyncFile& operator=(const SyncFile&) = delete;

  bool isOpen() const noexcept { return fd_ >= 0; }
  // Reads exactly `length` bytes at `offset` into `out`.
  void readAt(void* out, size_t length, uint64_t offset, const ExWhere& where) const;
  // Writes exactly `length` bytes at `offset`. On a throw any prefix of them
  // may have reached the file.
  void writeAt(const void* data, size_t length, uint64_t offset, const ExWhere& where);
  // The file's length in bytes.
  uint64_t length(const ExWhere& where) const;
  // Makes the file's data durable (fdatasync).
  void sync(const ExWhere& where);
  // Sets the file's length.
  void truncate(uint64_t length, const ExWhere& where);
  // Takes an exclusive advisory lock (flock) without waiting: EWOULDBLOCK
  // when another open of the file, in this process or another, holds one.
  // The lock lasts until the file is closed.
  void lockExclusive(const ExWhere& where);
  // Closes the file; an error of the close is reported at `where`. The
  // descriptor is gone either way.
  void close(const ExWhere& where);
  // Closes the file, ignoring what the close says (destruction, clean-up).
  void close() noexcept;

 private:
  explicit SyncFile(int fd) : fd_(fd) {}
  int fd_ = -1;
};

// Whether `path` names an existing file system object. Never throws.
bool FileExists(const std::string& path) noexcept;
// Removes the file `path` (never a folder). Throws Pt::ExSystem at `where`.
void UnlinkFile(const std::string& path, const ExWhere& where);
// Renames `from` to `to`, replacing `to`. Throws Pt::ExSystem at `where`.
void RenameFile(const std::string& from, const std::string& to, const ExWhere& where);
// Makes the folder that holds `path` durable (fsync of the folder), so that
// a file just created or renamed there survives a power loss. Throws
// Pt::ExSystem at `where`.
void SyncParentDirectory(const std::string& path, const ExWhere& where);

}  // namespace Pt
