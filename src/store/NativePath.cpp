#include "store/NativePath.h"

#include <cerrno>
#include <optional>

#include "platform/Utf8.h"

namespace Tarn {

std::string NativePath(const wchar_t* path, const RaiseSite& site) {
  if (path == nullptr) throw Pt::ExSystem(EINVAL, site.where);
  std::optional<std::string> narrow = Pt::WideToUtf8(path);
  if (!narrow) throw Pt::ExSystem(EINVAL, site.where);
  return std::move(*narrow);
}

}  // namespace Tarn
