#include "pt/Thread.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cassert>

#include "platform/RaiseSites.h"
#include "pt/Exception.h"

namespace Pt {
namespace {

// Nice values for the three priorities; the scheduler's normal level is 0.
int NiceValue(int priority) {
  switch (priority) {
    case Thread::Low:
      return 5;
    case Thread::High:
      return -5;
    default:
      return 0;
  }
}

}  // namespace

Thread::Thread(bool detached) : detached_(detached) {}

Thread::~Thread() { assert(!started_ || detached_); }

void Thread::begin() {
  const int error = pthread_create(&handle_, nullptr, &Thread::Start, this);
  if (error != 0) throw ExSystem(error, kRaiseThreadCreate);
  started_ = true;
  if (detached_) pthread_detach(handle_);
}

int Thread::join() {
  assert(started_ && !detached_);
  pthread_join(handle_, nullptr);
  started_ = false;
  return result_;
}

void Thread::priority(Priority priority) {
  priority_.store(priority);
  if (systemId_.load() != 0) applyPriority();
}

void Thread::applyPriority() {
  // On Linux the nice value is per thread; failure (no right to raise it)
  // leaves the thread at its current level.
  setpriority(PRIO_PROCESS, static_cast<id_t>(systemId_.load()), NiceValue(priority_.load()));
}

void* Thread::Start(void* self) {
  auto* thread = static_cast<Thread*>(self);
  thread->systemId_.store(static_cast<int>(gettid()));
  if (thread->priority_.load() != Normal) thread->applyPriority();
  // A detached thread's body may delete the object: touch nothing after it.
  const bool detached = thread->detached_;
  const int result = thread->run();
  if (!detached) {
    thread->result_ = result;
    thread->systemId_.store(0);
  }
  return nullptr;
}

int ProcessorCount() {
  cpu_set_t set;
  CPU_ZERO(&set);
  if (sched_getaffinity(0, sizeof set, &set) == 0) {
    const int count = CPU_COUNT(&set);
    if (count > 0) return count;
  }
  const long online = sysconf(_SC_NPROCESSORS_ONLN);
  return online > 0 ? static_cast<int>(online) : 1;
}

}  // namespace Pt
