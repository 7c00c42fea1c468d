// RocksDB with its defaults, a block cache large enough for the hot keys,
// and writes to its log without a sync; the load ends with SyncWAL (as
// Tarn's commit). Reads pin the value where RocksDB holds it.
#include <rocksdb/cache.h>
#include <rocksdb/db.h>
#include <rocksdb/table.h>

#include "Workload.h"

namespace Compare {

namespace {

void Check(const rocksdb::Status& status, const char* what) {
  if (!status.ok()) Fail(std::string("rocksdb: ") + what + ": " + status.ToString());
}

rocksdb::Slice SliceOf(const Key& key) {
  return rocksdb::Slice(reinterpret_cast<const char*>(key.bytes), kKeySize);
}

class RocksLibrary : public Library {
 public:
  RocksLibrary(const std::string& folder, const Values& values)
      : folder_(folder + "/rocksdb"), values_(values) {
    rocksdb::BlockBasedTableOptions table;
    table.block_cache = rocksdb::NewLRUCache(2 * kHotKeys * (values.size() + 64));
    options_.table_factory.reset(rocksdb::NewBlockBasedTableFactory(table));
    options_.create_if_missing = true;
  }
  ~RocksLibrary() override { close(); }

  void create() override { open(); }
  void open() override {
    rocksdb::DB* db = nullptr;
    Check(rocksdb::DB::Open(options_, folder_, &db), "open");
    db_.reset(db);
  }
  void close() override {
    if (db_ != nullptr) Check(db_->Close(), "close");
    db_.reset();
  }
  void load(uint32_t count) override {
    for (uint32_t id = 0; id < count; ++id) put(id);
    Check(db_->SyncWAL(), "SyncWAL");
  }
  void read(const std::vector<uint64_t>& ids) override {
    for (const uint64_t id : ids) {
      if (!get(id)) Fail("rocksdb: a key is missing");
    }
  }
  void getOrCreate(const std::vector<uint64_t>& ids) override {
    for (const uint64_t id : ids) {
      if (get(id)) continue;
      SpendCreateCost();
      put(id);
    }
  }

 private:
  void put(uint64_t id) {
    const std::span<const uint8_t> value = values_.of(id);
    const rocksdb::Slice bytes(reinterpret_cast<const char*>(value.data()), value.size());
    Check(db_->Put(rocksdb::WriteOptions(), SliceOf(KeyOf(id)), bytes), "Put");
  }
  bool get(uint64_t id) {
    rocksdb::PinnableSlice value;
    const rocksdb::Status status =
        db_->Get(rocksdb::ReadOptions(), db_->DefaultColumnFamily(), SliceOf(KeyOf(id)), &value);
    if (status.IsNotFound()) return false;
    Check(status, "Get");
    if (!values_.matches(id, reinterpret_cast<const uint8_t*>(value.data()), value.size())) {
      Fail("rocksdb: wrong bytes");
    }
    return true;
  }

  std::string folder_;
  const Values& values_;
  rocksdb::Options options_;
  std::unique_ptr<rocksdb::DB> db_;
};

}  // namespace

std::unique_ptr<Library> MakeRocks(const std::string& folder, const Values& values) {
  return std::make_unique<RocksLibrary>(folder, values);
}

}  // namespace Compare
