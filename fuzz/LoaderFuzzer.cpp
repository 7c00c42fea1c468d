// libFuzzer target: arbitrary bytes as a cache file for CacheFileLoader.
//
// A rejection must arrive as one of the library's exceptions (or
// std::bad_alloc); a crash, a sanitizer report, a hang or any other
// exception is a finding. A file that loads must also be described
// consistently: the counts match the visits and the gaps lie in order
// inside the file.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <new>

#include "pt/Exception.h"
#include "store/CacheFileLoader.h"

namespace {

using Tarn::CacheFileLoader;

class CountingVisitor : public CacheFileLoader::Visitor {
 public:
  void onType(const Tarn::TypeRecord&) override { ++types; }
  void onFreeSlot(uint32_t) override { ++freeSlots; }
  void onEntry(uint32_t, const Tarn::EntryHeader& header) override {
    if (!header.keysValid() || header.typeId == 0 || header.typeId > types) std::abort();
    ++entries;
  }

  uint32_t types = 0, freeSlots = 0, entries = 0;
};

void CheckSummary(const CacheFileLoader::Summary& summary, const CountingVisitor& visits) {
  if (summary.liveEntries != visits.entries || summary.freeSlots != visits.freeSlots) {
    std::abort();
  }
  uint64_t end = 0;
  for (const Tarn::FileRange& gap : summary.gaps) {
    if (gap.length == 0 || gap.offset <= end || gap.end() > summary.fileLength) std::abort();
    end = gap.end();
  }
  if (summary.trailingBytes > summary.fileLength - end) std::abort();
}

// One in-memory file for the whole run: no disk, nothing left behind.
int InputFile() {
  static const int fd = memfd_create("tarn-fuzz", MFD_CLOEXEC);
  if (fd < 0) std::abort();
  return fd;
}

void Replace(int fd, const uint8_t* data, size_t size) {
  if (ftruncate(fd, 0) != 0) std::abort();
  size_t written = 0;
  while (written < size) {
    const ssize_t n = pwrite(fd, data + written, size - written, static_cast<off_t>(written));
    if (n <= 0) std::abort();
    written += static_cast<size_t>(n);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const int fd = InputFile();
  Replace(fd, data, size);
  CountingVisitor visits;
  try {
    CheckSummary(CacheFileLoader::Load(fd, visits), visits);
  } catch (const Pt::Exception&) {
  } catch (const std::bad_alloc&) {
  }
  return 0;
}
