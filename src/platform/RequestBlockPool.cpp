#include "platform/RequestBlockPool.h"

#include <array>
#include <atomic>
#include <new>
#include <vector>

#include "pt/PlainMutex.h"

namespace Pt {
namespace {

constexpr size_t kClasses = RequestBlockPool::kLargestPooled / RequestBlockPool::kPage;

struct SizeClass {
  PlainMutex mutex;
  std::vector<void*> blocks PT_GUARDED_BY(mutex);
};

struct Pool {
  std::array<SizeClass, kClasses> classes;
  std::atomic<size_t> cachedBytes{0};
};

// Never destroyed: a request may still be released while static objects are
// torn down at exit. The cached blocks stay reachable from here.
Pool& ThePool() {
  static Pool* pool = new Pool;
  return *pool;
}

bool Pooled(size_t size) {
  return size >= RequestBlockPool::kPage && size <= RequestBlockPool::kLargestPooled;
}

// Class i holds blocks of (i + 1) pages.
size_t ClassOf(size_t size) {
  return (size + RequestBlockPool::kPage - 1) / RequestBlockPool::kPage - 1;
}

}  // namespace

void* RequestBlockPool::Allocate(size_t size) {
  if (!Pooled(size)) return ::operator new(size);
  const size_t index = ClassOf(size);
  Pool& pool = ThePool();
  SizeClass& sizeClass = pool.classes[index];
  {
    PlainLock guard(sizeClass.mutex);
    if (!sizeClass.blocks.empty()) {
      void* block = sizeClass.blocks.back();
      sizeClass.blocks.pop_back();
      pool.cachedBytes.fetch_sub((index + 1) * kPage, std::memory_order_relaxed);
      return block;
    }
  }
  return ::operator new((index + 1) * kPage);
}

void RequestBlockPool::Release(void* block, size_t size) noexcept {
  if (!Pooled(size)) {
    ::operator delete(block);
    return;
  }
  const size_t index = ClassOf(size);
  const size_t bytes = (index + 1) * kPage;
  Pool& pool = ThePool();
  if (pool.cachedBytes.fetch_add(bytes, std::memory_order_relaxed) + bytes <= kMaxCachedBytes) {
    SizeClass& sizeClass = pool.classes[index];
    PlainLock guard(sizeClass.mutex);
    try {
      sizeClass.blocks.push_back(block);
      return;
    } catch (const std::bad_alloc&) {
      // No room to remember it: free it below.
    }
  }
  pool.cachedBytes.fetch_sub(bytes, std::memory_order_relaxed);
  ::operator delete(block);
}

}  // namespace Pt
