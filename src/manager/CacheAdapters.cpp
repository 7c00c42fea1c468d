#include "manager/CacheAdapters.h"

#include <pthread.h>

#include <cerrno>
#include <stdexcept>
#include <utility>

#include "core/RaiseSites.h"
#include "core/Subject.h"
#include "tarn/Exceptions.h"

namespace Tarn {
namespace {

// The calling thread's stack range, looked up once per thread.
struct StackRange {
  const char* low = nullptr;
  const char* high = nullptr;

  StackRange() {
    pthread_attr_t attributes;
    if (pthread_getattr_np(pthread_self(), &attributes) != 0) return;
    void* base = nullptr;
    size_t size = 0;
    if (pthread_attr_getstack(&attributes, &base, &size) == 0) {
      low = static_cast<const char*>(base);
      high = low + size;
    }
    pthread_attr_destroy(&attributes);
  }
};

class Borrowed final : public CacheableFactory {
 public:
  explicit Borrowed(CacheableFactory& target) : target_(target) {}
  Pt::SmartPointer<Cacheable> create(const CacheKey<32>& key) override {
    return target_.create(key);
  }
  Pt::SmartPointer<Cacheable> decode(const CacheKey<32>& key,
                                     const Pt::SmartPointer<Buffer>& data) override {
    return target_.decode(key, data);
  }
  const std::string& getType() const override { return target_.getType(); }

 private:
  ~Borrowed() override = default;
  CacheableFactory& target_;
};

class Shared final : public CacheableFactory {
 public:
  explicit Shared(std::shared_ptr<CacheableFactory> target) : target_(std::move(target)) {}
  Pt::SmartPointer<Cacheable> create(const CacheKey<32>& key) override {
    return target_->create(key);
  }
  Pt::SmartPointer<Cacheable> decode(const CacheKey<32>& key,
                                     const Pt::SmartPointer<Buffer>& data) override {
    return target_->decode(key, data);
  }
  const std::string& getType() const override { return target_->getType(); }

 private:
  ~Shared() override = default;
  std::shared_ptr<CacheableFactory> target_;
};

class Callback final : public CacheableReceiver {
 public:
  explicit Callback(OutcomeCallback callback) : callback_(std::move(callback)) {}
  void found(int requestId, const CacheKey<32>& key,
             const Pt::SmartPointer<Cacheable>& cacheable) override {
    callback_(Outcome{Outcome::Kind::Found, requestId, key, cacheable, nullptr});
  }
  void cancelled(int requestId, const CacheKey<32>& key) override {
    callback_(Outcome{Outcome::Kind::Cancelled, requestId, key, nullptr, nullptr});
  }
  void failed(int requestId, const CacheKey<32>& key, const Pt::Exception& error) override {
    callback_(Outcome{Outcome::Kind::Failed, requestId, key, nullptr, &error});
  }

 private:
  ~Callback() override = default;
  OutcomeCallback callback_;
};

// Tries the classes most derived first; the first match is copied whole.
template <class First, class... Rest>
std::exception_ptr CaptureAs(const Pt::Exception& error) {
  if (const auto* typed = dynamic_cast<const First*>(&error)) {
    return std::make_exception_ptr(*typed);
  }
  if constexpr (sizeof...(Rest) > 0) {
    return CaptureAs<Rest...>(error);
  } else {
    return std::make_exception_ptr(error);
  }
}

}  // namespace

bool OnCallingThreadStack(const void* address) noexcept {
  thread_local const StackRange range;
  const auto* byte = static_cast<const char*>(address);
  return range.low != nullptr && byte >= range.low && byte < range.high;
}

std::wstring WidePath(const std::filesystem::path& path) {
  const std::string& bytes = path.native();
  std::wstring wide;
  wide.reserve(bytes.size());
  for (size_t i = 0; i < bytes.size();) {
    const auto lead = static_cast<unsigned char>(bytes[i]);
    const int extra = lead < 0x80 ? 0 : lead >= 0xf0 ? 3 : lead >= 0xe0 ? 2 : lead >= 0xc2 ? 1 : -1;
    char32_t value = extra == 0 ? lead : lead & (0x3f >> extra);
    bool valid = extra >= 0 && i + static_cast<size_t>(extra) < bytes.size();
    for (int k = 1; valid && k <= extra; ++k) {
      const auto next = static_cast<unsigned char>(bytes[i + static_cast<size_t>(k)]);
      valid = (next & 0xc0) == 0x80;
      value = (value << 6) | (next & 0x3f);
    }
    valid = valid && value <= 0x10ffff && (value < 0xd800 || value > 0xdfff) &&
            (extra < 2 || value >= (extra == 2 ? 0x800u : 0x10000u));
    if (!valid) {
      throw WithSubject(Pt::ExSystem(EILSEQ, kApiPathEncoding.where),
                        PathSubject("decode as UTF-8 the path", Printable(bytes)));
    }
    wide.push_back(static_cast<wchar_t>(value));
    i += static_cast<size_t>(extra) + 1;
  }
  return wide;
}

Pt::SmartPointer<CacheableFactory> BorrowedFactory(CacheableFactory& factory) {
  return Pt::SmartPointer<CacheableFactory>(new Borrowed(factory));
}

Pt::SmartPointer<CacheableFactory> SharedFactory(std::shared_ptr<CacheableFactory> factory) {
  if (!factory) throw std::invalid_argument("Tarn::Cache: null factory");
  return Pt::SmartPointer<CacheableFactory>(new Shared(std::move(factory)));
}

Pt::SmartPointer<CacheableReceiver> CallbackReceiver(OutcomeCallback callback) {
  if (!callback) throw std::invalid_argument("Tarn::Cache: empty outcome callback");
  return Pt::SmartPointer<CacheableReceiver>(new Callback(std::move(callback)));
}

void PromiseReceiver::found(int /*requestId*/, const CacheKey<32>& /*key*/,
                            const Pt::SmartPointer<Cacheable>& cacheable) {
  promise_.set_value(cacheable);
}

void PromiseReceiver::cancelled(int /*requestId*/, const CacheKey<32>& /*key*/) {
  promise_.set_value(nullptr);
}

void PromiseReceiver::failed(int /*requestId*/, const CacheKey<32>& /*key*/,
                             const Pt::Exception& error) {
  promise_.set_exception(CapturedException(error));
}

std::exception_ptr CapturedException(const Pt::Exception& error) {
  return CaptureAs<ExUnsupportedFileVersion, ExCachableNotVerified, ExFactoryClassNotFound,
                   ExFileReadEntry, ExFileWriteEntry, ExFileWriteExtent, ExFileWriteEntryHeader,
                   ExFileWriteExtentHeader, ExInvalidTypeName, ExBase, Pt::ExSystem>(error);
}

}  // namespace Tarn
