#include "orrery/runtime/Escaping.hpp"

#include "orrery/runtime/Utf8.hpp"

namespace runtime {

namespace {

void appendHex(std::string& to, std::string_view prefix, char byte) {
  constexpr std::string_view hexDigits = "0123456789abcdef";
  const auto code = static_cast<unsigned char>(byte);
  to += prefix;
  to += hexDigits[code >> 4U];
  to += hexDigits[code & 0xFU];
}

bool isAsciiControl(char c) { return static_cast<unsigned char>(c) < 0x20 || c == '\x7F'; }

// U+0080 to U+009F are the bytes C2 80 to C2 9F.
bool isC1Control(std::string_view character) {
  return character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0;
}

void appendAscii(std::string& to, char c, std::string_view kept) {
  if (!isAsciiControl(c) || kept.find(c) != std::string_view::npos) {
    to += c;
  } else if (c == '\n') {
    to += "\\n";
  } else if (c == '\r') {
    to += "\\r";
  } else if (c == '\t') {
    to += "\\t";
  } else {
    appendHex(to, "\\x", c);
  }
}

}  // namespace

std::string escaped(std::string_view text, std::string_view kept) {
  std::string clean;
  clean.reserve(text.size());
  while (!text.empty()) {
    const std::size_t length = utf8SequenceLength(text);
    if (length == 0) {
      appendHex(clean, "\\x", text[0]);
    } else if (length == 1) {
      appendAscii(clean, text[0], kept);
    } else if (length == 2 && isC1Control(text)) {
      appendHex(clean, "\\u00", text[1]);
    } else {
      clean.append(text.substr(0, length));
    }
    text.remove_prefix(length == 0 ? 1 : length);
  }
  return clean;
}

}  // namespace runtime
