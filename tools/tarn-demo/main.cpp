// tarn-demo: an application that draws the Mandelbrot set tile by tile and
// gets every tile through a Tarn cache.
//
// Each 64x64 tile costs a few milliseconds to compute. The application asks
// the cache for all tiles at once with findCreate; a miss makes the factory
// compute the tile on one of the cache's worker threads, and the cache keeps
// the result in memory and in its file. Three phases show what that buys:
//   cold  a fresh cache file: every tile is computed, then committed;
//   warm  a new Cache on the same file: every tile is read back and decoded;
//   hot   the same Cache again: every tile comes from memory.
// Every figure printed is measured in this run.
//
// Usage: tarn-demo [--memcached HOST:PORT[,...]] [--cache FILE | FILE]
// Without a file the cache file lives in a new folder under the temporary
// directory and is removed at the end; a given file is replaced at the start
// and kept. The picture is written as mandelbrot.png in the current folder.
// --memcached gives the cache a shared tier on those servers: a second run
// with another cache file then takes its cold phase's tiles from the tier.
#include <stdlib.h>
#include <time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cmath>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "Png.h"
#include "tarn/tarn.h"
#ifdef TARN_DEMO_MEMCACHED
#include "tarn/MemcachedTier.h"
#endif

namespace {

namespace fs = std::filesystem;
using Clock = std::chrono::steady_clock;

// ---- The picture and its tiles -------------------------------------------

constexpr int kTileSize = 64;             // pixels along each side of a tile
constexpr int kColumns = 16, kRows = 12;  // tiles across and down
constexpr int kTiles = kColumns * kRows;
constexpr int kWidth = kColumns * kTileSize, kHeight = kRows * kTileSize;
constexpr int kTileBytes = kTileSize * kTileSize * 3;  // RGB, a byte per channel
constexpr int kMaxIterations = 2000;
// The part of the complex plane drawn: its left and top edges and the width
// of one pixel.
constexpr double kLeft = -2.2, kTop = 1.125, kPixel = 3.0 / kWidth;
const std::string kTileType = "mandelbrot-tile";

struct TileId {
  int column;
  int row;
};

// The colour of point (cx, cy): black inside the set, outside a smooth
// palette over the escape time.
void Shade(double cx, double cy, uint8_t* rgb) {
  double x = 0, y = 0;
  int n = 0;
  for (; n < kMaxIterations && x * x + y * y <= 256.0; ++n) {
    const double nextX = x * x - y * y + cx;
    y = 2 * x * y + cy;
    x = nextX;
  }
  if (n == kMaxIterations) {
    rgb[0] = rgb[1] = rgb[2] = 0;
    return;
  }
  const double smooth = n + 1 - std::log2(std::log2(x * x + y * y) / 2);
  const double phase = 0.35 * std::sqrt(smooth);
  const double offsets[3] = {0.0, 0.15, 0.3};
  for (int c = 0; c < 3; ++c) {
    const double level = 0.5 + 0.5 * std::cos(6.283185307179586 * (phase + offsets[c]));
    rgb[c] = static_cast<uint8_t>(255.0 * level);
  }
}

// The RGB pixels of one tile, row by row.
std::vector<uint8_t> RenderTile(TileId id) {
  std::vector<uint8_t> pixels(kTileBytes);
  for (int y = 0; y < kTileSize; ++y) {
    const double cy = kTop - (id.row * kTileSize + y) * kPixel;
    for (int x = 0; x < kTileSize; ++x) {
      const double cx = kLeft + (id.column * kTileSize + x) * kPixel;
      Shade(cx, cy, &pixels[(y * kTileSize + x) * 3]);
    }
  }
  return pixels;
}

// A tile's primary key names the drawing and the tile, e.g.
// "mandelbrot 2000 07,03" for column 7, row 3.
Tarn::PrimaryKey TileKey(TileId id) {
  char text[33];
  const int length = std::snprintf(text, sizeof text, "mandelbrot %d %02d,%02d", kMaxIterations,
                                   id.column, id.row);
  return Tarn::PrimaryKey::FromBytes(text, length);
}

// The tile whose key is `key`, if it is one.
std::optional<TileId> TileOf(const Tarn::PrimaryKey& key) {
  TileId id{};
  const std::string text(key.view());
  if (std::sscanf(text.c_str(), "mandelbrot %*d %d,%d", &id.column, &id.row) != 2) return {};
  if (id.column < 0 || id.column >= kColumns || id.row < 0 || id.row >= kRows) return {};
  if (!(TileKey(id) == key)) return {};
  return id;
}

// CPU time the calling thread has used, in nanoseconds.
int64_t ThreadCpuNanoseconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return int64_t{now.tv_sec} * 1000000000 + now.tv_nsec;
}

