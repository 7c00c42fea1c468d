// LMDB as a user would run it for a cache: MDB_NOSYNC, so a write
// transaction commits without a sync and durability comes from
// mdb_env_sync, which the load calls once at its end (as Tarn's commit).
// Reads run one read-only transaction each (reset and renewed) and use the
// value where it lies in the map, without a copy.
#include <lmdb.h>
#include <sys/stat.h>

#include "Workload.h"

namespace Compare {

namespace {

constexpr size_t kMapSlack = size_t{1} << 30;

void Check(int status, const char* what) {
  if (status != MDB_SUCCESS) Fail(std::string("lmdb: ") + what + ": " + mdb_strerror(status));
}

MDB_val ValOf(const void* bytes, size_t size) {
  return MDB_val{size, const_cast<void*>(bytes)};
}

class LmdbLibrary : public Library {
 public:
  LmdbLibrary(const std::string& folder, const Values& values)
      : folder_(folder + "/lmdb"), values_(values) {}
  ~LmdbLibrary() override { close(); }

  void create() override {
    ::mkdir(folder_.c_str(), 0755);
    open();
  }
  void open() override {
    Check(mdb_env_create(&env_), "mdb_env_create");
    Check(mdb_env_set_mapsize(env_, kMapSlack + size_t{200'000} * (values_.size() + 64)),
          "mdb_env_set_mapsize");
    Check(mdb_env_open(env_, folder_.c_str(), MDB_NOSYNC, 0644), "mdb_env_open");
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
    Check(mdb_dbi_open(txn, nullptr, 0, &dbi_), "mdb_dbi_open");
    Check(mdb_txn_commit(txn), "mdb_txn_commit");
    Check(mdb_txn_begin(env_, nullptr, MDB_RDONLY, &reader_), "mdb_txn_begin");
    mdb_txn_reset(reader_);
  }
  void close() override {
    if (env_ == nullptr) return;
    mdb_txn_abort(reader_);
    mdb_env_close(env_);
    env_ = nullptr;
  }
  void load(uint32_t count) override {
    MDB_txn* txn = nullptr;
    Check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
    for (uint32_t id = 0; id < count; ++id) put(txn, id);
    Check(mdb_txn_commit(txn), "mdb_txn_commit");
    Check(mdb_env_sync(env_, 1), "mdb_env_sync");
  }
  void read(const std::vector<uint64_t>& ids) override {
    for (const uint64_t id : ids) {
      if (!get(id)) Fail("lmdb: a key is missing");
    }
  }
  void getOrCreate(const std::vector<uint64_t>& ids) override {
    for (const uint64_t id : ids) {
      if (get(id)) continue;
      SpendCreateCost();
      MDB_txn* txn = nullptr;
      Check(mdb_txn_begin(env_, nullptr, 0, &txn), "mdb_txn_begin");
      put(txn, id);
      Check(mdb_txn_commit(txn), "mdb_txn_commit");
    }
  }

 private:
  void put(MDB_txn* txn, uint64_t id) {
    const Key key = KeyOf(id);
    const std::span<const uint8_t> value = values_.of(id);
    MDB_val k = ValOf(key.bytes, kKeySize), v = ValOf(value.data(), value.size());
    Check(mdb_put(txn, dbi_, &k, &v, 0), "mdb_put");
  }
  // True when found with the right bytes.
  bool get(uint64_t id) {
    const Key key = KeyOf(id);
    MDB_val k = ValOf(key.bytes, kKeySize), v{};
    Check(mdb_txn_renew(reader_), "mdb_txn_renew");
    const int status = mdb_get(reader_, dbi_, &k, &v);
    const bool found = status == MDB_SUCCESS;
    if (found && !values_.matches(id, static_cast<const uint8_t*>(v.mv_data), v.mv_size)) {
      Fail("lmdb: wrong bytes");
    }
    if (!found && status != MDB_NOTFOUND) Check(status, "mdb_get");
    mdb_txn_reset(reader_);
    return found;
  }

  std::string folder_;
  const Values& values_;
  MDB_env* env_ = nullptr;
  MDB_dbi dbi_ = 0;
  MDB_txn* reader_ = nullptr;
};

}  // namespace

std::unique_ptr<Library> MakeLmdb(const std::string& folder, const Values& values) {
  return std::make_unique<LmdbLibrary>(folder, values);
}

}  // namespace Compare
