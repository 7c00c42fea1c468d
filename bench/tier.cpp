// The memcached tier between processes: two local memcached servers, one
// process that generates N objects, then a second with an empty cache file
// that asks for the same N. Prints what each process did per second, what
// share of the generations the second process saved, and the latency a
// lookup in the tier adds to a request for an object nobody has (a local
// miss that the factory then generates), against the same requests without
// a tier.
//
// usage: tarn_tierbench [OBJECTS [VALUE_BYTES [WORK_ROUNDS]]]
//   defaults 2000 objects of 16384 bytes; WORK_ROUNDS (default 16) passes
//   of mixing over each object stand in for the cost of generating it.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "memcached/MemcachedServer.h"
#include "tarn/MemcachedTier.h"
#include "tarn/tarn.h"

namespace {

using Clock = std::chrono::steady_clock;

struct Options {
  int objects = 2000;
  std::size_t bytes = 16384;
  int rounds = 16;
};

class WorkFactory : public Tarn::CacheableFactory {
 public:
  explicit WorkFactory(const Options& options) : options_(options) {}

  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    generated.fetch_add(1);
    std::vector<uint8_t> bytes(options_.bytes);
    uint64_t state = 1469598103934665603ULL;
    for (char c : key.view()) state = (state ^ uint8_t(c)) * 1099511628211ULL;
    for (int round = 0; round < options_.rounds; ++round) {
      for (auto& byte : bytes) {
        state = (state ^ byte) * 1099511628211ULL;
        byte = uint8_t(state >> 29);
      }
    }
    return Tarn::Cacheable::Create(type_,
                                   Tarn::Buffer::Create(int32_t(bytes.size()), bytes.data()));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& bytes) override {
    return Tarn::Cacheable::Create(type_, bytes);
  }
  const std::string& getType() const override { return type_; }

  std::atomic<int> generated{0};

 private:
  const Options options_;
  std::string type_ = "tile";
};

double Percentile(std::vector<double> values, double share) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  return values[std::min(values.size() - 1, std::size_t(share * double(values.size())))];
}

struct Figures {
  double perSecond = 0, p50 = 0, p99 = 0;
  int generated = 0;
};

// One process: asks for `prefix`0.. objects one at a time, prints its line
// and writes its figures to `out` for the parent's summary.
void RunProcess(const char* name, const std::vector<std::string>& servers, const std::string& file,
                const std::string& prefix, const Options& options, const std::string& out) {
  std::shared_ptr<Tarn::MemcachedTier> tier;
  Tarn::TierConfig tiering;
  if (!servers.empty()) {
    Tarn::MemcachedTierConfig config;
    config.servers = servers;
    tier = Tarn::MakeMemcachedTier(config);
    tiering.tier = tier;
    tiering.keyNamespace = "tierbench";
  }
  auto factory = std::make_shared<WorkFactory>(options);
  std::vector<double> micros;
  Tarn::TierStatistics statistics;
  const auto start = Clock::now();
  {
    Tarn::Cache cache(file, Tarn::Config(), factory, tiering);
    for (int i = 0; i < options.objects; ++i) {
      const auto key = Tarn::CacheKey<32>::FromString(prefix + std::to_string(i));
      const auto begin = Clock::now();
      cache.findCreateFuture(key, Tarn::CacheKey<16>::FromString("s"), "tile").get();
      micros.push_back(std::chrono::duration<double, std::micro>(Clock::now() - begin).count());
    }
    statistics = cache.tierStatistics();
  }
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  if (tier) tier->drainPublishes(std::chrono::seconds(60));
  const Figures figures{options.objects / seconds, Percentile(micros, 0.5),
                        Percentile(micros, 0.99), factory->generated.load()};
  std::printf(
      "%-26s %7.0f objects/s  p50 %7.1f us  p99 %7.1f us  generated %5d  tier hits %5llu"
      "  timeouts %llu\n",
      name, figures.perSecond, figures.p50, figures.p99, figures.generated,
      static_cast<unsigned long long>(statistics.hits),
      static_cast<unsigned long long>(statistics.timeouts));
  if (FILE* f = std::fopen(out.c_str(), "w")) {
    std::fprintf(f, "%f %f %f %d\n", figures.perSecond, figures.p50, figures.p99,
                 figures.generated);
    std::fclose(f);
  }
}

// Runs `body` in a child process (the parent has no threads of its own) and
// waits for it.
template <typename Body>
void InChild(Body body) {
  std::fflush(stdout);
  const pid_t pid = fork();
  if (pid == 0) {
    body();
    std::fflush(stdout);
    _exit(0);
  }
  waitpid(pid, nullptr, 0);
}

}  // namespace

int main(int argc, char** argv) {
  Options options;
  if (argc > 1) options.objects = std::atoi(argv[1]);
  if (argc > 2) options.bytes = std::strtoul(argv[2], nullptr, 10);
  if (argc > 3) options.rounds = std::atoi(argv[3]);
  char folderTemplate[] = "/tmp/tarn-tierbench.XXXXXX";
  const std::filesystem::path folder = mkdtemp(folderTemplate);
  {
    TarnTest::MemcachedServer first(folder), second(folder);
    const std::vector<std::string> servers = {first.address(), second.address()};
    const auto file = [&](const char* name) { return (folder / name).string(); };
    std::printf("%d objects of %zu bytes, %d rounds of work each, two memcached servers\n",
                options.objects, options.bytes, options.rounds);
    const auto run = [&](const char* name, std::vector<std::string> on, const char* cache,
                         const char* prefix) {
      InChild([&] { RunProcess(name, on, file(cache), prefix, options, file(cache) + ".txt"); });
      Figures figures;
      if (FILE* f = std::fopen((file(cache) + ".txt").c_str(), "r")) {
        if (std::fscanf(f, "%lf %lf %lf %d", &figures.perSecond, &figures.p50, &figures.p99,
                        &figures.generated) != 4) {
          figures = Figures{};
        }
        std::fclose(f);
      }
      return figures;
    };
    const Figures a = run("A: generates, publishes", servers, "a.tarn", "object-");
    const Figures b = run("B: empty file, same keys", servers, "b.tarn", "object-");
    const Figures c = run("C: new keys, with tier", servers, "c.tarn", "fresh-");
    const Figures d = run("D: new keys, no tier", {}, "d.tarn", "other-");
    std::printf("\ntier hits/s against generation: %.0f/s against %.0f/s (x%.1f)\n", b.perSecond,
                a.perSecond, a.perSecond > 0 ? b.perSecond / a.perSecond : 0.0);
    std::printf("generations saved by process B: %.1f%%\n",
                100.0 * (1.0 - double(b.generated) / options.objects));
    std::printf("latency a tier miss adds to a local miss (C - D): p50 %+.1f us, p99 %+.1f us\n",
                c.p50 - d.p50, c.p99 - d.p99);
  }
  std::filesystem::remove_all(folder);
  return 0;
}
