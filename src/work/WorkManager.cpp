#include "work/WorkManager.h"

#include <algorithm>
#include <array>
#include <bitset>
#include <cassert>
#include <climits>
#include <exception>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "core/ClientException.h"
#include "core/ConfigRules.h"
#include "core/RaiseSites.h"
#include "pt/CondVar.h"
#include "pt/Mutex.h"

namespace Tarn {
namespace {

using RequestList = std::list<Pt::SmartPointer<WorkRequest>>;

constexpr int kPriorities = 3;

// Two owners may use the same request ids, so a request is known by both.
struct RequestKey {
  int32_t owner;
  int32_t request;
  auto operator<=>(const RequestKey&) const = default;  // NOLINT(modernize-use-nullptr)
};

RequestKey KeyOf(const WorkRequest& request) {
  return {request.ownerId(), request.requestId()};
}

// Where a queued request waits.
struct Place {
  RequestList::iterator position;
  int32_t priority;
};

// The pool's process-wide state.
//
// Invariants, with `mu` held (CheckInvariants asserts them in debug builds):
//  - every queued request is in exactly one of `queues` and has exactly one
//    `byId` entry, under its {owner, request id}, that names its position
//    there and that queue's priority;
//  - bit p of `nonEmpty` is set exactly when queues[p] is not empty;
//  - threads[0, threadCount) is the running set and the rest is null; a set
//    runs exactly when `users` is above 0;
//  - `running` has a positive count for every owner whose requests a worker
//    has taken and not yet finished (run and released), and nothing else.
//
// A worker keeps serving while it belongs to the running set. The last stop
// empties the set under `mu`, so every worker of it leaves at its next look,
// and joins the threads once `mu` is released: a worker needs `mu` to leave.
struct State {
  Pt::Mutex mu;
  Pt::CondVar wake;     // for workers: a request was queued, or their set ended
  Pt::CondVar settled;  // for stops and starts: a request finished, or a join did
  std::array<RequestList, kPriorities> queues PT_GUARDED_BY(mu);
  std::bitset<kPriorities> nonEmpty PT_GUARDED_BY(mu);
  std::map<RequestKey, Place> byId PT_GUARDED_BY(mu);
  std::array<WorkManager*, kMaxWorkerThreads> threads PT_GUARDED_BY(mu){};
  int threadCount PT_GUARDED_BY(mu) = 0;
  // Workers that a last stop running on them could not join; the next last
  // stop on another thread joins them.
  std::vector<WorkManager*> retired PT_GUARDED_BY(mu);
  int users PT_GUARDED_BY(mu) = 0;
  int joiners PT_GUARDED_BY(mu) = 0;  // stops joining a set outside `mu`
  std::map<int32_t, int> running PT_GUARDED_BY(mu);
  // Read once, so that the default worker count stays the same for the life
  // of the process even if its processor affinity changes.
  const int processors = Pt::ProcessorCount();
};

// Never destroyed: a worker that is still running when the process exits
// (the application never stopped its last cache) must not find its lock gone.
State& TheState() {
  static State* const state = new State;
  return *state;
}

// The worker that the calling thread runs, or null on any other thread.
thread_local WorkManager* tWorker = nullptr;
// The owner of the request that the calling worker is running, from run()
// until the worker has released it: the release may destroy the owner, which
// then stops itself on this thread.
thread_local std::optional<int32_t> tRunningOwner;

void CheckInvariants([[maybe_unused]] State& s) PT_REQUIRES(s.mu) {
#ifndef NDEBUG
  // Beyond this many queued requests the walk over every request is skipped:
  // it would make each queue operation linear.
  constexpr size_t kFullCheckLimit = 512;
  size_t queued = 0;
  for (int p = 0; p < kPriorities; ++p) {
    assert(s.nonEmpty[p] == !s.queues[p].empty());
    queued += s.queues[p].size();
  }
  assert(queued == s.byId.size());
  if (queued <= kFullCheckLimit) {
    for (int p = 0; p < kPriorities; ++p) {
      for (auto it = s.queues[p].begin(); it != s.queues[p].end(); ++it) {
        auto entry = s.byId.find(KeyOf(**it));
        assert(entry != s.byId.end());
        assert(entry->second.position == it && entry->second.priority == p);
      }
    }
  }
  assert(s.threadCount >= 0 && s.threadCount <= kMaxWorkerThreads);
  for (int i = 0; i < kMaxWorkerThreads; ++i)
    assert((s.threads[i] != nullptr) == (i < s.threadCount));
  assert(s.users >= 0 && (s.users > 0) == (s.threadCount > 0));
  for (const auto& [owner, count] : s.running) assert(count > 0);
#endif
}

void RequirePriority(int32_t priority) {
  if (priority < 0 || priority >= kPriorities) {
    throw std::out_of_range("WorkManager: priority " + std::to_string(priority) +
                            " is not 0, 1 or 2");
  }
}

// Takes the request of `entry` out of its queue and the index.
Pt::SmartPointer<WorkRequest> Unqueue(State& s, std::map<RequestKey, Place>::iterator entry)
    PT_REQUIRES(s.mu) {
  const auto [position, priority] = entry->second;
  RequestList& queue = s.queues[priority];
  Pt::SmartPointer<WorkRequest> request = std::move(*position);
  queue.erase(position);
  s.byId.erase(entry);
  if (queue.empty()) s.nonEmpty.reset(priority);
  return request;
}

// Moves every queued request of `owner` to `dropped`. Its entries are
// adjacent in `byId`, which orders by owner first.
void DropQueued(State& s, int32_t owner, RequestList* dropped) PT_REQUIRES(s.mu) {
  const auto first = s.byId.lower_bound({owner, INT32_MIN});
  const auto last = s.byId.upper_bound({owner, INT32_MAX});
  for (auto entry = first; entry != last; ++entry) {
    const Place& place = entry->second;
    RequestList& queue = s.queues[place.priority];
    dropped->splice(dropped->end(), queue, place.position);
    if (queue.empty()) s.nonEmpty.reset(place.priority);
  }
  s.byId.erase(first, last);
}

// True while a worker runs a request of `owner`, not counting the one that
// the calling worker itself runs: waiting for that would never end.
bool OthersRunning(State& s, int32_t owner) PT_REQUIRES(s.mu) {
  const auto entry = s.running.find(owner);
  int count = entry == s.running.end() ? 0 : entry->second;
  if (tRunningOwner == owner) --count;
  return count > 0;
}

void EndRunning(State& s, int32_t owner) PT_REQUIRES(s.mu) {
  const auto entry = s.running.find(owner);
  assert(entry != s.running.end());
  if (--entry->second == 0) s.running.erase(entry);
  s.settled.broadcast();
}

bool InRunningSet(State& s, const WorkManager* worker) PT_REQUIRES(s.mu) {
  const auto end = s.threads.begin() + s.threadCount;
  return std::find(s.threads.begin(), end, worker) != end;
}

// Empties the running set and returns the threads to join once `mu` is
// released: the set's and those retired before. The calling worker, if it is
// one of them, cannot join itself; it is retired instead and leaves once its
// request is done.
std::vector<WorkManager*> EndSet(State& s) PT_REQUIRES(s.mu) {
  // Allocate first, so that a failure changes nothing.
  std::vector<WorkManager*> ending(s.retired);
  ending.insert(ending.end(), s.threads.begin(), s.threads.begin() + s.threadCount);
  s.retired.reserve(s.retired.size() + 1);

  s.retired.clear();
  const auto self = std::find(ending.begin(), ending.end(), tWorker);
  if (self != ending.end()) {
    ending.erase(self);
    s.retired.push_back(tWorker);
  }
  s.threads.fill(nullptr);
  s.threadCount = 0;
  ++s.joiners;
  s.wake.broadcast();
  return ending;
}

void JoinSet(State& s, const std::vector<WorkManager*>& ending) PT_EXCLUDES(s.mu) {
  for (WorkManager* worker : ending) {
    worker->join();
    delete worker;
  }
  Pt::MutexLock lock(s.mu);
  --s.joiners;
  s.settled.broadcast();
}

// Waits for a request, or for the end of `worker`'s set (then null). Counts
// the request as running for its owner. `finished` is the owner of the
// request that the worker has just finished, if any.
Pt::SmartPointer<WorkRequest> TakeNext(const WorkManager* worker, std::optional<int32_t> finished) {
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  if (finished) EndRunning(s, *finished);
  while (InRunningSet(s, worker) && s.nonEmpty.none()) s.wake.wait_(s.mu, -1);
  // Requests still queued stay for the next set of threads.
  if (!InRunningSet(s, worker)) return nullptr;

  int priority = kPriorities - 1;
  while (!s.nonEmpty[priority]) --priority;
  const RequestKey key = KeyOf(*s.queues[priority].front());
  ++s.running[key.owner];  // may allocate: before the request leaves its queue
  Pt::SmartPointer<WorkRequest> request = Unqueue(s, s.byId.find(key));
  CheckInvariants(s);
  return request;
}

// Reports an exception that escaped the request's own handler.
void PostForeign(const WorkRequest& request, const char* what) {
  std::wstring message = L"Work request " + std::to_wstring(request.requestId()) + L" of owner " +
                         std::to_wstring(request.ownerId()) +
                         L" ended with an exception that is not a Pt::Exception: ";
  // what() has no fixed encoding; ASCII survives, anything else is marked.
  for (const char* c = what; *c != '\0'; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    message.push_back(byte < 0x80 ? static_cast<wchar_t>(byte) : L'\uFFFD');
  }
  Pt::Exception::Post(Pt::Exception(Pt::ExReason{message.c_str(), kWorkRequestThrew.where, 1}));
}

// Runs `request` and releases it, with no lock held. No exception leaves: a
// worker that died would strand every request queued after it.
void RunRequest(Pt::SmartPointer<WorkRequest> request) {
  tRunningOwner = request->ownerId();
  try {
    try {
      request->run();
    } catch (...) {
      // Whatever run() threw, the request hears it: whoever waits on it must
      // be told, and only the request knows who that is.
      request->handleException(*CaughtAsPtException());
    }
  } catch (const Pt::Exception& error) {  // from handleException
    Pt::Exception::Post(error);
  } catch (const std::exception& error) {
    PostForeign(*request, error.what());
  } catch (...) {
    PostForeign(*request, "(of unknown type)");
  }
  request.reset();
  tRunningOwner.reset();
}

}  // namespace

void WorkManager::start(const Config& config) {
  State& s = TheState();
  const int count = EffectiveWorkerThreads(config.workerThreads, s.processors);
  const auto priority = Pt::Thread::Priority(EffectiveWorkerPriority(config.workerPriority));
  std::vector<WorkManager*> begun;
  std::exception_ptr failure;
  {
    Pt::MutexLock lock(s.mu);
    // Waiting for a join keeps one set of threads at a time. A worker must
    // not wait: the join may be waiting for that very worker.
    while (s.joiners > 0 && tWorker == nullptr) s.settled.wait_(s.mu, -1);
    if (++s.users > 1) return;
    try {
      // The new threads wait for `mu` before they look at the set.
      for (int i = 0; i < count; ++i) {
        std::unique_ptr<WorkManager> worker(new WorkManager);
        worker->priority(priority);
        worker->begin();
        s.threads[i] = worker.release();
        s.threadCount = i + 1;
      }
      CheckInvariants(s);
      return;
    } catch (...) {
      failure = std::current_exception();
      --s.users;
      begun = EndSet(s);
      CheckInvariants(s);
    }
  }
  JoinSet(s, begun);
  std::rethrow_exception(failure);
}

void WorkManager::stop(int32_t ownerId) {
  State& s = TheState();
  std::vector<WorkManager*> ending;
  for (;;) {
    // Declared before the lock, so released after it: a request's destructor
    // may call back into its owner.
    RequestList dropped;
    Pt::MutexLock lock(s.mu);
    DropQueued(s, ownerId, &dropped);
    CheckInvariants(s);
    if (!dropped.empty()) continue;  // release them, then look again
    if (OthersRunning(s, ownerId)) {
      // A running request may queue more of its owner's: look again after.
      s.settled.wait_(s.mu, -1);
      continue;
    }
    assert(s.users > 0);
    if (s.users == 0 || --s.users > 0) return;
    ending = EndSet(s);
    CheckInvariants(s);
    break;
  }
  JoinSet(s, ending);
}

void WorkManager::queue(const Pt::SmartPointer<WorkRequest>& request, int32_t priority) {
  RequirePriority(priority);
  if (!request) throw std::invalid_argument("WorkManager::queue: null request");
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  const auto [entry, added] = s.byId.try_emplace(KeyOf(*request));
  if (!added) throw std::invalid_argument("WorkManager::queue: request id already queued");
  RequestList& queue = s.queues[priority];
  try {
    queue.push_back(request);
  } catch (...) {
    s.byId.erase(entry);
    throw;
  }
  entry->second = {std::prev(queue.end()), priority};
  s.nonEmpty.set(priority);
  CheckInvariants(s);
  s.wake.signal();
}

Pt::SmartPointer<WorkRequest> WorkManager::remove(int32_t ownerId, int32_t requestId) {
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  const auto entry = s.byId.find({ownerId, requestId});
  if (entry == s.byId.end()) return nullptr;
  Pt::SmartPointer<WorkRequest> request = Unqueue(s, entry);
  CheckInvariants(s);
  return request;
}

void WorkManager::reprioritize(int32_t ownerId, int32_t requestId, int32_t priority) {
  RequirePriority(priority);
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  const auto entry = s.byId.find({ownerId, requestId});
  if (entry == s.byId.end() || entry->second.priority == priority) return;
  // Splicing moves the node itself: its position stays valid and no
  // reference changes hands. Workers need no wake-up, as no work was added.
  Place& place = entry->second;
  RequestList& from = s.queues[place.priority];
  RequestList& to = s.queues[priority];
  to.splice(to.end(), from, place.position);
  if (from.empty()) s.nonEmpty.reset(place.priority);
  s.nonEmpty.set(priority);
  place.priority = priority;
  CheckInvariants(s);
}

int WorkManager::threadCount() {
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  return s.threadCount;
}

int WorkManager::users() {
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  return s.users;
}

size_t WorkManager::queuedCount() {
  State& s = TheState();
  Pt::MutexLock lock(s.mu);
  return s.byId.size();
}

int WorkManager::run() {
  tWorker = this;
  std::optional<int32_t> finished;
  while (Pt::SmartPointer<WorkRequest> request = TakeNext(this, finished)) {
    finished = request->ownerId();
    RunRequest(std::move(request));
  }
  return 0;
}

}  // namespace Tarn
