// Intrusive reference counting.
//
// Every object that crosses a thread or an interface derives from
// SmartPointerBase and is held through SmartPointer<T>. The count lives in the
// object, starts at 0 and is changed atomically; the SmartPointer that drops
// it to 0 deletes the object through its virtual destructor. A raw pointer to
// a counted object may be turned into a SmartPointer at any time: that takes a
// new reference.
//
// Thread-safety: the count may be changed from any thread. A single
// SmartPointer variable is not itself synchronised (like std::shared_ptr):
// threads that share one variable must lock around it; copies are independent.
#pragma once

#include <atomic>
#include <cstdint>
#include <utility>

#include "pt/Export.h"

namespace Pt {

class PT_EXPORT SmartPointerBase {
 public:
  SmartPointerBase() noexcept = default;
  // A copy is a new object: it starts with no references of its own.
  SmartPointerBase(const SmartPointerBase& /*other*/) noexcept {}
  SmartPointerBase& operator=(const SmartPointerBase& /*other*/) noexcept { return *this; }

  void incRefCount() const noexcept { refs_.fetch_add(1, std::memory_order_relaxed); }

  // Drops one reference; the last one deletes the object.
  void decRefCount() const noexcept {
    if (refs_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
  }

  // The current count; exact only while no other thread changes it.
  int32_t refCount() const noexcept { return refs_.load(std::memory_order_relaxed); }

 protected:
  virtual ~SmartPointerBase() = default;

 private:
  mutable std::atomic<int32_t> refs_{0};
};

template <class T>
class SmartPointer {
 public:
  SmartPointer() noexcept = default;
  SmartPointer(std::nullptr_t) noexcept {}              // NOLINT(google-explicit-constructor)
  SmartPointer(T* object) noexcept : object_(object) {  // NOLINT(google-explicit-constructor)
    if (object_) object_->incRefCount();
  }
  SmartPointer(const SmartPointer& other) noexcept : SmartPointer(other.object_) {}
  SmartPointer(SmartPointer&& other) noexcept : object_(std::exchange(other.object_, nullptr)) {}
  template <class U>
  SmartPointer(const SmartPointer<U>& other) noexcept  // NOLINT(google-explicit-constructor)
      : SmartPointer(other.get()) {}
  template <class U>
  SmartPointer(SmartPointer<U>&& other) noexcept  // NOLINT(google-explicit-constructor)
      : object_(other.release()) {}

  ~SmartPointer() {
    if (object_) object_->decRefCount();
  }

  // Copy and swap: safe for self-assignment, and the old object is released
  // only after the new one is held.
  // NOLINTNEXTLINE(bugprone-unhandled-self-assignment)
  SmartPointer& operator=(const SmartPointer& other) noexcept {
    SmartPointer(other).swap(*this);
    return *this;
  }
  SmartPointer& operator=(SmartPointer&& other) noexcept {
    SmartPointer(std::move(other)).swap(*this);
    return *this;
  }
  SmartPointer& operator=(T* object) noexcept {
    SmartPointer(object).swap(*this);
    return *this;
  }

  void reset() noexcept { SmartPointer().swap(*this); }
  void swap(SmartPointer& other) noexcept { std::swap(object_, other.object_); }

  // Gives up the reference without dropping it; the caller now owns it.
  [[nodiscard]] T* release() noexcept { return std::exchange(object_, nullptr); }

  T* get() const noexcept { return object_; }
  T* operator->() const noexcept { return object_; }
  T& operator*() const noexcept { return *object_; }
  explicit operator bool() const noexcept { return object_ != nullptr; }

  template <class U>
  bool operator==(const SmartPointer<U>& other) const noexcept {
    return object_ == other.get();
  }
  bool operator==(std::nullptr_t) const noexcept { return object_ == nullptr; }

 private:
  T* object_ = nullptr;
};

}  // namespace Pt
