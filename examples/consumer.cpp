// A small application of the installed library: opens a cache in a scratch
// folder, inserts an object, finds it, commits, then opens the file again and
// finds the object there. Exits 0 when every step saw what it expected.
//
// Built by tests/consumer/check.sh against an installed Tarn, to prove that the
// installed headers, library, CMake package and pkg-config file work together.
#include <stdlib.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <string>

#include <tarn/tarn.h>

namespace {

const std::string kType = "greeting";

class GreetingFactory : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    const std::string text = "hello, " + std::string(key.view());
    return Tarn::Cacheable::Create(
        kType, Tarn::Buffer::Create(static_cast<int32_t>(text.size()), text.data()));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>& /*key*/,
                                           const Pt::SmartPointer<Tarn::Buffer>& bytes) override {
    return Tarn::Cacheable::Create(kType, bytes);
  }
  const std::string& getType() const override { return kType; }
};

std::string TextOf(const Pt::SmartPointer<Tarn::Cacheable>& object) {
  if (!object) return "(nothing)";
  const Pt::SmartPointer<Tarn::Buffer>& data = object->getData();
  return std::string(reinterpret_cast<const char*>(data->bytes()),
                     static_cast<size_t>(data->length()));
}

bool Expect(const char* step, const std::string& seen, const std::string& wanted) {
  std::printf("%-28s %s\n", step, seen.c_str());
  if (seen == wanted) return true;
  std::fprintf(stderr, "consumer: %s: expected \"%s\"\n", step, wanted.c_str());
  return false;
}

Tarn::Config Settings() {
  Tarn::Config config{};
  config.memoryTarget = 1 << 20;
  config.memorySlack = 1 << 20;
  config.createIfMissing = true;
  return config;
}

bool Run(const std::filesystem::path& file) {
  const auto key = Tarn::CacheKey<32>::FromString("world");
  const auto secondary = Tarn::CacheKey<16>::FromString("greetings");
  const std::string wanted = "hello, world";
  bool good = true;
  {
    Tarn::Cache cache(file.wstring().c_str(), Settings(), new GreetingFactory);
    Tarn::Serialize sync(&cache);
    good &= Expect("find before insert:", TextOf(sync.find(key)), "(nothing)");
    cache.insert(key, secondary,
                 Tarn::Cacheable::Create(kType, Tarn::Buffer::Create(12, wanted.data())).get());
    good &= Expect("find after insert:", TextOf(sync.find(key)), wanted);
    cache.commit();
  }
  Tarn::Cache cache(file.wstring().c_str(), Settings(), new GreetingFactory);
  Tarn::Serialize sync(&cache);
  good &= Expect("find after reopening:", TextOf(sync.find(key)), wanted);
  good &= Expect("findCreate of a new key:",
                 TextOf(sync.findCreate(Tarn::CacheKey<32>::FromString("tarn"), secondary, kType)),
                 "hello, tarn");
  return good;
}

}  // namespace

int main() {
  std::printf("Tarn %s (headers %d.%d.%d)\n", Tarn::Version(), TARN_VERSION_MAJOR,
              TARN_VERSION_MINOR, TARN_VERSION_PATCH);
  std::string folder = (std::filesystem::temp_directory_path() / "tarn-consumer-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    std::perror("consumer: mkdtemp");
    return 1;
  }
  bool good = false;
  try {
    good = Run(std::filesystem::path(folder) / "objects.tarn");
  } catch (const std::exception& error) {
    std::fprintf(stderr, "consumer: %s\n", error.what());
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  return good ? 0 : 1;
}