[[noreturn]] void Fail(const wchar_t* message, int line) {
  throw Pt::Exception(Pt::ExReason{message, Pt::ExWhere{__FILE__, line}, 1});
}

// ---- The factory: computes tiles and rebuilds them from bytes --------------

class TileFactory final : public Tarn::CacheableFactory {
 public:
  Pt::SmartPointer<Tarn::Cacheable> create(const Tarn::PrimaryKey& key) override {
    const std::optional<TileId> id = TileOf(key);
    if (!id) Fail(L"not the key of a tile", __LINE__);
    created_.fetch_add(1);
    const int64_t start = ThreadCpuNanoseconds();
    const std::vector<uint8_t> pixels = RenderTile(*id);
    computeNanoseconds_.fetch_add(ThreadCpuNanoseconds() - start);
    return Tarn::Cacheable::Create(kTileType, Tarn::Buffer::Create(kTileBytes, pixels.data()));
  }

  Pt::SmartPointer<Tarn::Cacheable> decode(const Tarn::PrimaryKey& /*key*/,
                                           const Pt::SmartPointer<Tarn::Buffer>& data) override {
    if (!data || data->length() != kTileBytes) Fail(L"stored tile has the wrong size", __LINE__);
    decoded_.fetch_add(1);
    return Tarn::Cacheable::Create(kTileType, data);
  }

  const std::string& getType() const override { return kTileType; }

  int created() const { return created_.load(); }
  int decoded() const { return decoded_.load(); }
  // CPU time spent computing tiles, summed over the worker threads.
  int64_t computeNanoseconds() const { return computeNanoseconds_.load(); }

 private:
  std::atomic<int> created_{0};
  std::atomic<int> decoded_{0};
  std::atomic<int64_t> computeNanoseconds_{0};
};

// ---- The receivers: gather the tiles of one phase into a picture -----------

// An exception as one line: its message, where it was raised, and its causes.
std::string Describe(const Pt::Exception& error) {
  std::string text;
  for (const Pt::Exception* e = &error; e != nullptr; e = e->nested()) {
    if (e != &error) text += "; caused by: ";
    text += e->what();
    text += " (" + std::string(e->where().file ? e->where().file : "?") + ":" +
            std::to_string(e->where().line) + ")";
  }
  return text;
}

// The tiles of one phase as they arrive on the cache's threads. Shared by the
// phase's receivers, so it lives as long as the last of them.
class Gathering {
 public:
  explicit Gathering(int expected)
      : outstanding_(expected), pixels_(size_t{kWidth} * kHeight * 3) {}

  void place(TileId id, const Pt::SmartPointer<Tarn::Buffer>& data) {
    if (!data || data->length() != kTileBytes) return fail(id, "tile of the wrong size");
    std::lock_guard<std::mutex> lock(mutex_);
    for (int y = 0; y < kTileSize; ++y) {
      const int at = (id.row * kTileSize + y) * kWidth + id.column * kTileSize;
      std::copy_n(data->bytes() + y * kTileSize * 3, kTileSize * 3, &pixels_[at * 3]);
    }
    settle();
  }

