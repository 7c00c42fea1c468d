#include "pt/Thread.h"

#include <sched.h>
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <cassert>
#include <cerrno>

#include "platform/RaiseSites.h"
#include "pt/Exception.h"

namespace Pt {
namespace {

// How far each priority moves the nice value the thread started with.
int NiceOffset(int priority) {
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

Thread::~Thread() {
  assert(!started_ || detached_);
}

void Thread::begin() {
  // A detached body may delete this object as soon as the thread exists:
  // settle the object's state before creating it and touch nothing after.
  const bool detached = detached_;
  pthread_attr_t attributes;
  pthread_attr_init(&attributes);
  if (detached) pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
  started_ = true;
  pthread_t handle;
  const int error = pthread_create(&handle, &attributes, &Thread::Start, this);
  pthread_attr_destroy(&attributes);
  if (error != 0) {
    started_ = false;
    throw ExSystem(error, kRaiseThreadCreate);
  }
  if (!detached) handle_ = handle;
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
  const int nice = std::clamp(baseNice_.load() + NiceOffset(priority_.load()), -20, 19);
  setpriority(PRIO_PROCESS, static_cast<id_t>(systemId_.load()), nice);
}

void* Thread::Start(void* self) {
  auto* thread = static_cast<Thread*>(self);
  // The nice value inherited from the creating thread is what Normal means.
  const pid_t selfId = gettid();
  errno = 0;
  const int nice = getpriority(PRIO_PROCESS, static_cast<id_t>(selfId));
  thread->baseNice_.store(errno == 0 ? nice : 0);
  thread->systemId_.store(static_cast<int>(selfId));
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
