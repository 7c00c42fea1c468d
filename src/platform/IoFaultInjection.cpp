#include "platform/IoFaultInjection.h"

#include <chrono>
#include <condition_variable>
#include <deque>
#include <set>
#include <vector>

#include "platform/IoEngine.h"
#include "platform/PlatformState.h"
#include "pt/PlainMutex.h"

namespace Pt {
namespace {

struct ActiveRule {
  IoFaultInjection::Rule rule;
  int fired = 0;
};

// A held request of the device, or (request null) a held blocking call,
// which waits until its ticket is released.
struct Held {
  IoRequest* request = nullptr;
  uint64_t ticket = 0;
};

struct InjectionState {
  PlainMutex mutex;
  std::condition_variable heldChanged;
  std::vector<ActiveRule> rules PT_GUARDED_BY(mutex);
  std::deque<Held> held PT_GUARDED_BY(mutex);
  uint64_t nextTicket PT_GUARDED_BY(mutex) = 1;
  std::set<uint64_t> releasedTickets PT_GUARDED_BY(mutex);
  int ringSetupError PT_GUARDED_BY(mutex) = 0;
};

InjectionState& State() {
  static InjectionState state;
  return state;
}

using Kind = IoFaultInjection::Kind;

// Whether `rule` applies to a request or call of `kind`: Any stands for the
// device's two kinds only.
bool Matches(const IoFaultInjection::Rule& rule, Kind kind, int64_t offset, int64_t length) {
  if (rule.kind == Kind::Any ? kind != Kind::Read && kind != Kind::Write : rule.kind != kind) {
    return false;
  }
  if (rule.offset >= 0 && rule.offset != offset) return false;
  return rule.length < 0 || rule.length == length;
}

// The first rule that fires on a request or call, counted as fired; null
// when none does. The caller holds the state's mutex.
ActiveRule* Fire(InjectionState& state, Kind kind, int64_t offset, int64_t length)
    PT_REQUIRES(state.mutex) {
  for (ActiveRule& active : state.rules) {
    IoFaultInjection::Rule& rule = active.rule;
    if (rule.count == 0 || !Matches(rule, kind, offset, length)) continue;
    if (rule.skip > 0) {
      --rule.skip;
      continue;
    }
    if (rule.count > 0) --rule.count;
    ++active.fired;
    return &active;
  }
  return nullptr;
}

// Hands held requests to the engine; held calls were released under the
// mutex already.
// Held requests released together reach the engine as one batch, the way a
// burst of requests queued at once would.
void Submit(const std::deque<Held>& released) {
  std::vector<IoRequest*> requests;
  for (const Held& held : released) {
    if (held.request != nullptr) requests.push_back(held.request);
  }
  if (!requests.empty()) EnterEngine(requests.data(), requests.size());
}

// Takes the oldest `count` entries of the held queue; the caller holds the
// mutex and submits what it returns after letting go of it.
std::deque<Held> TakeHeld(InjectionState& state, size_t count) PT_REQUIRES(state.mutex) {
  std::deque<Held> released;
  while (count-- > 0 && !state.held.empty()) {
    const Held held = state.held.front();
    state.held.pop_front();
    if (held.request == nullptr) state.releasedTickets.insert(held.ticket);
    released.push_back(held);
  }
  state.heldChanged.notify_all();
  return released;
}

}  // namespace

std::atomic<bool> IoFaultInjection::armed_{false};

int IoFaultInjection::Add(const Rule& rule) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  state.rules.push_back({rule, 0});
  armed_.store(true);
  return static_cast<int>(state.rules.size()) - 1;
}

int IoFaultInjection::Fired(int ruleId) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  if (ruleId < 0 || static_cast<size_t>(ruleId) >= state.rules.size()) return 0;
  return state.rules[static_cast<size_t>(ruleId)].fired;
}

void IoFaultInjection::Clear() {
  std::deque<Held> released;
  {
    InjectionState& state = State();
    PlainLock guard(state.mutex);
    state.rules.clear();
    released = TakeHeld(state, SIZE_MAX);
    armed_.store(false);
  }
  Submit(released);
}

bool IoFaultInjection::WaitHeld(size_t count, int timeoutMs) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (state.held.size() < count) {
    if (state.heldChanged.wait_until(guard.native(), deadline) == std::cv_status::timeout) {
      return state.held.size() >= count;
    }
  }
  return true;
}

size_t IoFaultInjection::HeldCount() {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  return state.held.size();
}

void IoFaultInjection::ReleaseHeld(size_t count) {
  std::deque<Held> released;
  {
    InjectionState& state = State();
    PlainLock guard(state.mutex);
    released = TakeHeld(state, count);
  }
  Submit(released);
}

void IoFaultInjection::SimulateRingSetupFailure(int error) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  state.ringSetupError = error;
}

int IoFaultInjection::RingSetupError() {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  return state.ringSetupError;
}

bool IoFaultInjection::MayIntercept(Kind kind) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  for (const ActiveRule& active : state.rules) {
    const Rule& rule = active.rule;
    if (rule.count != 0 && (rule.kind == kind || rule.kind == Kind::Any)) return true;
  }
  return false;
}

bool IoFaultInjection::Intercept(IoRequest* request) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  RequestState& requestState = IoRequestAccess::state(*request);
  const Kind kind = requestState.kind == IoKind::Read ? Kind::Read : Kind::Write;
  const ActiveRule* active = Fire(state, kind, request->offset(), request->length());
  if (active == nullptr) return false;
  const Rule& rule = active->rule;
  switch (rule.action) {
    case Action::Fail:
      requestState.injectedError = rule.error;
      return false;
    case Action::Shorten:
      requestState.shortenFirstTo = rule.shortBytes;
      return false;
    case Action::Transient:
      requestState.transientErrors = rule.transientCount;
      return false;
    case Action::HoldBack:
      state.held.push_back({request, 0});
      state.heldChanged.notify_all();
      return true;
  }
  return false;
}

IoFaultInjection::SyncOutcome IoFaultInjection::InterceptSync(Kind kind, int64_t offset,
                                                              int64_t length) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  const ActiveRule* active = Fire(state, kind, offset, length);
  SyncOutcome outcome;
  if (active == nullptr) return outcome;
  const Rule& rule = active->rule;
  switch (rule.action) {
    case Action::Fail:
      outcome.error = rule.error != 0 ? rule.error : EIO;
      break;
    case Action::Shorten:
      outcome.shortBytes = rule.shortBytes;
      break;
    case Action::Transient:
      outcome.transientErrors = rule.transientCount;
      break;
    case Action::HoldBack: {
      const uint64_t ticket = state.nextTicket++;
      state.held.push_back({nullptr, ticket});
      state.heldChanged.notify_all();
      while (state.releasedTickets.count(ticket) == 0) state.heldChanged.wait(guard.native());
      state.releasedTickets.erase(ticket);
      break;
    }
  }
  return outcome;
}

}  // namespace Pt
