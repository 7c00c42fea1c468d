// tarn-inspect: shows what a cache file holds and checks it, without the
// library's cache and without taking the file's lock.
//
//   tarn-inspect info FILE [--json]      header, types, extents, space figures
//   tarn-inspect entries FILE [--json]   one line per live entry
//   tarn-inspect verify FILE [--json]    "ok" and a summary, or why it fails
//
// Exit status: 0 when the file loads, 1 when it cannot be opened or read or
// is rejected, 2 for bad arguments.
#include <cstring>
#include <iostream>
#include <new>
#include <optional>
#include <string>
#include <string_view>

#include "Inspector.h"

namespace {

using namespace TarnInspect;

enum class Command { kInfo, kEntries, kVerify };

struct Arguments {
  Command command = Command::kInfo;
  std::string path;
  bool json = false;
};

constexpr const char* kUsage =
    "usage: tarn-inspect COMMAND FILE [--json]\n"
    "\n"
    "Commands:\n"
    "  info      header fields, types, extents and how the space is used\n"
    "  entries   every live entry: slot, data range, type and keys\n"
    "  verify    run the checks of an open: \"ok\" (exit 0) or the reason (exit 1)\n"
    "\n"
    "The file is opened read-only and never locked or written.\n";

std::optional<Command> CommandNamed(std::string_view name) {
  if (name == "info") return Command::kInfo;
  if (name == "entries") return Command::kEntries;
  if (name == "verify") return Command::kVerify;
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
    } else {
      arguments.path = argument;
    }
  }
  if (!command || positional != 2) return std::nullopt;
  arguments.command = *command;
  return arguments;
}

int Run(const Arguments& arguments) {
  try {
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
