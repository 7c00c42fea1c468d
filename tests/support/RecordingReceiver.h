// A CacheableReceiver that records every call it gets, for tests that assert
// on which outcome each request got, with which id, on which thread.
#pragma once

#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

#include "tarn/CacheableReceiver.h"

namespace TarnTest {

struct ReceiverCall {
  enum Kind { Found, Cancelled, Failed } kind;
  int requestId = 0;
  Tarn::PrimaryKey key{};
  Pt::SmartPointer<Tarn::Cacheable> cacheable;  // Found
  std::shared_ptr<Pt::Exception> error;         // Failed: a clone, keeps its class
  std::thread::id thread;
};

class RecordingReceiver : public Tarn::CacheableReceiver {
 public:
  void found(int requestId, const Tarn::CacheKey<32>& key,
             const Pt::SmartPointer<Tarn::Cacheable>& cacheable) override;
  void cancelled(int requestId, const Tarn::CacheKey<32>& key) override;
  void failed(int requestId, const Tarn::CacheKey<32>& key, const Pt::Exception& error) override;

  // Waits up to `timeoutMs` for at least `count` calls.
  bool waitFor(size_t count, int timeoutMs = 20000);
  std::vector<ReceiverCall> calls();
  size_t count();

 private:
  void record(ReceiverCall call);

  std::mutex mutex_;
  std::condition_variable changed_;
  std::vector<ReceiverCall> calls_;
};

}  // namespace TarnTest
