// LargeArrayAllocator: an allocator for the store's big flat tables, backed
// by transparent huge pages.
//
// Opening a file of 100,000 entries fills some 30 MiB of fresh tables. With
// 4 KiB pages that is thousands of page faults, and on a virtual machine
// whose memory the host backs lazily a fault can cost over 10 microseconds
// (measured on the build machine: 30 MiB touched in about 90 ms with small
// pages, 2 ms with huge pages): the faults, not the work, then decide how
// long an open takes. A block of at least kHugeThreshold bytes is mapped on
// its own, in whole 2 MiB pages aligned to 2 MiB, and marked for huge pages
// (madvise MADV_HUGEPAGE); where the kernel gives none it behaves as any
// anonymous mapping. Smaller blocks come from operator new.
//
// Stateless: any two instances are equal, and memory from one may be freed
// by another. Thread-safe. allocate throws std::bad_alloc.
#pragma once

#include <cstddef>
#include <cstdint>
#include <new>
#include <vector>

namespace Pt {

inline constexpr size_t kHugePageSize = size_t{2} << 20;
inline constexpr size_t kHugeThreshold = kHugePageSize;

// The raw calls, given the same `bytes`. AllocateLarge throws std::bad_alloc.
void* AllocateLarge(size_t bytes);
void FreeLarge(void* block, size_t bytes) noexcept;

template <class T>
struct LargeArrayAllocator {
  using value_type = T;

  LargeArrayAllocator() = default;
  template <class U>
  LargeArrayAllocator(const LargeArrayAllocator<U>& /*other*/) noexcept {}

  T* allocate(size_t count) {
    if (count > SIZE_MAX / sizeof(T)) throw std::bad_array_new_length();
    const size_t bytes = count * sizeof(T);
    if (bytes < kHugeThreshold) return static_cast<T*>(::operator new(bytes));
    return static_cast<T*>(AllocateLarge(bytes));
  }
  void deallocate(T* block, size_t count) noexcept {
    const size_t bytes = count * sizeof(T);
    if (bytes < kHugeThreshold) {
      ::operator delete(block);
    } else {
      FreeLarge(block, bytes);
    }
  }

  template <class U>
  bool operator==(const LargeArrayAllocator<U>& /*other*/) const noexcept {
    return true;
  }
};

// A vector whose big buffers come from huge pages.
template <class T>
using LargeArray = std::vector<T, LargeArrayAllocator<T>>;

}  // namespace Pt
