// The adapters behind the Cache overloads that take smart pointers, borrowed
// factories, callables and futures, and the ownership rule for raw pointers.
#pragma once

#include <filesystem>
#include <future>
#include <memory>
#include <string>

#include "pt/SmartPointer.h"
#include "tarn/Cache.h"

namespace Tarn {

// Whether `address` lies within the calling thread's stack.
bool OnCallingThreadStack(const void* address) noexcept;

// A raw pointer handed to the cache: adopted (the last reference deletes it)
// unless it points into the calling thread's stack, where deleting it could
// only corrupt memory; such an object gets one reference that is never
// dropped, so the cache never deletes it.
template <class T>
Pt::SmartPointer<T> Adopt(T* object) {
  if (object != nullptr && object->refCount() == 0 && OnCallingThreadStack(object)) {
    object->incRefCount();
  }
  return Pt::SmartPointer<T>(object);
}

// `path` as the wide string the cache manager takes: its bytes decoded as
// UTF-8. Throws Pt::ExSystem(EILSEQ) naming the path when they are not.
std::wstring WidePath(const std::filesystem::path& path);

// A factory that forwards to one the application keeps alive.
Pt::SmartPointer<CacheableFactory> BorrowedFactory(CacheableFactory& factory);
// A factory that forwards to one held by the shared_ptr it keeps.
Pt::SmartPointer<CacheableFactory> SharedFactory(std::shared_ptr<CacheableFactory> factory);

// A receiver that calls `callback` with the outcome.
Pt::SmartPointer<CacheableReceiver> CallbackReceiver(OutcomeCallback callback);

// A receiver that settles a promise: found sets the object, cancelled sets
// null, failed sets the exception with its class kept.
class PromiseReceiver : public CacheableReceiver {
 public:
  std::future<Pt::SmartPointer<Cacheable>> future() { return promise_.get_future(); }
  void settleEmpty() { promise_.set_value(nullptr); }

  void found(int requestId, const CacheKey<32>& key,
             const Pt::SmartPointer<Cacheable>& cacheable) override;
  void cancelled(int requestId, const CacheKey<32>& key) override;
  void failed(int requestId, const CacheKey<32>& key, const Pt::Exception& error) override;

 private:
  ~PromiseReceiver() override = default;
  std::promise<Pt::SmartPointer<Cacheable>> promise_;
};

// `error` as an exception_ptr holding a copy of its most derived class among
// the library's own (the Tarn family, Pt::ExSystem), else a Pt::Exception.
std::exception_ptr CapturedException(const Pt::Exception& error);

}  // namespace Tarn
