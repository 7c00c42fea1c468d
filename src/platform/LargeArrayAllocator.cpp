#include "platform/LargeArrayAllocator.h"

#include <sys/mman.h>

namespace Pt {
namespace {

size_t WholeHugePages(size_t bytes) {
  return (bytes + kHugePageSize - 1) / kHugePageSize * kHugePageSize;
}

}  // namespace

// Maps one huge page more than needed and cuts the mapping back to a 2 MiB
// boundary, so that every page of the block can be a huge one.
void* AllocateLarge(size_t bytes) {
  // The rounding up below must not wrap around.
  if (bytes > SIZE_MAX - 2 * kHugePageSize) throw std::bad_alloc();
  const size_t length = WholeHugePages(bytes);
  void* mapped = ::mmap(nullptr, length + kHugePageSize, PROT_READ | PROT_WRITE,
                        MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapped == MAP_FAILED) throw std::bad_alloc();
  auto* start = static_cast<char*>(mapped);
  const size_t misalignment = reinterpret_cast<uintptr_t>(start) % kHugePageSize;
  const size_t lead = misalignment == 0 ? 0 : kHugePageSize - misalignment;
  char* block = start + lead;
  if (lead > 0) ::munmap(start, lead);
  if (lead < kHugePageSize) ::munmap(block + length, kHugePageSize - lead);
  // Advice only: without transparent huge pages the block has small ones.
  (void)::madvise(block, length, MADV_HUGEPAGE);
  return block;
}

void FreeLarge(void* block, size_t bytes) noexcept {
  ::munmap(block, WholeHugePages(bytes));
}

}  // namespace Pt
