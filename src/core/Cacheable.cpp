#include "tarn/Cacheable.h"

namespace Tarn {

Cacheable::Cacheable(const std::string& type) : type_(type) {}

Cacheable::Cacheable(const std::string& type, const Pt::SmartPointer<Buffer>& data)
    : type_(type), data_(data) {}

Cacheable::~Cacheable() = default;

int Cacheable::size() {
  return data_ ? data_->length() : 0;
}

bool Cacheable::verify() {
  return data_ && data_->length() != 0;
}

Pt::SmartPointer<Buffer> Cacheable::encode(bool /*forExport*/) {
  return data_;
}

Pt::SmartPointer<Cacheable> Cacheable::Create(const std::string& type,
                                              const Pt::SmartPointer<Buffer>& data) {
  return Pt::SmartPointer<Cacheable>(new Cacheable(type, data));
}

}  // namespace Tarn
