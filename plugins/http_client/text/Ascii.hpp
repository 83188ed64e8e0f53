// Small things about ASCII: case, digits, blanks, percent-encoding. No locale counts, and a byte
// beyond ASCII is no letter, no digit and no blank.
//
// Pure functions; any thread may call them.
#pragma once

#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace connectivity::plugins {

// 'A' -> 'a'; every other character as it is.
constexpr char lower(char c) noexcept {
  return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c;
}
// "Content-TYPE" -> "content-type"
std::string lowerCased(std::string_view text);
// "Keep-Alive" equals "keep-alive".
constexpr bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char left, char right) { return lower(left) == lower(right); });
}

constexpr bool isDigit(char c) noexcept { return c >= '0' && c <= '9'; }
// A letter or a digit.
constexpr bool isAlphanumeric(char c) noexcept {
  return isDigit(c) || (lower(c) >= 'a' && lower(c) <= 'z');
}
// '7' -> 7, 'f' and 'F' -> 15; -1 for what is no hexadecimal digit.
constexpr int hexDigit(char c) noexcept {
  if (isDigit(c)) return c - '0';
  return lower(c) >= 'a' && lower(c) <= 'f' ? lower(c) - 'a' + 10 : -1;
}
// U+0000 to U+001F, the tab among them, and DEL.
constexpr bool isAsciiControl(char c) noexcept {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7F;
}

// Without the blanks and tabs around it: "\t a b " -> "a b". A part of `text`, which must outlive
// it.
constexpr std::string_view trimmed(std::string_view text) noexcept {
  constexpr std::string_view blanks = " \t";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

// Appends '%' and the byte's two digits, whatever the byte is. With it for the blank alone:
// "a b" -> "a%20b"; '\xE9' -> "%E9".
void appendPercentEncoded(std::string& out, char c);

}  // namespace connectivity::plugins
