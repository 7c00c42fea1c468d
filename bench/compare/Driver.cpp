// Runs each library in a process of its own (so that none inherits another's
// page cache state in its heap or threads), the runs interleaved, and reports
// the median of the runs with their spread ((max - min) / median). A run
// that fails or hangs (it is stopped after kRunLimitSeconds) loses the phases it
// had not reported; the others are reported, marked when they have fewer
// runs than asked.
#include <sys/wait.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <tuple>

#include "Workload.h"

namespace Compare {

namespace {

struct ObjectSize {
  size_t bytes;
  uint32_t objects;
  const char* label;
  const char* tag;
};

constexpr ObjectSize kSizes[] = {{1024, 100'000, "1 KiB", "1k"}, {65536, 10'000, "64 KiB", "64k"}};
constexpr int kRunLimitSeconds = 60;
const std::vector<std::string> kLibraries = {"tarn", "lmdb", "rocksdb", "pread"};
const std::vector<std::string> kShown = {"Tarn", "LMDB", "RocksDB", "pread"};
const std::vector<std::string> kPhases = {"load", "reopen", "cold", "hot", "get-or-create"};
const std::vector<std::string> kPhaseNames = {
    "load: insert all, then make durable", "reopen of the file (opens/s)",
    "cold read: every key once, shuffled", "hot read: 4,096 keys, 20 passes",
    "get-or-create: 20% new (20 us each)"};

// (size index, phase, library) -> one figure per run
using Results = std::map<std::tuple<size_t, std::string, std::string>, std::vector<double>>;

struct Figure {
  double median = 0, low = 0, high = 0;
  size_t runs = 0;
  bool present() const { return median > 0; }
  double spread() const { return median > 0 ? (high - low) / median : 0; }
};

Figure FigureOf(const Results& results, size_t size, const std::string& phase,
                const std::string& library) {
  const auto found = results.find({size, phase, library});
  if (found == results.end() || found->second.empty()) return {};
  std::vector<double> runs = found->second;
  std::sort(runs.begin(), runs.end());
  return {runs[runs.size() / 2], runs.front(), runs.back(), runs.size()};
}

double TarnToBest(const Results& results, size_t size, const std::string& phase) {
  const double best = std::max(FigureOf(results, size, phase, "lmdb").median,
                               FigureOf(results, size, phase, "rocksdb").median);
  return best > 0 ? FigureOf(results, size, phase, "tarn").median / best : 0;
}

std::string Grouped(double value) {
  std::string digits = std::to_string(static_cast<long long>(value + 0.5));
  for (int at = static_cast<int>(digits.size()) - 3; at > 0; at -= 3) digits.insert(at, ",");
  return digits;
}

// Returns false when the run failed or was stopped.
bool RunOne(const std::string& self, const std::string& library, size_t size,
            const ObjectSize& objects, const std::string& data, Results& results) {
  std::filesystem::remove_all(data);
  std::filesystem::create_directories(data);
  const std::string command = "timeout --kill-after=5 " + std::to_string(kRunLimitSeconds) + " '" +
                              self + "' --worker " + library + " " + std::to_string(objects.bytes) +
                              " " + std::to_string(objects.objects) + " '" + data + "'";
  FILE* pipe = popen(command.c_str(), "r");
  if (pipe == nullptr) Fail("popen");
  char phase[64];
  double value = 0;
  while (std::fscanf(pipe, "%63s %lf", phase, &value) == 2) {
    results[{size, phase, library}].push_back(value);
  }
  const int status = pclose(pipe);
  std::filesystem::remove_all(data);
  if (status == 0) return true;
  std::fprintf(stderr, "compare: %s failed or hung (%s objects, exit status %d)\n", library.c_str(),
               objects.label, WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  return false;
}

void PrintTable(const Results& results, size_t size, uint32_t objects, int runs) {
  std::printf("\n%s objects, %s of them; ops/s, median of the runs (spread)\n", kSizes[size].label,
              Grouped(objects).c_str());
  std::printf("%-38s", "phase");
  for (const auto& name : kShown) std::printf("%20s", name.c_str());
  std::printf("%14s\n", "Tarn / best");
  for (size_t p = 0; p < kPhases.size(); ++p) {
    std::printf("%-38s", kPhaseNames[p].c_str());
    for (const auto& library : kLibraries) {
      const Figure figure = FigureOf(results, size, kPhases[p], library);
      char cell[64] = "-";
      if (figure.present()) {
        std::snprintf(cell, sizeof cell, "%s (%.0f%%)%s", Grouped(figure.median).c_str(),
                      100 * figure.spread(), figure.runs < static_cast<size_t>(runs) ? "*" : "");
      }
      std::printf("%20s", cell);
    }
    std::printf("%14.2f\n", TarnToBest(results, size, kPhases[p]));
  }
  const Figure floor = FigureOf(results, size, "cold", "pread");
  if (floor.present()) {
    std::printf("Tarn's cold read is %.0f%% of pread of the same bytes\n",
                100 * FigureOf(results, size, "cold", "tarn").median / floor.median);
  }
}

void WriteCsv(const Results& results, const std::string& path) {
  std::ofstream csv(path);
  csv << "object_bytes,objects,phase,library,median_ops_per_s,min_ops_per_s,max_ops_per_s,runs,"
         "tarn_to_best\n";
  for (size_t size = 0; size < std::size(kSizes); ++size) {
    for (const auto& phase : kPhases) {
      for (const auto& library : kLibraries) {
        const Figure figure = FigureOf(results, size, phase, library);
        if (!figure.present()) continue;
        csv << kSizes[size].bytes << ',' << kSizes[size].objects << ',' << phase << ',' << library
            << ',' << figure.median << ',' << figure.low << ',' << figure.high << ',' << figure.runs
            << ',' << TarnToBest(results, size, phase) << '\n';
      }
    }
  }
}

// One bar chart per object size, logarithmic, the phases side by side.
void WriteChart(const Results& results, const std::string& out) {
  std::ofstream script(out + "/compare.gp");
  script << "set terminal pngcairo size 1200,900\nset output 'compare.png'\n"
            "set multiplot layout 2,1\nset style data histogram\n"
            "set style histogram clustered gap 1\nset style fill solid 0.8 border -1\n"
            "set logscale y\nset ylabel 'operations per second'\nset grid ytics\n"
            "set datafile missing '-'\nset key outside right\n";
  for (size_t size = 0; size < std::size(kSizes); ++size) {
    const std::string data = std::string("compare-") + kSizes[size].tag + ".dat";
    std::ofstream rows(out + "/" + data);
    for (const auto& phase : kPhases) {
      rows << '"' << phase << '"';
      for (const auto& library : kLibraries) {
        const Figure figure = FigureOf(results, size, phase, library);
        rows << ' ' << (figure.present() ? std::to_string(figure.median) : "-");
      }
      rows << '\n';
    }
    script << "set title '" << kSizes[size].label << " objects'\nplot '" << data
           << "' using 2:xtic(1) title 'Tarn', '' using 3 title 'LMDB', "
              "'' using 4 title 'RocksDB', '' using 5 title 'pread'\n";
  }
  script << "unset multiplot\n";
  script.close();
  const std::string command = "cd '" + out + "' && gnuplot compare.gp";
  if (std::system(command.c_str()) != 0) std::fprintf(stderr, "compare: gnuplot failed\n");
}

}  // namespace

int RunDriver(const std::string& self, const std::string& outFolder, int runs, uint32_t divisor) {
  std::filesystem::create_directories(outFolder);
  const std::string out = std::filesystem::canonical(outFolder).string();
  Results results;
  int failures = 0;
  for (int run = 0; run < runs; ++run) {
    for (size_t size = 0; size < std::size(kSizes); ++size) {
      ObjectSize objects = kSizes[size];
      objects.objects /= divisor;
      for (size_t i = 0; i < kLibraries.size(); ++i) {
        // Each run starts with a different library.
        const std::string& library = kLibraries[(i + run) % kLibraries.size()];
        std::fprintf(stderr, "run %d of %d: %s, %s objects\n", run + 1, runs, library.c_str(),
                     objects.label);
        if (!RunOne(self, library, size, objects, out + "/data", results)) ++failures;
      }
    }
  }
  for (size_t size = 0; size < std::size(kSizes); ++size) {
    PrintTable(results, size, kSizes[size].objects / divisor, runs);
  }
  if (failures > 0) {
    std::printf("\n* fewer runs than asked: %d run(s) failed or hung (see above)\n", failures);
  }
  WriteCsv(results, out + "/compare.csv");
  WriteChart(results, out);
  std::printf("\nWrote %s/compare.csv and %s/compare.png\n", out.c_str(), out.c_str());
  return failures > 0 ? 1 : 0;
}

}  // namespace Compare
