// FileLock: a cache file opened for reading and writing and locked against
// every other open of it.
//
// Two stores writing one file would corrupt it silently, so the open takes an
// exclusive advisory lock (flock) before it reads anything and holds it until
// the store is destroyed. The lock belongs to this open file description:
// another open of the same file, in this process or another, fails. Readers
// that only inspect a file (tarn-inspect) do not take it; a compaction takes
// it on both its files.
//
// Not thread-safe; owned by one FileManager.
#pragma once

#include <string>

#include "platform/SyncFile.h"

namespace Tarn {

class FileLock {
 public:
  FileLock() = default;
  ~FileLock() { release(); }
  FileLock(const FileLock&) = delete;
  FileLock& operator=(const FileLock&) = delete;

  // Opens and locks `path`. Throws Pt::ExSystem: at the open's raise site when
  // the file cannot be opened, at the lock's when another open holds it
  // (EWOULDBLOCK). On a throw nothing stays open.
  void acquire(const std::string& path);
  // Closes the file, which drops the lock.
  void release();

  bool held() const { return file_.isOpen(); }
  // The locked file, for the open's reads and writes.
  Pt::SyncFile& file() { return file_; }

 private:
  Pt::SyncFile file_;
};

}  // namespace Tarn
