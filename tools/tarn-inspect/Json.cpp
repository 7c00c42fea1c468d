#include "Json.h"

#include <cstdio>

namespace TarnInspect {
namespace {

// The length of the valid UTF-8 sequence at the start of `text`, or 0 when
// it does not start with one (overlong forms and surrogates included).
size_t Utf8SequenceLength(std::string_view text) {
  const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
  const uint8_t lead = byte(0);
  size_t length = 0;
  uint8_t low = 0x80, high = 0xBF;  // allowed range of the second byte
  if (lead >= 0xC2 && lead <= 0xDF) {
    length = 2;
  } else if (lead >= 0xE0 && lead <= 0xEF) {
    length = 3;
    if (lead == 0xE0) low = 0xA0;
    if (lead == 0xED) high = 0x9F;
  } else if (lead >= 0xF0 && lead <= 0xF4) {
    length = 4;
    if (lead == 0xF0) low = 0x90;
    if (lead == 0xF4) high = 0x8F;
  }
  if (length == 0 || text.size() < length || byte(1) < low || byte(1) > high) return 0;
  for (size_t i = 2; i < length; ++i) {
    if (byte(i) < 0x80 || byte(i) > 0xBF) return 0;
  }
  return length;
}

void AppendEscaped(std::string& out, uint8_t code) {
  char escaped[8];
  std::snprintf(escaped, sizeof escaped, "\\u%04x", code);
  out += escaped;
}

}  // namespace

std::string JsonQuote(std::string_view text) {
  std::string out = "\"";
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<uint8_t>(text[i]);
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20 || c == 0x7F) {
      AppendEscaped(out, c);
    } else if (c >= 0x80) {
      const size_t length = Utf8SequenceLength(text.substr(i));
      if (length == 0) {
        AppendEscaped(out, c);
      } else {
        out.append(text.substr(i, length));
        i += length;
        continue;
      }
    } else {
      out += static_cast<char>(c);
    }
    ++i;
  }
  out += '"';
  return out;
}

void JsonWriter::separate() {
  if (afterKey_) {
    afterKey_ = false;
    return;
  }
  if (!first_.empty()) {
    if (!first_.back()) out_ << ',';
    first_.back() = false;
  }
}

void JsonWriter::open(char bracket) {
  separate();
  out_ << bracket;
  first_.push_back(true);
}

void JsonWriter::close(char bracket) {
  first_.pop_back();
  out_ << bracket;
  if (first_.empty()) out_ << '\n';
}

void JsonWriter::key(std::string_view name) {
  separate();
  out_ << JsonQuote(name) << ':';
  afterKey_ = true;
}

void JsonWriter::text(std::string_view value) {
  separate();
  out_ << JsonQuote(value);
}

void JsonWriter::number(uint64_t value) {
  separate();
  out_ << value;
}

void JsonWriter::real(double value) {
  separate();
  char formatted[32];
  std::snprintf(formatted, sizeof formatted, "%.6g", value);
  out_ << formatted;
}

void JsonWriter::flag(bool value) {
  separate();
  out_ << (value ? "true" : "false");
}

}  // namespace TarnInspect
