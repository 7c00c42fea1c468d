// What an exception concerned, as the text added to its what().
//
// A key or type name is shown in double quotes when every byte is printable
// ASCII (other than a quote or a backslash), and as 0x followed by its bytes
// in hex otherwise, so that any key reads the same in a log line.
#pragma once

#include <string>
#include <string_view>

#include "tarn/CacheKey.h"

namespace Tarn {

// `bytes` quoted, or in hex when not printable.
std::string Printable(std::string_view bytes);

// `key "z3/x5/y7"` or `key 0x00ff...`.
template <int N>
std::string KeySubject(const CacheKey<N>& key) {
  const int length = key.length < 0 ? 0 : (key.length > N ? N : key.length);
  return "key " + Printable(std::string_view(reinterpret_cast<const char*>(key.data), length));
}

// `type "tile"`.
std::string TypeSubject(std::string_view type);

// `OPERATION "PATH"`, e.g. `open "/var/cache/a.tarn"`.
std::string PathSubject(const char* operation, std::string_view path);

// `exception` with `subject` added to its what(), for throw or Post.
template <class E>
E WithSubject(E exception, const std::string& subject) {
  exception.addContext(subject);
  return exception;
}

}  // namespace Tarn
