#include "orrery/runtime/Utf8.hpp"

#include <cstdint>
#include <cstring>

namespace runtime {

namespace {

std::uint8_t byteAt(std::string_view text, std::size_t index) noexcept {
  return static_cast<std::uint8_t>(text[index]);
}

bool isContinuation(std::uint8_t byte) noexcept { return (byte & 0xC0U) == 0x80U; }

// Whether the byte after `lead` is one that keeps the sequence from being overlong, a surrogate or
// too large.
bool secondByteFits(std::uint8_t lead, std::uint8_t second) noexcept {
  if (lead == 0xE0) return second >= 0xA0;
  if (lead == 0xED) return second < 0xA0;
  if (lead == 0xF0) return second >= 0x90;
  if (lead == 0xF4) return second < 0x90;
  return true;
}

std::size_t lengthAnnouncedBy(std::uint8_t lead) noexcept {
  if (lead < 0x80) return 1;
  if (lead < 0xC2) return 0;
  if (lead < 0xE0) return 2;
  if (lead < 0xF0) return 3;
  return lead < 0xF5 ? 4 : 0;
}

// The length of the ASCII run at the front, looked at eight bytes at a time.
std::size_t asciiPrefix(std::string_view text) noexcept {
  std::size_t i = 0;
  for (; i + sizeof(std::uint64_t) <= text.size(); i += sizeof(std::uint64_t)) {
    std::uint64_t word = 0;
    std::memcpy(&word, text.data() + i, sizeof word);
    if ((word & 0x8080808080808080U) != 0) break;
  }
  while (i < text.size() && byteAt(text, i) < 0x80) ++i;
  return i;
}

void appendHex(std::string& to, std::uint8_t byte) {
  constexpr std::string_view digits = "0123456789abcdef";
  to += digits[byte >> 4U];
  to += digits[byte & 0xFU];
}

bool isAsciiControl(char c) noexcept { return static_cast<std::uint8_t>(c) < 0x20 || c == '\x7F'; }

void appendAsciiControl(std::string& to, char control) {
  switch (control) {
    case '\n':
      to += "\\n";
      return;
    case '\r':
      to += "\\r";
      return;
    case '\t':
      to += "\\t";
      return;
    default:
      to += "\\x";
      appendHex(to, static_cast<std::uint8_t>(control));
  }
}

// U+0080 to U+009F: C2 and the character's number. C2 is never the second byte of a character.
bool beginsC1(std::string_view text) noexcept {
  return text.size() > 1 && byteAt(text, 0) == 0xC2 && byteAt(text, 1) >= 0x80 &&
         byteAt(text, 1) <= 0x9F;
}

}  // namespace

std::size_t utf8SequenceLength(std::string_view text) noexcept {
  const std::uint8_t lead = byteAt(text, 0);
  const std::size_t length = lengthAnnouncedBy(lead);
  if (length == 0 || length > text.size()) return 0;
  for (std::size_t i = 1; i < length; ++i) {
    if (!isContinuation(byteAt(text, i))) return 0;
  }
  return length == 1 || secondByteFits(lead, byteAt(text, 1)) ? length : 0;
}

bool isUtf8(std::string_view text) noexcept {
  for (text.remove_prefix(asciiPrefix(text)); !text.empty();
       text.remove_prefix(asciiPrefix(text))) {
    const std::size_t length = utf8SequenceLength(text);
    if (length == 0) return false;
    text.remove_prefix(length);
  }
  return true;
}

std::string withoutControls(std::string_view text) {
  std::string clean;
  clean.reserve(text.size());
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (isAsciiControl(text[i])) {
      appendAsciiControl(clean, text[i]);
    } else if (beginsC1(text.substr(i))) {
      clean += "\\u00";
      appendHex(clean, byteAt(text, ++i));
    } else {
      clean += text[i];
    }
  }
  return clean;
}

}  // namespace runtime
