// One process of a fleet, for the end-to-end tier tests and the benchmark.
//
// usage: tarn_tier_process SERVERS CACHE_FILE COUNT TYPE [VALUE_BYTES]
//
// Opens (creating) CACHE_FILE with the memcached tier on SERVERS
// ("host:port,host:port"), asks findCreate for objects "object-0" ..
// "object-(COUNT-1)" of TYPE, waits for the tier to have sent what the cache
// published, and prints one line:
//   generated=G digest=D hits=H misses=M rejected=R published=P
// where D is a 64-bit FNV-1a over every object's bytes in key order, so that
// two processes can show they returned the same objects.
#include <tarn/MemcachedTier.h>
#include <tarn/tarn.h>

#include <atomic>
#include <cinttypes>
#include <cstdio>
#include <cstdlib>
#include <sstream>
#include <string>
#include <vector>

namespace {

// The object's bytes follow from its key and type alone.
std::vector<uint8_t> Render(const Tarn::CacheKey<32>& key, const std::string& type,
                            std::size_t size) {
  uint64_t seed = 1469598103934665603ULL;
  for (char c : std::string(key.view()) + type) seed = (seed ^ uint8_t(c)) * 1099511628211ULL;
  std::vector<uint8_t> bytes(size);
  for (std::size_t i = 0; i < size; ++i) bytes[i] = uint8_t((seed >> (8 * (i % 8))) + i / 8);
  return bytes;
}

class Factory : public Tarn::CacheableFactory {
 public:
  Factory(std::string type, std::size_t size) : type_(std::move(type)), size_(size) {}

  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    generated.fetch_add(1);
    std::vector<uint8_t> bytes = Render(key, type_, size_);
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
  std::string type_;
  std::size_t size_;
};

std::vector<std::string> Split(const std::string& list) {
  std::vector<std::string> parts;
  std::stringstream stream(list);
  for (std::string part; std::getline(stream, part, ',');) parts.push_back(part);
  return parts;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc < 5) {
    std::fprintf(stderr, "usage: %s SERVERS CACHE_FILE COUNT TYPE [VALUE_BYTES]\n", argv[0]);
    return 2;
  }
  const int count = std::atoi(argv[3]);
  const std::size_t size = argc > 5 ? std::strtoul(argv[5], nullptr, 10) : 1000;
  Tarn::MemcachedTierConfig tierConfig;
  tierConfig.servers = Split(argv[1]);
  auto tier = Tarn::MakeMemcachedTier(tierConfig);
  Tarn::TierConfig tiering;
  tiering.tier = tier;
  tiering.keyNamespace = "tier-test";
  tiering.deadline = std::chrono::milliseconds(2000);  // a loaded test machine
  auto factory = std::make_shared<Factory>(argv[4], size);
  uint64_t digest = 1469598103934665603ULL;
  Tarn::TierStatistics statistics;
  {
    Tarn::Cache cache(argv[2], Tarn::Config(), factory, tiering);
    for (int i = 0; i < count; ++i) {
      const auto key = Tarn::CacheKey<32>::FromString("object-" + std::to_string(i));
      auto object = cache.findCreateFuture(key, Tarn::CacheKey<16>::FromString("s"), argv[4]).get();
      const auto& data = object->getData();
      for (int32_t b = 0; b < data->length(); ++b)
        digest = (digest ^ data->bytes()[b]) * 1099511628211ULL;
    }
    cache.commit();
    statistics = cache.tierStatistics();
  }
  tier->drainPublishes(std::chrono::seconds(20));
  std::printf("generated=%d digest=%016" PRIx64 " hits=%" PRIu64 " misses=%" PRIu64
              " rejected=%" PRIu64 " published=%" PRIu64 "\n",
              factory->generated.load(), digest, statistics.hits, statistics.misses,
              statistics.rejected, statistics.published);
  return 0;
}