  void fail(TileId id, const std::string& why) {
    std::lock_guard<std::mutex> lock(mutex_);
    if (error_.empty()) {
      error_ = "tile " + std::to_string(id.column) + "," + std::to_string(id.row) + ": " + why;
    }
    settle();
  }

  // The picture once every tile has arrived. Throws std::runtime_error with the
  // first failure, or when the tiles take longer than `limit`.
  std::vector<uint8_t> wait(std::chrono::seconds limit) {
    std::unique_lock<std::mutex> lock(mutex_);
    if (!settled_.wait_for(lock, limit, [this] { return outstanding_ == 0; })) {
      throw std::runtime_error(std::to_string(outstanding_) + " tiles did not arrive in time");
    }
    if (!error_.empty()) throw std::runtime_error(error_);
    return std::move(pixels_);
  }

 private:
  void settle() {
    if (--outstanding_ == 0) settled_.notify_all();
  }

  std::mutex mutex_;
  std::condition_variable settled_;
  int outstanding_;
  std::vector<uint8_t> pixels_;
  std::string error_;
};

class TileReceiver final : public Tarn::CacheableReceiver {
 public:
  TileReceiver(std::shared_ptr<Gathering> gathering, TileId id)
      : gathering_(std::move(gathering)), id_(id) {}

  void found(int /*requestId*/, const Tarn::PrimaryKey& /*key*/,
             const Pt::SmartPointer<Tarn::Cacheable>& tile) override {
    gathering_->place(id_, tile->getData());
  }
  void cancelled(int /*requestId*/, const Tarn::PrimaryKey& /*key*/) override {
    gathering_->fail(id_, "the request was cancelled");
  }
  void failed(int /*requestId*/, const Tarn::PrimaryKey& /*key*/,
              const Pt::Exception& error) override {
    gathering_->fail(id_, Describe(error));
  }

 private:
  std::shared_ptr<Gathering> gathering_;
  TileId id_;
};

// Asks for every tile at once, then waits for all of them.
std::vector<uint8_t> RequestAllTiles(Tarn::Cache& cache) {
  const auto gathering = std::make_shared<Gathering>(kTiles);
  const auto secondary = Tarn::SecondaryKey::FromString("mandelbrot");
  for (int row = 0; row < kRows; ++row) {
    for (int column = 0; column < kColumns; ++column) {
      const TileId id{column, row};
      const Pt::SmartPointer<TileReceiver> receiver(new TileReceiver(gathering, id));
      cache.findCreate(TileKey(id), secondary, kTileType, receiver.get());
    }
  }
  return gathering->wait(std::chrono::seconds(50));
}

// ---- The phases ------------------------------------------------------------

struct Phase {
  explicit Phase(std::string phaseName) : name(std::move(phaseName)) {}

  std::string name;
  std::optional<double> openMs;  // when the phase opened the cache
  double tilesMs = 0;
  double commitMs = 0;
  double computeMs = 0;     // CPU time the factory spent computing tiles
  int created = 0;          // tiles the factory computed
  int decoded = 0;          // tiles the factory rebuilt from the file's or tier's bytes
  int fromTier = 0;         // tiles the shared tier (--memcached) held
  int stored = 0;           // entries the phase added to the cache file
  Tarn::Statistics counts;  // counters of this phase; file figures at its end
  std::vector<uint8_t> picture;
};

