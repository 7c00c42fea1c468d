// What every library in the comparison is asked to do, and the interface
// each one implements. Keys are 16 bytes; a value's first 8 bytes hold its
// key's number and the rest are random (incompressible) bytes, so that every
// read can be checked and no library gains from compression.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <vector>

namespace Compare {

constexpr size_t kKeySize = 16;
constexpr size_t kHotKeys = 4096;
constexpr int kHotPasses = 20;
constexpr int kInFlight = 64;  // Tarn's finds kept in flight
constexpr auto kCreateCost = std::chrono::microseconds(20);
constexpr double kNewKeyShare = 0.2;
constexpr uint32_t kMaxGetOrCreateOps = 20'000;

struct Key {
  uint8_t bytes[kKeySize];
};

Key KeyOf(uint64_t id);
uint64_t IdOfKey(const uint8_t* bytes);

// The value of every key, made from one pool of random bytes.
class Values {
 public:
  explicit Values(size_t size);
  size_t size() const { return size_; }
  // The value of `id`, valid until the next call from the same thread.
  std::span<const uint8_t> of(uint64_t id) const;
  bool matches(uint64_t id, const uint8_t* bytes, size_t length) const;

 private:
  size_t size_;
  std::vector<uint8_t> pool_;
};

// Busy-waits for the cost of making one object.
void SpendCreateCost();

[[noreturn]] void Fail(const std::string& what);

class Library {
 public:
  virtual ~Library() = default;
  // An empty store in the folder, open.
  virtual void create() = 0;
  virtual void open() = 0;
  virtual void close() = 0;
  // Inserts keys 0 .. count-1, then makes them durable.
  virtual void load(uint32_t count) = 0;
  // Reads every key of `ids`; each must be there with its bytes.
  virtual void read(const std::vector<uint64_t>& ids) = 0;
  // Finds each key, making and storing the ones that are missing.
  virtual void getOrCreate(const std::vector<uint64_t>& ids) = 0;
};

std::unique_ptr<Library> MakeTarn(const std::string& folder, const Values& values);
std::unique_ptr<Library> MakeLmdb(const std::string& folder, const Values& values);
std::unique_ptr<Library> MakeRocks(const std::string& folder, const Values& values);
std::unique_ptr<Library> MakePread(const std::string& folder, const Values& values);

// Runs the phases on one library in this process and prints "phase ops/s"
// lines; `floorOnly` runs only the load and the cold read.
void RunPhases(Library& library, const Values& values, uint32_t count, bool floorOnly);

// Runs every library in a process of its own, three times interleaved, and
// writes the table, the CSV and the chart into `outFolder`.
int RunDriver(const std::string& self, const std::string& outFolder, int runs, uint32_t divisor);

}  // namespace Compare
