// Test seam: makes the real device fail, shorten or hold back chosen requests.
//
// Off by default. While no rule is set, the device pays one relaxed atomic
// load per request. Rules are checked when a request leaves the device's
// sequencer for the engine, so a held request still blocks later requests
// that overlap it, exactly as one that is slow in the kernel would. Failures
// are delivered through ioFailed on an I/O thread, like real ones.
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
  enum class Kind { Any, Read, Write };
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
  // Applies the rules to a request about to start; true when it is held.
  static bool Intercept(IoRequest* request);
  static int RingSetupError();

 private:
  static std::atomic<bool> armed_;
};

}  // namespace Pt
