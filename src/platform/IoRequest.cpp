#include <cerrno>
#include <cstddef>
#include <new>

#include "platform/RaiseSites.h"
#include "platform/RequestBlockPool.h"
#include "platform/RequestState.h"

namespace Pt {
namespace {

constexpr size_t Align(size_t size) {
  constexpr size_t kAlign = alignof(std::max_align_t);
  return (size + kAlign - 1) / kAlign * kAlign;
}

// Layout of a request's block: the block's size, the request, the device's
// bookkeeping, the data area.
constexpr size_t kPrefix = Align(sizeof(size_t));
constexpr size_t kStateOffset = Align(sizeof(IoRequest));
constexpr size_t kDataOffset = kStateOffset + Align(sizeof(RequestState));

}  // namespace

RequestState& IoRequestAccess::state(IoRequest& request) noexcept {
  return *std::launder(
      reinterpret_cast<RequestState*>(reinterpret_cast<std::byte*>(&request) + kStateOffset));
}

SmartPointer<IoRequest> IoRequest::Create(IoNotify* notify, int length, ReqPri priority) {
  if (length < 0) throw ExSystem(EINVAL, kRaiseDeviceRequest);
  const size_t blockSize = kPrefix + kDataOffset + static_cast<size_t>(length);
  auto* start = static_cast<std::byte*>(RequestBlockPool::Allocate(blockSize));
  new (start) size_t(blockSize);
  std::byte* block = start + kPrefix;
  // The data area is not cleared: a writer fills all of it, and a read
  // defines byteCount() bytes of it.
  uint8_t* data = reinterpret_cast<uint8_t*>(block + kDataOffset);
  new (block + kStateOffset) RequestState();
  return SmartPointer<IoRequest>(new (block) IoRequest(notify, length, priority, data));
}

IoRequest::IoRequest(IoNotify* notify, int length, ReqPri priority, uint8_t* data) noexcept
    : notify_(notify), priority_(priority), length_(length), data_(data) {}

IoRequest::~IoRequest() {
  IoRequestAccess::state(*this).~RequestState();
}

void IoRequest::operator delete(void* request) noexcept {
  auto* start = static_cast<std::byte*>(request) - kPrefix;
  RequestBlockPool::Release(start, *std::launder(reinterpret_cast<size_t*>(start)));
}

}  // namespace Pt
