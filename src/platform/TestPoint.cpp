#include "platform/TestPoint.h"

#include <chrono>
#include <condition_variable>
#include <vector>

#include "pt/PlainMutex.h"

namespace Pt {
namespace {

struct Signalled {
  TestPoint::Id point;
  int device;
  int64_t value;
};

struct Records {
  PlainMutex mutex;
  std::condition_variable changed;
  bool watching PT_GUARDED_BY(mutex) = false;
  std::vector<Signalled> signals PT_GUARDED_BY(mutex);
};

Records& TheRecords() {
  static Records records;
  return records;
}

bool Seen(const Records& records, TestPoint::Id point, int64_t value) PT_REQUIRES(records.mutex) {
  for (const Signalled& signal : records.signals) {
    if (signal.point == point && signal.value == value) return true;
  }
  return false;
}

}  // namespace

std::atomic<bool> TestPoint::watched_{false};

void TestPoint::Watch() {
  Records& records = TheRecords();
  PlainLock lock(records.mutex);
  records.signals.clear();
  records.watching = true;
  watched_.store(true);
}

void TestPoint::Unwatch() {
  Records& records = TheRecords();
  PlainLock lock(records.mutex);
  watched_.store(false);
  records.watching = false;
  records.signals.clear();
  records.changed.notify_all();
}

bool TestPoint::WaitFor(Id point, int64_t value, int timeoutMs) {
  Records& records = TheRecords();
  PlainLock lock(records.mutex);
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (records.watching && !Seen(records, point, value)) {
    if (records.changed.wait_until(lock.native(), deadline) == std::cv_status::timeout) {
      return Seen(records, point, value);
    }
  }
  return records.watching;
}

size_t TestPoint::Count(Id point) {
  Records& records = TheRecords();
  PlainLock lock(records.mutex);
  size_t count = 0;
  for (const Signalled& signal : records.signals) count += signal.point == point ? 1 : 0;
  return count;
}

void TestPoint::Record(Id point, int device, int64_t value) noexcept {
  Records& records = TheRecords();
  PlainLock lock(records.mutex);
  if (!records.watching) return;
  try {
    records.signals.push_back({point, device, value});
  } catch (...) {
    return;  // out of memory in a test: the waiter times out and says so
  }
  records.changed.notify_all();
}

}  // namespace Pt
