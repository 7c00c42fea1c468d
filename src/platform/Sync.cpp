// Mutex, CondVar and Semaphore on POSIX threads.
#include <cerrno>
#include <chrono>
#include <ctime>

#include "pt/CondVar.h"
#include "pt/Mutex.h"
#include "pt/Semaphore.h"

namespace Pt {

Mutex::Mutex() {
  pthread_mutexattr_t attributes;
  pthread_mutexattr_init(&attributes);
  pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutex_init(&mutex_, &attributes);
  pthread_mutexattr_destroy(&attributes);
}

Mutex::~Mutex() {
  pthread_mutex_destroy(&mutex_);
}

void Mutex::lock() {
  pthread_mutex_lock(&mutex_);
}

void Mutex::unlock() {
  pthread_mutex_unlock(&mutex_);
}

bool Mutex::try_lock() {
  return pthread_mutex_trylock(&mutex_) == 0;
}

CondVar::CondVar() {
  // Time-outs are measured on the monotonic clock, so that setting the wall
  // clock neither shortens nor stretches a wait.
  pthread_condattr_t attributes;
  pthread_condattr_init(&attributes);
  pthread_condattr_setclock(&attributes, CLOCK_MONOTONIC);
  pthread_cond_init(&cond_, &attributes);
  pthread_condattr_destroy(&attributes);
}

CondVar::~CondVar() {
  pthread_cond_destroy(&cond_);
}

bool CondVar::wait_(Mutex& mutex, int timeoutMs) {
  if (timeoutMs < 0) {
    pthread_cond_wait(&cond_, &mutex.mutex_);
    return true;
  }
  timespec deadline{};
  clock_gettime(CLOCK_MONOTONIC, &deadline);
  deadline.tv_sec += timeoutMs / 1000;
  deadline.tv_nsec += static_cast<long>(timeoutMs % 1000) * 1'000'000L;
  if (deadline.tv_nsec >= 1'000'000'000L) {
    deadline.tv_sec += 1;
    deadline.tv_nsec -= 1'000'000'000L;
  }
  return pthread_cond_timedwait(&cond_, &mutex.mutex_, &deadline) != ETIMEDOUT;
}

void CondVar::signal() {
  pthread_cond_signal(&cond_);
}

void CondVar::broadcast() {
  pthread_cond_broadcast(&cond_);
}

Semaphore::Semaphore(int initial) : count_(initial) {}

void Semaphore::post() {
  // Notify under the lock: a waiter that sees the new count may destroy the
  // semaphore as soon as it can take the lock.
  PlainLock guard(mutex_);
  ++count_;
  available_.notify_one();
}

void Semaphore::wait() {
  wait_(-1);
}

bool Semaphore::wait_(int timeoutMs) {
  PlainLock guard(mutex_);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (count_ <= 0) {
    if (timeoutMs < 0) {
      available_.wait(guard.native());
    } else if (available_.wait_until(guard.native(), deadline) == std::cv_status::timeout &&
               count_ <= 0) {
      return false;
    }
  }
  --count_;
  return true;
}

}  // namespace Pt
