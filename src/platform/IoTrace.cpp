#include "platform/IoTrace.h"

#include <map>
#include <new>

#include "pt/IoRequest.h"
#include "pt/PlainMutex.h"

namespace Pt {
namespace {

struct Trace {
  PlainMutex mutex;
  bool recording PT_GUARDED_BY(mutex) = false;
  bool incomplete PT_GUARDED_BY(mutex) = false;
  std::vector<IoTrace::Event> events PT_GUARDED_BY(mutex);
  std::map<int, size_t> writes PT_GUARDED_BY(mutex);  // Write events per device
};

Trace& TheTrace() {
  static Trace trace;
  return trace;
}

void Append(Trace& trace, IoTrace::Event&& event) PT_REQUIRES(trace.mutex) {
  try {
    trace.events.push_back(std::move(event));
  } catch (const std::bad_alloc&) {
    trace.incomplete = true;
  }
}

}  // namespace

std::atomic<bool> IoTrace::on_{false};

void IoTrace::Start() {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  trace.events.clear();
  trace.writes.clear();
  trace.incomplete = false;
  trace.recording = true;
  on_.store(true);
}

std::vector<IoTrace::Event> IoTrace::Stop() {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  on_.store(false);
  trace.recording = false;
  std::vector<Event> events = std::move(trace.events);
  trace.events.clear();
  trace.writes.clear();
  if (trace.incomplete) throw std::bad_alloc();
  return events;
}

size_t IoTrace::FlushCount(int device) {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  size_t count = 0;
  for (const Event& event : trace.events) {
    if (event.type == Type::FlushEnd && (device < 0 || event.device == device)) ++count;
  }
  return count;
}

void IoTrace::RecordWrite(int device, const IoRequest& request, int bytes) noexcept {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  if (!trace.recording) return;
  try {
    Event event{Type::Write, device, request.offset(),
                std::vector<uint8_t>(request.data(), request.data() + bytes), 0};
    Append(trace, std::move(event));
    ++trace.writes[device];
  } catch (const std::bad_alloc&) {
    trace.incomplete = true;
  }
}

size_t IoTrace::RecordFlushBegin(int device) noexcept {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  if (!trace.recording) return 0;
  try {
    const size_t covered = trace.writes[device];
    Append(trace, Event{Type::FlushBegin, device, 0, {}, covered});
    return covered;
  } catch (const std::bad_alloc&) {
    trace.incomplete = true;
    return 0;
  }
}

void IoTrace::RecordFlushEnd(int device, size_t writesCovered) noexcept {
  Trace& trace = TheTrace();
  PlainLock lock(trace.mutex);
  if (!trace.recording) return;
  Append(trace, Event{Type::FlushEnd, device, 0, {}, writesCovered});
}

}  // namespace Pt