double Milliseconds(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

std::unique_ptr<Tarn::Cache> OpenCache(const fs::path& file,
                                       const Pt::SmartPointer<TileFactory>& factory,
                                       const Tarn::TierConfig& tier, Phase& phase) {
  Tarn::Config config{};
  config.memoryTarget = 32 << 20;  // room for every tile (2.3 MiB)
  config.memorySlack = 8 << 20;
  config.createIfMissing = true;
  const Clock::time_point start = Clock::now();
  const std::vector<Pt::SmartPointer<Tarn::CacheableFactory>> factories{factory};
  auto cache = std::make_unique<Tarn::Cache>(file, config, factories, tier);
  phase.openMs = Milliseconds(start, Clock::now());
  return cache;
}

Tarn::Statistics CountersSince(const Tarn::Statistics& before, const Tarn::Statistics& after) {
  Tarn::Statistics delta = after;
  delta.inserted -= before.inserted;
  delta.purged -= before.purged;
  delta.erased -= before.erased;
  delta.memoryHits -= before.memoryHits;
  delta.fileReads -= before.fileReads;
  delta.generated -= before.generated;
  return delta;
}

// Gets every tile through `cache`, commits, and measures both.
void RunPhase(Tarn::Cache& cache, const TileFactory& factory, Phase& phase) {
  Tarn::Statistics before, after;
  cache.statistics(before);
  const int created = factory.created(), decoded = factory.decoded();
  const int64_t computed = factory.computeNanoseconds();
  const uint64_t tierHits = cache.tierStatistics().hits;
  const Clock::time_point start = Clock::now();
  phase.picture = RequestAllTiles(cache);
  const Clock::time_point arrived = Clock::now();
  cache.commit();
  phase.tilesMs = Milliseconds(start, arrived);
  phase.commitMs = Milliseconds(arrived, Clock::now());
  cache.statistics(after);
  phase.counts = CountersSince(before, after);
  // The demo never erases, so new entries are the growth of the file's count.
  // (The cache's own `inserted` counter also counts objects read back from the
  // file into memory, which stores nothing new.)
  phase.stored = after.fileEntries - before.fileEntries;
  phase.created = factory.created() - created;
  phase.decoded = factory.decoded() - decoded;
  phase.fromTier = static_cast<int>(cache.tierStatistics().hits - tierHits);
  phase.computeMs = static_cast<double>(factory.computeNanoseconds() - computed) / 1e6;
}

std::vector<Phase> RunPhases(const fs::path& file, const Tarn::TierConfig& tier) {
  const Pt::SmartPointer<TileFactory> factory(new TileFactory);
  std::vector<Phase> phases{Phase("cold"), Phase("warm"), Phase("hot")};
  {
    const std::unique_ptr<Tarn::Cache> cache = OpenCache(file, factory, tier, phases[0]);
    RunPhase(*cache, *factory, phases[0]);
  }  // closes the file
  const std::unique_ptr<Tarn::Cache> cache = OpenCache(file, factory, tier, phases[1]);
  RunPhase(*cache, *factory, phases[1]);
  RunPhase(*cache, *factory, phases[2]);
  return phases;
}

// ---- Output ----------------------------------------------------------------

struct Row {
  std::string label;
  std::vector<std::string> cells;
};

// Labels left-aligned, cells right-aligned, two spaces between columns.
void PrintTable(const std::vector<Row>& rows) {
  size_t labelWidth = 0, cellWidth = 0;
  for (const Row& row : rows) {
    labelWidth = std::max(labelWidth, row.label.size());
    for (const std::string& cell : row.cells) cellWidth = std::max(cellWidth, cell.size());
  }
  for (const Row& row : rows) {
    std::printf("  %-*s", static_cast<int>(labelWidth), row.label.c_str());
    for (const std::string& cell : row.cells) {
      std::printf("  %*s", static_cast<int>(cellWidth), cell.c_str());
    }
    std::printf("\n");
  }
}

// 1234567 as "1,234,567".
std::string Grouped(int64_t value) {
  std::string digits = std::to_string(value);
  for (int at = static_cast<int>(digits.size()) - 3; at > (value < 0 ? 1 : 0); at -= 3) {
    digits.insert(static_cast<size_t>(at), ",");
  }
  return digits;
}

std::string Ms(double milliseconds) {
  char text[32];
  std::snprintf(text, sizeof text, "%.2f ms", milliseconds);
  return text;
}

template <class Cell>
Row MakeRow(const std::string& label, const std::vector<Phase>& phases, Cell cell) {
  Row row{label, {}};
  for (const Phase& phase : phases) row.cells.push_back(cell(phase));
  return row;
}

void PrintPhases(const std::vector<Phase>& phases) {
  auto count = [](auto field) { return [field](const Phase& p) { return Grouped(field(p)); }; };
  PrintTable({
      MakeRow("", phases, [](const Phase& p) { return p.name; }),
      MakeRow("open the cache", phases,
              [](const Phase& p) { return p.openMs ? Ms(*p.openMs) : "-"; }),
      MakeRow("get " + std::to_string(kTiles) + " tiles", phases,
              [](const Phase& p) { return Ms(p.tilesMs); }),
      MakeRow("commit", phases, [](const Phase& p) { return Ms(p.commitMs); }),
      MakeRow("tiles computed by the factory", phases, count([](auto& p) { return p.created; })),
      MakeRow("CPU time computing them", phases, [](const Phase& p) { return Ms(p.computeMs); }),
      MakeRow("tiles read from the file", phases,
              count([](auto& p) { return p.decoded - p.fromTier; })),
      MakeRow("tiles from the shared tier", phases, count([](auto& p) { return p.fromTier; })),
      MakeRow("tiles found in memory", phases, count([](auto& p) { return p.counts.memoryHits; })),
      MakeRow("new entries stored", phases, count([](auto& p) { return p.stored; })),
      MakeRow("entries in file", phases, count([](auto& p) { return p.counts.fileEntries; })),
      MakeRow("file size (bytes)", phases, count([](auto& p) { return p.counts.fileSize; })),
  });
  std::printf("  (counts are those of the phase; file entries and size at its end)\n");
}

// Whether the cache's counters agree with what the factory saw: a generate
// request for every tile computed, a file read for every tile decoded.
bool CountersAgree(const Phase& phase) {
  const bool agree = phase.counts.generated == phase.created &&
                     phase.counts.fileReads + phase.fromTier == phase.decoded;
  if (!agree) {
    std::printf(
        "%s phase: the cache counted %d generated and %d file reads, the factory %d and %d\n",
        phase.name.c_str(), phase.counts.generated, phase.counts.fileReads, phase.created,
        phase.decoded - phase.fromTier);
  }
  return agree;
}

// Whether the later phases computed nothing and drew the cold phase's picture,
// and every phase's counters agree with the factory.
bool Verify(const std::vector<Phase>& phases) {
  bool good = CountersAgree(phases[0]);
  for (size_t i = 1; i < phases.size(); ++i) {
    const Phase& phase = phases[i];
    const bool same = phase.picture == phases[0].picture;
    std::printf("%s picture: %s\n", phase.name.c_str(),
                same ? "identical to the cold one, byte for byte" : "DIFFERS from the cold one");
    if (phase.created != 0) {
      std::printf("%s phase: %d tiles computed again, expected none\n", phase.name.c_str(),
                  phase.created);
    }
    good = CountersAgree(phase) && good && same && phase.created == 0;
  }
  return good;
}

// ---- Where the files go ----------------------------------------------------

struct Workspace {
  fs::path cacheFile;
  std::string memcached;  // --memcached: "host:port,host:port"; empty for none
  fs::path picture = fs::absolute("mandelbrot.png");
  bool scratch = false;
};

// tarn-demo [--memcached HOST:PORT[,...]] [--cache FILE | FILE]
bool ParseOptions(int argc, char** argv, Workspace& space) {
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    if (arg == "--memcached" && i + 1 < argc) {
      space.memcached = argv[++i];
    } else if (arg == "--cache" && i + 1 < argc) {
      space.cacheFile = argv[++i];
    } else if (arg.rfind("--", 0) != 0 && space.cacheFile.empty()) {
      space.cacheFile = arg;
    } else {
      return false;
    }
  }
  return true;
}

