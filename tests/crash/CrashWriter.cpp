#include "crash/CrashWriter.h"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <exception>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "crash/CrashModel.h"
#include "store/FileManager.h"
#include "support/TestFactory.h"
#include "support/ZeroedConfig.h"
#include "tarn/tarn.h"

namespace TarnCrash {
namespace {

// The writer runs at most this long; the parent kills it well before.
constexpr auto kSafetyLimit = std::chrono::seconds(30);
// On average one commit per this many steps, and one close and reopen per
// this many.
constexpr unsigned kStepsPerCommit = 12;
constexpr unsigned kStepsPerReopen = 150;

// The log only has to outlive the writer process, not the machine: what
// write() has handed to the kernel survives a kill, so no fsync is needed.
class SideLog {
 public:
  explicit SideLog(const std::string& path)
      : fd_(::open(path.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)) {}
  ~SideLog() {
    if (fd_ >= 0) ::close(fd_);
  }
  bool ok() const { return fd_ >= 0; }
  void line(const std::string& text) {
    const std::string whole = text + "\n";
    if (::write(fd_, whole.data(), whole.size()) != static_cast<ssize_t>(whole.size())) {
      std::perror("crash writer: log");
      std::_Exit(3);
    }
  }

 private:
  int fd_;
};

Pt::SmartPointer<Tarn::Cacheable> Object(int key, int64_t version) {
  const std::vector<uint8_t> bytes = Payload(key, version);
  return Tarn::Cacheable::Create(
      kType, Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
}

// One step on one key: insert when it is absent; otherwise replace it
// (erase, then insert at once, while the first write may be in flight) or
// erase it.
void Step(Tarn::Cache& cache, SideLog& log, std::mt19937_64& random, int64_t& version) {
  const int key = random() % 5 < 3 ? static_cast<int>(random() % kSmallKeys)
                                   : kSmallKeys + static_cast<int>(random() % kLargeKeys);
  const Tarn::PrimaryKey primary = Tarn::PrimaryKey::FromString(KeyName(key));
  const Tarn::SecondaryKey secondary = Tarn::SecondaryKey::FromString("crash");
  if (cache.isCached(primary)) {
    log.line("E " + std::to_string(key));
    cache.erase(primary);
    if (random() % 4 == 0) return;  // an erase alone
  }
  const int64_t next = version++;
  log.line("W " + std::to_string(key) + " " + std::to_string(next));
  cache.insert(primary, secondary, Object(key, next).get());
}

}  // namespace

int RunWriter(int argc, char** argv) {
  if (argc != 6) {
    std::fprintf(stderr, "crash writer: wrong arguments\n");
    return 2;
  }
  const std::string cachePath = argv[2];
  SideLog log(argv[3]);
  std::mt19937_64 random(std::stoull(argv[4]));
  int64_t version = std::stoll(argv[5]);
  if (!log.ok()) return 2;
  // Every close with a gap in the file relocates, so that kills land in
  // relocations too.
  Tarn::FileManager::SetRelocationTrigger(1.0);
  try {
    Tarn::Config config = Tarn::ZeroedConfig();
    config.memoryTarget = 1 << 20;
    config.workerThreads = 1;
    const std::wstring path(cachePath.begin(), cachePath.end());
    const auto open = [&] {
      return std::make_unique<Tarn::Cache>(
          path.c_str(), config,
          std::vector<Pt::SmartPointer<Tarn::CacheableFactory>>{new TarnTest::NamedFactory(kType)});
    };
    auto cache = open();
    const auto end = std::chrono::steady_clock::now() + kSafetyLimit;
    while (std::chrono::steady_clock::now() < end) {
      Step(*cache, log, random, version);
      if (random() % kStepsPerCommit == 0) {
        cache->commit();
        log.line("C");
      }
      if (random() % kStepsPerReopen == 0) {
        const uint64_t moved = Tarn::FileManager::RelocatedEntries();
        cache.reset();
        log.line("R " + std::to_string(Tarn::FileManager::RelocatedEntries() - moved));
        cache = open();
      }
    }
  } catch (const std::exception& error) {
    std::fprintf(stderr, "crash writer: %s\n", error.what());
    return 1;
  }
  return 0;
}

}  // namespace TarnCrash
