#include "plugins/http_client/text/HeaderRules.hpp"

#include <algorithm>
#include <array>

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

using namespace std::string_view_literals;

// C1 is C2 80 to C2 9F in UTF-8, and C2 begins nothing but characters of two bytes.
bool isC1(char lead, char next) noexcept {
  const auto byte = static_cast<unsigned char>(next);
  return lead == '\xC2' && byte >= 0x80 && byte <= 0x9F;
}

// By byte: whether it may stand in a token.
constexpr std::array<bool, 256> tokenCharacters = [] {
  std::array<bool, 256> table{};
  for (unsigned byte = 0; byte < table.size(); ++byte) {
    const char c = static_cast<char>(byte);
    table[byte] = isAlphanumeric(c) || "!#$%&'*+-.^_`|~"sv.find(c) != std::string_view::npos;
  }
  return table;
}();

bool isTokenCharacter(char c) noexcept { return tokenCharacters[static_cast<unsigned char>(c)]; }

template <std::size_t count>
bool isOneOf(std::string_view name, const std::array<std::string_view, count>& names) noexcept {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

bool isToken(std::string_view text) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool hasControlCharacter(std::string_view text, Tab tab) noexcept {
  const auto refused = [tab](char c) {
    return isAsciiControl(c) && !(tab == Tab::Allowed && c == '\t');
  };
  return std::any_of(text.begin(), text.end(), refused) ||
         std::adjacent_find(text.begin(), text.end(), isC1) != text.end();
}

bool hasAsciiControlCharacter(std::string_view text) noexcept {
  return std::any_of(text.begin(), text.end(), isAsciiControl);
}

bool belongsToTransport(std::string_view lowerCaseName) noexcept {
  static constexpr std::array names{
      "content-length"sv, "transfer-encoding"sv, "connection"sv, "proxy-connection"sv,
      "expect"sv,         "upgrade"sv,           "te"sv,         "trailer"sv};
  return isOneOf(lowerCaseName, names);
}

bool isSecret(std::string_view headerName) noexcept {
  static constexpr std::array names{"authorization"sv, "proxy-authorization"sv, "cookie"sv};
  return std::any_of(names.begin(), names.end(), [headerName](std::string_view name) {
    return equalsIgnoringCase(name, headerName);
  });
}

bool isForConfiguredServerOnly(std::string_view lowerCaseName) noexcept {
  static constexpr std::array names{"authorization"sv, "cookie"sv, "host"sv};
  return isOneOf(lowerCaseName, names);
}

}  // namespace connectivity::plugins
