// Buffer: an immutable, reference-counted run of bytes.
//
// A Buffer is made in one allocation that holds the object and, right behind
// it, a copy of its bytes; the last Pt::SmartPointer that lets go frees the
// block. Nothing changes a Buffer after Create returns, so any number of
// threads may read one at the same time without a lock.
//
// Ownership: Create returns the only reference. Buffers cannot be copied,
// assigned or made on the stack; share them through Pt::SmartPointer<Buffer>.
#pragma once

#include <cstdint>

#include "pt/SmartPointer.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT Buffer final : public Pt::SmartPointerBase {
 public:
  // A new buffer holding a copy of `length` bytes at `bytes`. A length of 0
  // makes an empty buffer (`bytes` may then be null).
  // Throws std::invalid_argument when `length` is negative or when `bytes` is
  // null and `length` positive; std::bad_alloc when memory runs out.
  static Pt::SmartPointer<Buffer> Create(int32_t length, const void* bytes);

  Buffer(const Buffer&) = delete;
  Buffer& operator=(const Buffer&) = delete;

  int32_t length() const noexcept { return length_; }
  // The first of length() bytes; valid as long as a reference is held.
  const uint8_t* bytes() const noexcept {
    return reinterpret_cast<const uint8_t*>(this) + sizeof(Buffer);
  }

  // The block was allocated with ::operator new for the object and its bytes
  // together; it must go back the same way, not as sizeof(Buffer) bytes.
  static void operator delete(void* block) noexcept;

 private:
  explicit Buffer(int32_t length) noexcept : length_(length) {}
  ~Buffer() override;

  int32_t length_;
};

}  // namespace Tarn
