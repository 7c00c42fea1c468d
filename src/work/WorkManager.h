// WorkManager: the process-wide pool of worker threads and its three queues.
//
// Every cache manager of the process registers with start() and leaves with
// stop(); the first start begins the threads (1 to 8), the last stop joins
// them. Requests wait in three FIFO queues, priority 2 served first, and are
// found by {owner id, request id}, so that one cache never withdraws, moves or
// unindexes another cache's request.
//
// Invariants: every queued request is in exactly one queue and has exactly one
// index entry naming its place there and its priority; a queue's bit in
// `nonEmpty` is set exactly when the queue holds a request.
//
// Thread-safety: all operations are static and may be called from any
// thread, also while the caller holds a cache manager's locks (the work
// manager's lock is taken inside them and never held while calling out).
// run() and handleException() are called with no lock of the work manager
// held.
#pragma once

#include <cstdint>

#include "pt/SmartPointer.h"
#include "pt/Thread.h"
#include "tarn/Config.h"
#include "work/WorkRequest.h"

namespace Tarn {

class WorkManager : public Pt::Thread {
 public:
  static constexpr int32_t kLowPriority = 0;
  static constexpr int32_t kNormalPriority = 1;
  static constexpr int32_t kHighPriority = 2;

  // Registers one more user; the first starts the threads with the worker
  // count and priority of `config`. A start that arrives while a stop is
  // joining the threads waits for it (except on a worker thread, which that
  // join may be waiting for). Throws Pt::ExSystem when a thread cannot be
  // started; the threads already started are joined and the registration is
  // undone.
  static void start(const Config& config);
  // Drops `ownerId`'s queued requests and unregisters one user; the last
  // user stops and joins the threads. Returns only when no request of
  // `ownerId` is running on a worker, unless called from that very worker
  // (then it waits for the others only). A last stop on a worker cannot join
  // that worker: it leaves the set, finishes its request, and the next last
  // stop on another thread joins it.
  static void stop(int32_t ownerId);
  // Appends `request` to the queue of `priority` (0, 1 or 2; anything else
  // throws std::out_of_range before changing anything) and wakes one worker.
  // A null request, or one whose {owner id, request id} is already queued,
  // throws std::invalid_argument.
  static void queue(const Pt::SmartPointer<WorkRequest>& request, int32_t priority);
  // Takes a queued request out of the queues; null when it is not queued
  // (never queued, already taken by a worker, or removed before).
  static Pt::SmartPointer<WorkRequest> remove(int32_t ownerId, int32_t requestId);
  // Moves a queued request to the back of another priority's queue; nothing
  // happens when it is not queued or already has that priority.
  static void reprioritize(int32_t ownerId, int32_t requestId, int32_t priority);

  // Worker threads of the running set (0 when idle), and registered users.
  static int threadCount();
  static int users();
  // Requests waiting in the queues, over every owner.
  static size_t queuedCount();

 private:
  WorkManager() : Pt::Thread(false) {}
  int run() override;
};

}  // namespace Tarn
