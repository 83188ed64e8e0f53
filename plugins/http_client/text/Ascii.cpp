#include "plugins/http_client/text/Ascii.hpp"

#include <algorithm>

namespace connectivity::plugins {

std::string lowerCased(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

void appendPercentEncoded(std::string& out, char c) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out.append({'%', digits[byte >> 4U], digits[byte & 0xFU]});
}

}  // namespace connectivity::plugins
