// The crash suite's program: GoogleTest's main, or the writer that the
// suite starts and kills when called with kWriterFlag.
#include <gtest/gtest.h>

#include <cstring>

#include "crash/CrashWriter.h"

int main(int argc, char** argv) {
  if (argc > 1 && std::strcmp(argv[1], TarnCrash::kWriterFlag) == 0) {
    return TarnCrash::RunWriter(argc, argv);
  }
  testing::InitGoogleTest(&argc, argv);
  return RUN_ALL_TESTS();
}
