// A minimal JSON writer for the inspector's --json output.
//
// Writes compact JSON to a stream as it goes, adding the commas itself. The
// strings it is given come from a cache file and may hold any bytes: valid
// UTF-8 passes through, control characters are escaped, and a byte that is
// not part of a valid UTF-8 sequence is written as the code point of the
// same value (\u0080 to \u00ff), so the output is always valid JSON.
#pragma once

#include <cstdint>
#include <ostream>
#include <string>
#include <string_view>
#include <vector>

namespace TarnInspect {

// `text` as a quoted, escaped JSON string.
std::string JsonQuote(std::string_view text);

class JsonWriter {
 public:
  explicit JsonWriter(std::ostream& out) : out_(out) {}

  void beginObject() { open('{'); }
  void endObject() { close('}'); }
  void beginArray() { open('['); }
  void endArray() { close(']'); }
  // The key of the next member of the object being written.
  void key(std::string_view name);

  // Distinct names rather than overloads: a uint32_t argument must not be
  // ambiguous between the integer, the real and the flag.
  void text(std::string_view value);
  void number(uint64_t value);
  // A member of the current object: its key, then its value.
  void field(std::string_view name, uint64_t value) {
    key(name);
    number(value);
  }
  void field(std::string_view name, std::string_view value) {
    key(name);
    text(value);
  }
  void real(double value);
  void flag(bool value);

 private:
  void separate();
  void open(char bracket);
  void close(char bracket);

  std::ostream& out_;
  std::vector<bool> first_;  // per open container: nothing written in it yet
  bool afterKey_ = false;
};

}  // namespace TarnInspect
