// tarn_compare: Tarn against LMDB and RocksDB on the same workload.
//
//   tarn_compare [--out DIR] [--runs N] [--divisor D]
//       runs every library (D divides the number of objects, for a quick
//       look) and writes DIR/compare.csv and DIR/compare.png
//   tarn_compare --worker LIBRARY OBJECT_BYTES OBJECTS FOLDER
//       the phases for one library, in this process
#include <unistd.h>
#include <cstdlib>
#include <cstring>
#include <string>

#include "Workload.h"

namespace {

int RunWorker(char** argv) {
  const std::string library = argv[0];
  const Compare::Values values(std::strtoul(argv[1], nullptr, 10));
  const auto count = static_cast<uint32_t>(std::strtoul(argv[2], nullptr, 10));
  const std::string folder = argv[3];
  std::unique_ptr<Compare::Library> store;
  if (library == "tarn") store = Compare::MakeTarn(folder, values);
  if (library == "lmdb") store = Compare::MakeLmdb(folder, values);
  if (library == "rocksdb") store = Compare::MakeRocks(folder, values);
  if (library == "pread") store = Compare::MakePread(folder, values);
  if (store == nullptr) Compare::Fail("no library " + library);
  Compare::RunPhases(*store, values, count, library == "pread");
  return 0;
}

std::string Self() {
  char path[4096];
  const ssize_t length = readlink("/proc/self/exe", path, sizeof path - 1);
  if (length <= 0) Compare::Fail("readlink /proc/self/exe");
  return std::string(path, static_cast<size_t>(length));
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 6 && std::strcmp(argv[1], "--worker") == 0) return RunWorker(argv + 2);
  std::string out = "compare-results";
  int runs = 3;
  uint32_t divisor = 1;
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string option = argv[i];
    if (option == "--out") out = argv[i + 1];
    if (option == "--runs") runs = std::atoi(argv[i + 1]);
    if (option == "--divisor") divisor = static_cast<uint32_t>(std::atoi(argv[i + 1]));
  }
  if (runs < 1 || divisor < 1) Compare::Fail("--runs and --divisor take a positive number");
  return Compare::RunDriver(Self(), out, runs, divisor);
}
