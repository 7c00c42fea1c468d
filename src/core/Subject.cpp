#include "core/Subject.h"

namespace Tarn {

std::string Printable(std::string_view bytes) {
  bool printable = true;
  for (const char c : bytes) {
    printable = printable && c >= 0x20 && c < 0x7f && c != '"' && c != '\\';
  }
  if (printable) return "\"" + std::string(bytes) + "\"";
  static constexpr char kHex[] = "0123456789abcdef";
  std::string hex = "0x";
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    hex.push_back(kHex[byte >> 4]);
    hex.push_back(kHex[byte & 0xf]);
  }
  return hex;
}

std::string TypeSubject(std::string_view type) {
  return "type " + Printable(type);
}

std::string PathSubject(const char* operation, std::string_view path) {
  // A path is shown as it is, quoted: paths are UTF-8 and may hold anything.
  return std::string(operation) + " \"" + std::string(path) + "\"";
}

}  // namespace Tarn