std::optional<Workspace> MakeWorkspace(int argc, char** argv) {
  Workspace space;
  if (!ParseOptions(argc, argv, space)) {
    std::fprintf(stderr, "usage: tarn-demo [--memcached HOST:PORT[,...]] [--cache FILE | FILE]\n");
    return {};
  }
  if (!space.cacheFile.empty()) return space;
  std::string folder = (fs::temp_directory_path() / "tarn-demo-XXXXXX").string();
  if (mkdtemp(folder.data()) == nullptr) {
    std::perror("tarn-demo: mkdtemp");
    return {};
  }
  space.cacheFile = fs::path(folder) / "tiles.tarn";
  space.scratch = true;
  return space;
}

// The shared tier that --memcached names (none without it), with the demo's
// own namespace; a generous deadline, as a demo's servers may be far away.
Tarn::TierConfig MakeTier(const Workspace& space) {
  Tarn::TierConfig tier;
  if (space.memcached.empty()) return tier;
#ifdef TARN_DEMO_MEMCACHED
  Tarn::MemcachedTierConfig servers;
  std::string list = space.memcached;
  for (std::size_t comma; (comma = list.find(',')) != std::string::npos; list.erase(0, comma + 1)) {
    servers.servers.push_back(list.substr(0, comma));
  }
  servers.servers.push_back(list);
  tier.tier = Tarn::MakeMemcachedTier(servers);
  tier.keyNamespace = "tarn-demo";
  tier.deadline = std::chrono::milliseconds(100);
  std::printf("shared tier: memcached on %s\n\n", space.memcached.c_str());
#else
  throw std::runtime_error("--memcached: this build has no libtarn-memcached");
#endif
  return tier;
}

