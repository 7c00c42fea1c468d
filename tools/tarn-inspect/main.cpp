// tarn-inspect: shows what a cache file holds and checks it, without the
// library's cache and without taking the file's lock.
//
//   tarn-inspect info FILE [--json]      header, types, extents, space figures
//   tarn-inspect entries FILE [--json]   one line per live entry
//   tarn-inspect verify FILE [--json]    "ok" and a summary, or why it fails
//   tarn-inspect compact SRC DST         the live entries of SRC, with no gaps,
//                                        put in place of DST (which may be SRC)
//
// Exit status: 0 when the file loads (compact: when DST is written), 1 when
// it cannot be opened or read or is rejected, 2 for bad arguments.
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "Inspector.h"
#include "tarn/CacheFile.h"

namespace {

using namespace TarnInspect;

enum class Command { kInfo, kEntries, kVerify, kCompact };

struct Arguments {
  Command command = Command::kInfo;
  std::string path;
  std::string destination;  // compact only
  bool json = false;
};

constexpr const char* kUsage =
    "usage: tarn-inspect COMMAND FILE [--json]\n"
    "       tarn-inspect compact SRC DST\n"
    "\n"
    "Commands:\n"
    "  info      header fields, types, extents and how the space is used\n"
    "  entries   every live entry: slot, data range, type and keys\n"
    "  verify    run the checks of an open: \"ok\" (exit 0) or the reason (exit 1)\n"
    "  compact   write the live entries of SRC with no gaps and put the new file\n"
    "            in place of DST (which may be SRC) in one rename\n"
    "\n"
    "info, entries and verify open the file read-only and never lock or write it.\n"
    "compact locks SRC and DST as a cache does: it refuses a file a cache has open.\n";

std::optional<Command> CommandNamed(std::string_view name) {
  if (name == "info") return Command::kInfo;
  if (name == "entries") return Command::kEntries;
  if (name == "verify") return Command::kVerify;
  if (name == "compact") return Command::kCompact;
  return std::nullopt;
}

// Options may stand anywhere; exactly a command and a file must remain.
std::optional<Arguments> Parse(int argc, char** argv) {
  Arguments arguments;
  std::optional<Command> command;
  int positional = 0;
  for (int i = 1; i < argc; ++i) {
    const std::string_view argument = argv[i];
    if (argument == "--json") {
      arguments.json = true;
    } else if (argument.starts_with("-") && argument != "-") {
      return std::nullopt;
    } else if (positional++ == 0) {
      command = CommandNamed(argument);
      if (!command) return std::nullopt;
    } else if (positional == 2) {
      arguments.path = argument;
    } else {
      arguments.destination = argument;
    }
  }
  const int wanted = command == Command::kCompact ? 3 : 2;
  if (!command || positional != wanted || (arguments.json && command == Command::kCompact)) {
    return std::nullopt;
  }
  arguments.command = *command;
  return arguments;
}

// Compacts and says how the size changed.
void Compact(const Arguments& arguments) {
  const std::optional<std::wstring> source = Utf8ToWide(arguments.path);
  const std::optional<std::wstring> destination = Utf8ToWide(arguments.destination);
  if (!source || !destination) throw CannotOpen("a path is not valid UTF-8");
  const uint64_t before = Inspect(arguments.path, false).summary.fileLength;
  Tarn::CompactCacheFile(source->c_str(), destination->c_str());
  const Inspection after = Inspect(arguments.destination, false);
  std::cout << "compacted " << arguments.path << " (" << before << " bytes) to "
            << arguments.destination << " (" << after.summary.fileLength << " bytes, "
            << after.summary.liveEntries << " entries)\n";
}

int Run(const Arguments& arguments) {
  try {
    if (arguments.command == Command::kCompact) {
      Compact(arguments);
      return 0;
    }
    const Inspection inspection = Inspect(arguments.path, arguments.command == Command::kEntries);
    switch (arguments.command) {
      case Command::kInfo:
        PrintInfo(std::cout, inspection, arguments.json);
        break;
      case Command::kEntries:
        PrintEntries(std::cout, inspection, arguments.json);
        break;
      case Command::kVerify:
        PrintVerified(std::cout, inspection, arguments.json);
        break;
      case Command::kCompact:  // handled above
        break;
    }
    return 0;
  } catch (const CannotOpen& error) {
    std::cerr << "tarn-inspect: " << error.what() << "\n";
  } catch (const Pt::Exception& error) {
    // A script that asked verify for JSON gets the reason on stdout too.
    if (arguments.json && arguments.command == Command::kVerify) {
      PrintRejected(std::cout, arguments.path, error, true);
    }
    std::cerr << "tarn-inspect: ";
    PrintRejected(std::cerr, arguments.path, error, false);
  } catch (const std::bad_alloc&) {
    std::cerr << "tarn-inspect: " << arguments.path << ": out of memory\n";
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 2 && (std::strcmp(argv[1], "--help") == 0 || std::strcmp(argv[1], "-h") == 0)) {
    std::cout << kUsage;
    return 0;
  }
  const std::optional<Arguments> arguments = Parse(argc, argv);
  if (!arguments) {
    std::cerr << kUsage;
    return 2;
  }
  return Run(*arguments);
}
