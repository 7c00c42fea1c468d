// Start-up and shutdown of the platform layer.
//
// PlatformInit and PlatformUninit are counted: every init must be matched by
// one uninit. The first init whose Config asks for asynchronous file I/O
// starts the I/O engine and its completion threads; the last uninit stops them.
// The engine is chosen once, when it starts: when the kernel allows io_uring,
// reads go to io_uring and writes to a pool of threads doing pwrite/pwritev
// (measured faster for buffered writes); otherwise the pool does both.
//
// Thread-safety: any thread may call these; they serialise internally. The
// last PlatformUninit waits for every outstanding request of every device, so
// it must not be called from an I/O completion thread.
#pragma once

namespace Pt {

enum class IoEngineKind {
  Automatic,   // io_uring for reads and the pool for writes, else the pool
  IoUring,     // io_uring only; PlatformInit throws when it cannot be set up
  ThreadPool,  // the portable fallback
};

struct Config {
  // Start the asynchronous file I/O engine (PtIoDeviceFile needs it).
  bool asyncFileIo = false;
  IoEngineKind ioEngine = IoEngineKind::Automatic;
  // Completion threads of the engine; 0 picks the default.
  int ioThreads = 0;
};

// Throws Pt::ExSystem when the I/O engine was asked for and cannot start.
void PlatformInit(const Config& config);
void PlatformUninit();

// The engine now running: IoUring or ThreadPool, or Automatic when none runs.
IoEngineKind ActiveIoEngine();

}  // namespace Pt