// Waits until what the phases published has reached the servers, so that
// the next run finds it.
void FinishTier(const Tarn::TierConfig& tier) {
#ifdef TARN_DEMO_MEMCACHED
  if (auto* memcached = dynamic_cast<Tarn::MemcachedTier*>(tier.tier.get())) {
    memcached->drainPublishes(std::chrono::seconds(30));
  }
#else
  (void)tier;
#endif
}

// Sets `pictureWritten` once the picture is in its file.
int RunDemo(const Workspace& space, bool& pictureWritten) {
  std::printf("Mandelbrot set, %dx%d pixels in %d tiles of %dx%d, up to %d iterations a pixel\n",
              kWidth, kHeight, kTiles, kTileSize, kTileSize, kMaxIterations);
  std::printf("cache file: %s (%u processors)\n\n", space.cacheFile.c_str(),
              std::thread::hardware_concurrency());
  if (fs::exists(space.cacheFile)) {
    std::printf("replacing the existing cache file so that the cold phase starts empty\n");
    Tarn::DestroyCacheFile(space.cacheFile.wstring().c_str());
  }
  const Tarn::TierConfig tier = MakeTier(space);
  const std::vector<Phase> phases = RunPhases(space.cacheFile, tier);
  FinishTier(tier);
  PrintPhases(phases);
  std::printf("\n");
  const bool good = Verify(phases);
  TarnDemo::WritePng(space.picture, kWidth, kHeight, phases[0].picture);
  pictureWritten = true;
  return good ? 0 : 1;
}

}  // namespace

int main(int argc, char** argv) {
  const std::optional<Workspace> space = MakeWorkspace(argc, argv);
  if (!space) return 2;
  int status = 1;
  bool pictureWritten = false;
  try {
    status = RunDemo(*space, pictureWritten);
  } catch (const Pt::Exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "tarn-demo: %s\n", Describe(error).c_str());
  } catch (const std::exception& error) {
    std::fflush(stdout);
    std::fprintf(stderr, "tarn-demo: %s\n", error.what());
  }
  if (space->scratch) {
    std::error_code ignored;
    fs::remove_all(space->cacheFile.parent_path(), ignored);
    std::printf("removed the cache file\n");
  }
  if (pictureWritten) std::printf("picture: %s\n", space->picture.c_str());
  return status;
}
