#include "tarn/Buffer.h"

#include <cstring>
#include <new>
#include <stdexcept>

namespace Tarn {

Pt::SmartPointer<Buffer> Buffer::Create(int32_t length, const void* bytes) {
  if (length < 0) throw std::invalid_argument("Buffer::Create: negative length");
  if (bytes == nullptr && length > 0) throw std::invalid_argument("Buffer::Create: null bytes");
  // One block: the object, then its bytes. The constructor cannot throw, so
  // the block never needs freeing on the way out.
  void* block = ::operator new(sizeof(Buffer) + static_cast<size_t>(length));
  Buffer* buffer = new (block) Buffer(length);
  if (length > 0) {
    std::memcpy(static_cast<uint8_t*>(block) + sizeof(Buffer), bytes, static_cast<size_t>(length));
  }
  return Pt::SmartPointer<Buffer>(buffer);
}

void Buffer::operator delete(void* block) noexcept {
  ::operator delete(block);
}

Buffer::~Buffer() = default;

}  // namespace Tarn
