// Cacheable: the base class of every cached object.
//
// An object has a type name, which selects the CacheableFactory that can
// rebuild or generate objects of its kind, and an encoded Buffer (possibly
// null). The cache calls verify() first and refuses an object for which it is
// false, then counts size() against its memory budget, then stores the bytes
// of encode(false) in the cache file under getType(). Derived classes whose
// state is not simply their Buffer override these three.
//
// Ownership: objects are reference counted; create them on the heap and hand
// them around as Pt::SmartPointer<Cacheable>. The cache takes its own
// reference on every object it is given. The destructor is protected so that
// only the last reference deletes an object.
//
// Thread-safety: the cache calls size, verify and encode on application,
// worker and I/O threads without a lock of its own. setData must not be called
// on an object that the cache may be encoding.
#pragma once

#include <string>

#include "pt/SmartPointer.h"
#include "tarn/Buffer.h"
#include "tarn/Export.h"

namespace Tarn {

class TARN_EXPORT Cacheable : public Pt::SmartPointerBase {
 public:
  Cacheable(const Cacheable&) = delete;
  Cacheable& operator=(const Cacheable&) = delete;

  // What the object costs the cache's memory budget. Default: the length of
  // the data, or 0 when there is none (the cache asks only after verify()).
  virtual int size();
  // Whether the object may be cached. Default: data is set and not empty.
  virtual bool verify();
  // The bytes to store in the cache file. Default: the data; the argument is
  // ignored (the cache always passes false).
  virtual Pt::SmartPointer<Buffer> encode(bool forExport);

  const std::string& getType() const noexcept { return type_; }
  const Pt::SmartPointer<Buffer>& getData() const noexcept { return data_; }
  // Replaces the data, releasing the previous buffer.
  void setData(const Pt::SmartPointer<Buffer>& data) noexcept { data_ = data; }

  // A plain object of `type` whose whole state is `data`, with the default
  // size, verify and encode. Throws std::bad_alloc.
  static Pt::SmartPointer<Cacheable> Create(const std::string& type,
                                            const Pt::SmartPointer<Buffer>& data);

 protected:
  explicit Cacheable(const std::string& type);
  Cacheable(const std::string& type, const Pt::SmartPointer<Buffer>& data);
  ~Cacheable() override;

 private:
  std::string type_;
  Pt::SmartPointer<Buffer> data_;
};

}  // namespace Tarn
