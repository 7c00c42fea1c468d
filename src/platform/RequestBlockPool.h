// Recycles the memory of large requests.
//
// A request and its data area are one block. Blocks of 4 KiB and more would
// otherwise go back to malloc on the completion thread and come fresh from
// it on the issuing thread: arena lock contention, heap trimming and a page
// fault per page on every request. The pool keeps freed blocks by size class
// (multiples of 4 KiB up to 1 MiB) and hands them out again.
//
// Invariants: every cached block is exactly its class's size; the bytes held
// in all classes never exceed kMaxCachedBytes. Smaller and larger blocks
// bypass the pool. Thread-safe; one short lock per class.
#pragma once

#include <cstddef>

namespace Pt {

class RequestBlockPool {
 public:
  // A block of at least `size` bytes, aligned for any object. Throws
  // std::bad_alloc.
  static void* Allocate(size_t size);
  // Returns a block that Allocate(size) gave out.
  static void Release(void* block, size_t size) noexcept;

  static constexpr size_t kPage = 4096;
  static constexpr size_t kLargestPooled = 1 << 20;
  static constexpr size_t kMaxCachedBytes = 16 << 20;
};

}  // namespace Pt
