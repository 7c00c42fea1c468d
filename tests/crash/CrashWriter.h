// The writer of the kill -9 loop: a child process that writes to a cache
// through the public API until it is killed, logging each step (see
// CrashModel.h) to a side log.
#pragma once

#include <cstdint>
#include <string>

namespace TarnCrash {

// The first argument that makes the test program run as the writer.
inline constexpr const char* kWriterFlag = "--crash-writer";
// The type name of the writer's objects.
inline constexpr const char* kType = "rec";

// The optional last argument that gives the writer a shared tier: two
// writes in three then go through findCreate, served by the tier when it
// holds the key (logged "T key version") or generated and published.
inline constexpr const char* kTierFlag = "--tier";

// argv: program, kWriterFlag, cache file, log file, seed, first version,
// optionally kTierFlag.
// Writes until killed (or, as a safety net, for a while) and returns the
// process's exit status.
int RunWriter(int argc, char** argv);

}  // namespace TarnCrash
