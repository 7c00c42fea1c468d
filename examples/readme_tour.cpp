#include <tarn/tarn.h>

#include <cstdint>
#include <cstdio>
#include <memory>
#include <vector>

// Stands in for the expensive part: rendering, parsing, compiling...
std::vector<uint8_t> RenderTile(const Tarn::CacheKey<32>& key) {
  return std::vector<uint8_t>(256, static_cast<uint8_t>(key.length));
}

// One factory per type of object: it generates missing objects and rebuilds
// stored ones from their bytes.
class TileFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    std::vector<uint8_t> pixels = RenderTile(key);
    return Tarn::Cacheable::Create(type_, Tarn::Buffer::Create(pixels.size(), pixels.data()));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& bytes) override {
    return Tarn::Cacheable::Create(type_, bytes);
  }
  const std::string& getType() const override { return type_; }

 private:
  std::string type_ = "tile";
};

int main() {
  Tarn::Config config;             // 64 MiB in memory, file created when missing
  config.memoryTarget = 32 << 20;  // bytes of size() kept in memory...
  config.memorySlack = 8 << 20;    // ...eviction starts above target + slack
  config.fileBudget = 256 << 20;   // the file stays within 256 MiB (0: up to 2 GiB)

  // The application owns its factory; the cache keeps a copy of the shared_ptr.
  auto factory = std::make_shared<TileFactory>();
  Tarn::Cache cache("tiles.tarn", config, factory);

  // Asynchronous: the outcome arrives once, on any thread, to a callable.
  auto key = Tarn::CacheKey<32>::FromString("z3/x5/y7");
  cache.findCreate(key, Tarn::CacheKey<16>::FromString("z3"), "tile",
                   [](const Tarn::Outcome& outcome) {
                     if (outcome.kind == Tarn::Outcome::Kind::Failed) {
                       std::fprintf(stderr, "%s\n", outcome.error->what());
                     }
                   });

  // Or as a future: get() returns the object or throws what went wrong.
  Pt::SmartPointer<Tarn::Cacheable> tile =
      cache.findCreateFuture(key, Tarn::CacheKey<16>::FromString("z3"), "tile").get();
  std::printf("tile of %d bytes\n", tile->size());

  cache.commit();  // everything issued so far is on disk
  return 0;
}
