// Small things about ASCII: case, digits, blanks, percent-encoding. No locale counts, and a byte
// beyond ASCII is no letter, no digit and no blank.
//
// Pure functions; any thread may call them.
#pragma once

#include <string>
#include <string_view>

namespace connectivity::plugins {

// 'A' -> 'a'; every other character as it is.
char lower(char c) noexcept;
// "Content-TYPE" -> "content-type"
std::string lowerCased(std::string_view text);
// "Keep-Alive" equals "keep-alive".
bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept;

// A letter or a digit.
bool isAlphanumeric(char c) noexcept;
// '7' -> 7, 'f' and 'F' -> 15; -1 for what is no hexadecimal digit.
int hexDigit(char c) noexcept;

// Without the blanks and tabs around it: "\t a b " -> "a b". A part of `text`, which must outlive
// it.
std::string_view trimmed(std::string_view text) noexcept;

// Appends '%' and the byte's two digits, whatever the byte is. With it for the blank alone:
// "a b" -> "a%20b"; '\xE9' -> "%E9".
void appendPercentEncoded(std::string& out, char c);

}  // namespace connectivity::plugins
