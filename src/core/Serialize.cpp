// Serialize turns the cache's asynchronous lookups into blocking calls by
// lending each call a receiver that posts a semaphore when its outcome comes.
//
// A receiver is reused from one call to the next, which is safe only when its
// semaphore and object are back to rest: every outcome that was going to come
// has come and been taken. That holds after a wait, and after a find that
// started no request. It does not hold when the cache call throws: the
// receiver may already be registered with a request and be called later. Such
// a receiver is never lent again; it is left to the cache and its slot gets a
// fresh one, so a late outcome can reach nobody but the abandoned receiver.
#include "tarn/Serialize.h"

#include <array>
#include <bitset>
#include <stdexcept>
#include <utility>

#include "pt/CondVar.h"
#include "pt/Exception.h"
#include "pt/Mutex.h"
#include "pt/Semaphore.h"
#include "pt/ThreadAnnotations.h"
#include "tarn/CacheableReceiver.h"

namespace Tarn {
namespace {

constexpr int kPoolSize = 4;

class SerializeReceiver final : public CacheableReceiver {
 public:
  explicit SerializeReceiver(int slot) : slot_(slot) {}

  int slot() const { return slot_; }

  void found(int /*requestId*/, const CacheKey<32>& /*key*/,
             const Pt::SmartPointer<Cacheable>& cacheable) override {
    result_ = cacheable;  // published to the waiter by the semaphore
    done_.post();
  }
  void cancelled(int /*requestId*/, const CacheKey<32>& /*key*/) override { done_.post(); }
  void failed(int /*requestId*/, const CacheKey<32>& /*key*/, const Pt::Exception& error) override {
    // The waiter must wake even if the application's post handler throws.
    struct PostDone {
      Pt::Semaphore& done;
      ~PostDone() { done.post(); }
    } postDone{done_};
    Pt::Exception::Post(error);
  }

  // Blocks until the one outcome of the request has come; the object, or
  // null. Leaves the receiver at rest for its next lending.
  Pt::SmartPointer<Cacheable> await() {
    done_.wait();
    return std::move(result_);
  }

 private:
  ~SerializeReceiver() override = default;

  const int slot_;
  Pt::Semaphore done_{0};
  Pt::SmartPointer<Cacheable> result_;
};

// The process-wide pool. Its lock is a leaf: held only to lend and take back
// slots, never across a call into the cache or a receiver.
class ReceiverPool {
 public:
  ReceiverPool() { freeSlots_.set(); }

  Pt::SmartPointer<SerializeReceiver> acquire() {
    Pt::MutexLock guard(lock_);
    while (freeSlots_.none()) slotFreed_.wait_(lock_, -1);
    const int slot = LowestSet(freeSlots_);
    if (!receivers_[slot]) receivers_[slot] = new SerializeReceiver(slot);
    freeSlots_.reset(slot);
    return receivers_[slot];
  }

  // `reusable`: the receiver is at rest and may serve the slot's next call.
  // Otherwise it stays with whoever still holds it, and the slot makes a new
  // one when next lent.
  void release(const SerializeReceiver& receiver, bool reusable) {
    Pt::MutexLock guard(lock_);
    if (!reusable) receivers_[receiver.slot()].reset();
    freeSlots_.set(receiver.slot());
    slotFreed_.signal();
  }

 private:
  static int LowestSet(const std::bitset<kPoolSize>& bits) {
    int i = 0;
    while (!bits.test(i)) ++i;
    return i;
  }

  Pt::Mutex lock_;
  Pt::CondVar slotFreed_;
  std::array<Pt::SmartPointer<SerializeReceiver>, kPoolSize> receivers_ PT_GUARDED_BY(lock_);
  std::bitset<kPoolSize> freeSlots_ PT_GUARDED_BY(lock_);
};

// Made on first use, so that no other static object can reach it before it
// exists; destroyed when the library is unloaded.
ReceiverPool& ThePool() {
  static ReceiverPool pool;
  return pool;
}

// One lending of a receiver. It goes back to the pool on every path out of a
// call; unless the call settled it, it goes back as not reusable.
class Lending {
 public:
  Lending() : receiver_(ThePool().acquire()) {}
  ~Lending() { ThePool().release(*receiver_, settled_); }
  Lending(const Lending&) = delete;
  Lending& operator=(const Lending&) = delete;

  SerializeReceiver* receiver() const { return receiver_.get(); }

  Pt::SmartPointer<Cacheable> await() {
    Pt::SmartPointer<Cacheable> result = receiver_->await();
    settled_ = true;
    return result;
  }
  // No request was started, so no outcome will come.
  void settleUnused() { settled_ = true; }

 private:
  Pt::SmartPointer<SerializeReceiver> receiver_;
  bool settled_ = false;
};

}  // namespace

Serialize::Serialize(Cache* const cache) : cache_(cache) {
  if (cache == nullptr) throw std::invalid_argument("Serialize: no cache");
}

Serialize::~Serialize() = default;

const Pt::SmartPointer<Cacheable>& Serialize::find(const CacheKey<32>& key) {
  Lending lending;
  if (cache_->find(key, lending.receiver()) == 0) {
    lending.settleUnused();
    result_.reset();
  } else {
    result_ = lending.await();
  }
  return result_;
}

const Pt::SmartPointer<Cacheable>& Serialize::findCreate(const CacheKey<32>& key,
                                                         const CacheKey<16>& secondaryKey,
                                                         const std::string& type) {
  Lending lending;
  // The id is not needed: a findCreate always ends in exactly one outcome.
  cache_->findCreate(key, secondaryKey, type, lending.receiver());
  result_ = lending.await();
  return result_;
}

}  // namespace Tarn
