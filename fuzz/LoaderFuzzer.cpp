// libFuzzer target: arbitrary bytes as a cache file for CacheFileLoader, and
// then for a real Cache.
//
// A rejection must arrive as one of the library's exceptions (or
// std::bad_alloc); a crash, a sanitizer report, a hang or any other
// exception is a finding. A file that loads must also be described
// consistently: the counts match the visits and the gaps lie in order
// inside the file. A file that loads is then opened as a Cache with a
// factory for each of its types; every entry is looked up with find, then
// commit() and the close run. Each receiver must hear exactly once, and the
// whole of it must end within kDeadline: a watchdog aborts the process
// otherwise, so that a hang is a finding too.
#include <sys/mman.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "platform/SyncFile.h"
#include "pt/Exception.h"
#include "store/CacheFileLoader.h"
#include "tarn/tarn.h"

namespace {

using Tarn::CacheFileLoader;
using Clock = std::chrono::steady_clock;

// Below libFuzzer's own -timeout, so that a hang names itself.
constexpr auto kDeadline = std::chrono::seconds(5);

class CountingVisitor : public CacheFileLoader::Visitor {
 public:
  void onType(const Tarn::TypeRecord& record) override { types.push_back(record.typeName()); }
  void onFreeSlot(uint32_t) override { ++freeSlots; }
  void onEntry(uint32_t, const Tarn::EntryHeader& header) override {
    if (!header.keysValid() || header.typeId == 0 || header.typeId > types.size()) std::abort();
    keys.push_back(header.primaryKeyValue());
  }
  void onDroppedEntry(uint32_t, const Tarn::EntryHeader&, Tarn::DropReason) override { ++dropped; }

  std::vector<std::string> types;
  std::vector<Tarn::PrimaryKey> keys;
  uint32_t freeSlots = 0, dropped = 0;
};

void CheckSummary(const CacheFileLoader::Summary& summary, const CountingVisitor& visits) {
  if (summary.liveEntries != visits.keys.size() || summary.freeSlots != visits.freeSlots ||
      summary.droppedEntries != visits.dropped) {
    std::abort();
  }
  uint64_t end = 0;
  for (const Tarn::FileRange& gap : summary.gaps) {
    if (gap.length == 0 || gap.offset <= end || gap.end() > summary.fileLength) std::abort();
    end = gap.end();
  }
  if (summary.trailingBytes > summary.fileLength - end) std::abort();
}

// Aborts the process when the cache part of one input runs past kDeadline.
class Watchdog {
 public:
  Watchdog() {
    std::thread([this] {
      while (true) {
        std::this_thread::sleep_for(std::chrono::milliseconds(200));
        const int64_t deadline = deadline_.load();
        if (deadline != 0 && Clock::now().time_since_epoch().count() > deadline) {
          std::fprintf(stderr, "LoaderFuzzer: the cache hung on this input\n");
          std::abort();
        }
      }
    }).detach();
  }
  void arm() { deadline_.store((Clock::now() + kDeadline).time_since_epoch().count()); }
  void disarm() { deadline_.store(0); }

 private:
  std::atomic<int64_t> deadline_{0};
};

class Factory : public Tarn::CacheableFactory {
 public:
  explicit Factory(std::string type) : type_(std::move(type)) {}
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>&) override {
    static const uint8_t kByte = 0;
    return Tarn::Cacheable::Create(type_, Tarn::Buffer::Create(1, &kByte));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& bytes) override {
    return Tarn::Cacheable::Create(type_, bytes);
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_;
};

// Counts the outcomes of the lookups; each must arrive once.
class Outcomes : public Tarn::CacheableReceiver {
 public:
  void found(int, const Tarn::CacheKey<32>&, const Pt::SmartPointer<Tarn::Cacheable>&) override {
    ++heard;
  }
  void cancelled(int, const Tarn::CacheKey<32>&) override { ++heard; }
  void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override { ++heard; }

  std::atomic<int> heard{0};
};

// Opens the file as a Cache, finds every entry, commits and closes.
void UseAsCache(const std::string& path, const CountingVisitor& visits) {
  std::vector<Pt::SmartPointer<Tarn::CacheableFactory>> factories;
  for (const std::string& type : visits.types) factories.emplace_back(new Factory(type));
  Pt::SmartPointer<Outcomes> outcomes(new Outcomes);
  int started = 0;
  {
    const std::wstring wide(path.begin(), path.end());
    Tarn::Cache cache(wide.c_str(), Tarn::Config{}, factories);
    if (cache.droppedEntries() != static_cast<int32_t>(visits.dropped)) std::abort();
    for (const Tarn::PrimaryKey& key : visits.keys) {
      if (cache.find(key, outcomes.get()) != 0) ++started;
    }
    cache.commit();
  }
  if (outcomes->heard.load() != started) std::abort();
}

// One in-memory file for the whole run: no disk, nothing left behind. The
// loader and the cache open it again by its name under /proc.
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
  static Watchdog watchdog;
  const int fd = InputFile();
  const std::string path = "/proc/self/fd/" + std::to_string(fd);
  Replace(fd, data, size);
  CountingVisitor visits;
  try {
    const Pt::SyncFile file = Pt::SyncFile::Open(path, Pt::SyncFile::Mode::ReadOnly, {});
    CheckSummary(CacheFileLoader::Load(file, visits), visits);
  } catch (const Pt::Exception&) {
    return 0;
  } catch (const std::bad_alloc&) {
    return 0;
  }
  watchdog.arm();
  try {
    UseAsCache(path, visits);
  } catch (const Pt::Exception&) {
    // A failed read of the open, or more types than factories can serve.
  } catch (const std::bad_alloc&) {
  }
  watchdog.disarm();
  return 0;
}
