// Test seam: makes the real device fail, shorten or hold back chosen requests,
// and does the same to the blocking file calls of SyncFile.
//
// Off by default. While no rule is set, the device pays one relaxed atomic
// load per request and SyncFile one per call. Rules are checked when a
// request leaves the device's sequencer for the engine, so a held request
// still blocks later requests that overlap it, exactly as one that is slow
// in the kernel would. Failures are delivered through ioFailed on an I/O
// thread, like real ones.
//
// A blocking call (the Sync* kinds, Lock, Unlink, Rename, SyncDir) is checked
// just before the system call: Fail makes the call fail with `error` without
// making it (the file untouched), Shorten makes the first read or write move
// at most `shortBytes` (the rest follows), Transient makes it see EINTR
// `transientCount` times, and HoldBack blocks the calling thread until the
// test releases it. Held calls and held requests share one queue: WaitHeld,
// HeldCount and ReleaseHeld count both, oldest first.
//
// For tests only; an application never calls it.
#pragma once

#include <atomic>
#include <cerrno>
#include <cstddef>
#include <cstdint>

#include "pt/IoRequest.h"

namespace Pt {

class IoFaultInjection {
 public:
  enum class Kind {
    Any,  // any request of the device (never a blocking call)
    Read,
    Write,
    // Blocking calls, matched only by their own kind. `offset` and `length`
    // match SyncRead and SyncWrite; the other kinds have neither.
    SyncOpen,    // SyncFile::Open of an existing file
    SyncCreate,  // SyncFile::Open in Mode::Create
    SyncRead,
    SyncWrite,
    SyncLength,
    Sync,  // SyncFile::sync (fdatasync)
    SyncTruncate,
    Lock,
    Unlink,
    Rename,
    SyncDir,     // SyncParentDirectory
    DeviceSync,  // the fdatasync of a device's flush() or sync()
  };
  enum class Action {
    Fail,       // ioFailed with `error`, the file untouched
    HoldBack,   // kept until ReleaseHeld
    Shorten,    // the first transfer moves at most `shortBytes`; the rest follows
    Transient,  // EAGAIN `transientCount` times, then carried out
  };

  struct Rule {
    Action action = Action::Fail;
    Kind kind = Kind::Any;
    int64_t offset = -1;  // -1: any offset; else the request's exact offset
    int length = -1;      // -1: any length; else the request's exact length
    int skip = 0;         // matching requests let through before the rule fires
    int count = 1;        // how many times it fires; -1: every time
    int error = EIO;
    int shortBytes = 1;
    int transientCount = 1;
  };

  // Adds a rule and returns its id. The first rule that fires on a request is
  // the only one applied to it.
  static int Add(const Rule& rule);
  // How many requests the rule has fired on.
  static int Fired(int ruleId);
  // Removes every rule and releases every held request.
  static void Clear();

  // Waits up to `timeoutMs` until at least `count` requests are held.
  static bool WaitHeld(size_t count, int timeoutMs = 10000);
  static size_t HeldCount();
  // Hands up to `count` held requests, oldest first, to the engine.
  static void ReleaseHeld(size_t count = SIZE_MAX);

  // Makes the next io_uring set-up fail with `error` (0: no longer).
  static void SimulateRingSetupFailure(int error);

  // Used by the platform.
  static bool Armed() noexcept { return armed_.load(std::memory_order_relaxed); }
  // Whether some rule may still fire on a request of `kind` (Read or
  // Write). A device that would bypass its engine asks first.
  static bool MayIntercept(Kind kind);
  // Applies the rules to a request about to start; true when it is held.
  static bool Intercept(IoRequest* request);

  // What a blocking call is to do: fail with `error` (when not 0), move at
  // most `shortBytes` in its first transfer (when not negative), and see
  // EINTR `transientErrors` times first.
  struct SyncOutcome {
    int error = 0;
    int64_t shortBytes = -1;
    int transientErrors = 0;
  };
  // Applies the rules to a blocking call about to be made; returns once the
  // call is no longer held. `offset` and `length` are -1 for calls that
  // have none.
  static SyncOutcome InterceptSync(Kind kind, int64_t offset = -1, int64_t length = -1);
  static int RingSetupError();

 private:
  static std::atomic<bool> armed_;
};

}  // namespace Pt
