// FakeTier: an in-process shared tier over a map, for tests.
//
// Its mode, read when a lookup starts, says how the lookup is answered:
//   Inline     inside lookup(), from the map (Hit or Miss);
//   Later      from the map, on the fake's own thread;
//   Held       from the map on the fake's thread once release() is called,
//              or Timeout at the deadline;
//   Silent     never answered until the deadline: Timeout, on its thread;
//   Down       Unavailable inside lookup() while healthy() stays true (the
//              server holding the key is gone);
//   Unhealthy  healthy() is false, and a lookup ends Unavailable inline.
// publish() stores the value as given unless it exceeds maxValue.
//
// Thread-safety: every member may be called from any thread.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <string>
#include <thread>

#include "tarn/SharedTier.h"

namespace TarnTest {

class FakeTier : public Tarn::SharedTier {
 public:
  enum class Mode { Inline, Later, Held, Silent, Down, Unhealthy };

  FakeTier();
  // Every lookup must have been answered (a cache waits for its own).
  ~FakeTier() override;

  void lookup(std::string_view key, std::chrono::steady_clock::time_point deadline,
              Tarn::TierLookupReceiver& receiver) noexcept override;
  void publish(std::string_view key, std::string_view value) noexcept override;
  bool healthy() const noexcept override { return mode != Mode::Unhealthy; }
  size_t maxValueSize() const noexcept override { return maxValue; }

  std::atomic<Mode> mode{Mode::Inline};
  std::atomic<size_t> maxValue{1 << 20};
  std::atomic<int> lookups{0};
  std::atomic<int> publishes{0};

  void put(const std::string& key, const std::string& value);
  bool get(const std::string& key, std::string& value);
  void remove(const std::string& key);
  size_t size();
  // Answers every Held lookup from the map now.
  void release();
  // Waits until `count` lookups wait for an answer on the fake's thread.
  bool waitPending(size_t count, int timeoutMs = 10000);
  // Waits until `count` values have been published.
  bool waitPublished(int count, int timeoutMs = 10000);

 private:
  struct Pending {
    Tarn::TierLookupReceiver* receiver;
    std::string key;
    std::chrono::steady_clock::time_point deadline;
    Mode mode;
  };
  void answer(Tarn::TierLookupReceiver& receiver, const std::string& key);
  void serve();
  bool takeDue(Pending& out);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::map<std::string, std::string> values_;
  std::deque<Pending> pending_;
  bool released_ = false;
  bool stopping_ = false;
  std::thread thread_;
};

}  // namespace TarnTest
