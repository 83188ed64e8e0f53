#include "plugins/http_client/text/Ascii.hpp"

#include <algorithm>

namespace connectivity::plugins {

std::string lowerCased(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

bool equalsIgnoringCase(std::string_view a, std::string_view b) noexcept {
  return std::equal(a.begin(), a.end(), b.begin(), b.end(),
                    [](char left, char right) { return lower(left) == lower(right); });
}

std::string_view trimmed(std::string_view text) noexcept {
  constexpr std::string_view blanks = " \t";
  const std::size_t first = text.find_first_not_of(blanks);
  if (first == std::string_view::npos) return {};
  return text.substr(first, text.find_last_not_of(blanks) - first + 1);
}

void appendPercentEncoded(std::string& out, char c) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out.append({'%', digits[byte >> 4U], digits[byte & 0xFU]});
}

}  // namespace connectivity::plugins
