#include "core/ClientException.h"

#include <exception>
#include <string>

#include "core/RaiseSites.h"

namespace Tarn {

Pt::Exception ForeignException(const char* what) {
  std::wstring message = kClientThrewMessage;
  if (what == nullptr) what = "(a value that is not a std::exception)";
  // what() has no fixed encoding; ASCII survives, anything else is marked.
  for (const char* c = what; *c != '\0'; ++c) {
    const auto byte = static_cast<unsigned char>(*c);
    message.push_back(byte < 0x80 ? static_cast<wchar_t>(byte) : L'\uFFFD');
  }
  return Pt::Exception(Pt::ExReason{message.c_str(), kClientThrew.where, 1});
}

std::unique_ptr<Pt::Exception> CaughtAsPtException() {
  try {
    throw;
  } catch (const Pt::Exception& error) {
    return std::unique_ptr<Pt::Exception>(error.clone());
  } catch (const std::exception& error) {
    return std::make_unique<Pt::Exception>(ForeignException(error.what()));
  } catch (...) {
    return std::make_unique<Pt::Exception>(ForeignException(nullptr));
  }
}

}  // namespace Tarn
