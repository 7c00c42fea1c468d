// Tarn through its public API: inserts then one commit; finds and
// findCreates with up to 64 requests in flight, the factory making a missing
// object on the cache's worker threads.
#include <atomic>

#include "Workload.h"
#include "tarn/tarn.h"

namespace Compare {

namespace {

const std::string kType = "blob";

Pt::SmartPointer<Tarn::Cacheable> ObjectOf(const Values& values, uint64_t id) {
  const std::span<const uint8_t> bytes = values.of(id);
  return Tarn::Cacheable::Create(
      kType, Tarn::Buffer::Create(static_cast<int32_t>(bytes.size()), bytes.data()));
}

class Factory : public Tarn::CacheableFactory {
 public:
  explicit Factory(const Values& values) : values_(values) {}
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::CacheKey<32>& key) override {
    SpendCreateCost();
    return ObjectOf(values_, IdOfKey(key.data));
  }
  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::CacheKey<32>&,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override {
    return Tarn::Cacheable::Create(kType, data);
  }
  const std::string& getType() const override { return kType; }

 private:
  const Values& values_;
};

// Checks each object found and counts the requests still open.
class Receiver : public Tarn::CacheableReceiver {
 public:
  explicit Receiver(const Values& values) : values_(values) {}
  void found(int, const Tarn::CacheKey<32>& key,
             const Pt::SmartPointer<Tarn::Cacheable>& object) override {
    const auto& data = object->getData();
    if (!values_.matches(IdOfKey(key.data), data->bytes(), data->length())) wrong_.store(true);
    done();
  }
  void cancelled(int, const Tarn::CacheKey<32>&) override {
    wrong_.store(true);
    done();
  }
  void failed(int, const Tarn::CacheKey<32>&, const Pt::Exception&) override {
    wrong_.store(true);
    done();
  }
  void waitBelow(int limit) {
    for (int now = pending.load(); now >= limit; now = pending.load()) pending.wait(now);
  }
  bool wrong() const { return wrong_.load(); }
  std::atomic<int> pending{0};

 private:
  void done() {
    pending.fetch_sub(1);
    pending.notify_one();
  }
  const Values& values_;
  std::atomic<bool> wrong_{false};
};

class TarnLibrary : public Library {
 public:
  TarnLibrary(const std::string& folder, const Values& values)
      : path_(folder.begin(), folder.end()), values_(values) {
    path_ += L"/compare.tarn";
  }
  void create() override {
    Tarn::CreateCacheFile(path_.c_str());
    open();
  }
  void open() override {
    Tarn::Config config{};
    // Room for the hot keys; the cold read passes through it.
    config.memoryTarget = static_cast<int32_t>((kHotKeys + kHotKeys / 4) * values_.size());
    config.memorySlack = 0;
    cache_ = std::make_unique<Tarn::Cache>(path_.c_str(), config, new Factory(values_));
  }
  void close() override { cache_.reset(); }
  void load(uint32_t count) override {
    for (uint32_t id = 0; id < count; ++id) {
      cache_->insert(Tarn::PrimaryKey::FromBytes(KeyOf(id).bytes, kKeySize), Tarn::SecondaryKey{},
                     ObjectOf(values_, id).get());
    }
    cache_->commit();
  }
  void read(const std::vector<uint64_t>& ids) override {
    inFlight(ids, [&](const Tarn::PrimaryKey& key, Receiver* receiver) {
      if (cache_->find(key, receiver) == 0) Fail("tarn: a key is missing");
    });
  }
  void getOrCreate(const std::vector<uint64_t>& ids) override {
    inFlight(ids, [&](const Tarn::PrimaryKey& key, Receiver* receiver) {
      cache_->findCreate(key, Tarn::SecondaryKey{}, kType, receiver);
    });
  }

 private:
  template <typename Issue>
  void inFlight(const std::vector<uint64_t>& ids, Issue&& issue) {
    Pt::SmartPointer<Receiver> receiver(new Receiver(values_));
    for (const uint64_t id : ids) {
      // Refill in batches rather than waking this thread for every answer.
      if (receiver->pending.load() >= kInFlight) receiver->waitBelow(kInFlight - kInFlight / 4);
      receiver->pending.fetch_add(1);
      issue(Tarn::PrimaryKey::FromBytes(KeyOf(id).bytes, kKeySize), receiver.get());
    }
    receiver->waitBelow(1);
    if (receiver->wrong()) Fail("tarn: a read failed or returned wrong bytes");
  }

  std::wstring path_;
  const Values& values_;
  std::unique_ptr<Tarn::Cache> cache_;
};

}  // namespace

std::unique_ptr<Library> MakeTarn(const std::string& folder, const Values& values) {
  return std::make_unique<TarnLibrary>(folder, values);
}

}  // namespace Compare
