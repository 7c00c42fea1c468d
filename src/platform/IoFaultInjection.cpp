#include "platform/IoFaultInjection.h"

#include <chrono>
#include <condition_variable>
#include <deque>
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

struct InjectionState {
  PlainMutex mutex;
  std::condition_variable heldChanged;
  std::vector<ActiveRule> rules PT_GUARDED_BY(mutex);
  std::deque<IoRequest*> held PT_GUARDED_BY(mutex);
  int ringSetupError PT_GUARDED_BY(mutex) = 0;
};

InjectionState& State() {
  static InjectionState state;
  return state;
}

bool Matches(const IoFaultInjection::Rule& rule, IoRequest& request) {
  const RequestState& state = IoRequestAccess::state(request);
  if (rule.kind == IoFaultInjection::Kind::Read && state.kind != IoKind::Read) return false;
  if (rule.kind == IoFaultInjection::Kind::Write && state.kind != IoKind::Write) return false;
  if (rule.offset >= 0 && rule.offset != request.offset()) return false;
  return rule.length < 0 || rule.length == request.length();
}

void Submit(const std::deque<IoRequest*>& requests) {
  for (IoRequest* request : requests) EnterEngine(request);
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
  std::deque<IoRequest*> released;
  {
    InjectionState& state = State();
    PlainLock guard(state.mutex);
    state.rules.clear();
    released.swap(state.held);
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
  std::deque<IoRequest*> released;
  {
    InjectionState& state = State();
    PlainLock guard(state.mutex);
    while (count-- > 0 && !state.held.empty()) {
      released.push_back(state.held.front());
      state.held.pop_front();
    }
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

bool IoFaultInjection::Intercept(IoRequest* request) {
  InjectionState& state = State();
  PlainLock guard(state.mutex);
  for (ActiveRule& active : state.rules) {
    Rule& rule = active.rule;
    if (rule.count == 0 || !Matches(rule, *request)) continue;
    if (rule.skip > 0) {
      --rule.skip;
      continue;
    }
    if (rule.count > 0) --rule.count;
    ++active.fired;
    RequestState& requestState = IoRequestAccess::state(*request);
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
        state.held.push_back(request);
        state.heldChanged.notify_all();
        return true;
    }
  }
  return false;
}

}  // namespace Pt
