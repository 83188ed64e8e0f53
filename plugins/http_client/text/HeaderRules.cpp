#include "plugins/http_client/text/HeaderRules.hpp"

#include <algorithm>
#include <array>

namespace connectivity::plugins {

namespace {

using namespace std::string_view_literals;

char lower(char c) noexcept { return c >= 'A' && c <= 'Z' ? static_cast<char>(c - 'A' + 'a') : c; }

bool isAlphanumeric(char c) noexcept {
  return (c >= '0' && c <= '9') || (lower(c) >= 'a' && lower(c) <= 'z');
}

bool isTokenCharacter(char c) noexcept {
  return isAlphanumeric(c) || "!#$%&'*+-.^_`|~"sv.find(c) != std::string_view::npos;
}

template <std::size_t count>
bool isOneOf(std::string_view name, const std::array<std::string_view, count>& names) noexcept {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

std::string lowerCased(std::string_view text) {
  std::string result(text);
  std::transform(result.begin(), result.end(), result.begin(), lower);
  return result;
}

bool isToken(std::string_view text) noexcept {
  return !text.empty() && std::all_of(text.begin(), text.end(), isTokenCharacter);
}

bool hasControlCharacter(std::string_view text, Tab tab) noexcept {
  return std::any_of(text.begin(), text.end(), [tab](char c) {
    const auto byte = static_cast<unsigned char>(c);
    return (byte < 0x20 || byte == 0x7F) && !(tab == Tab::Allowed && c == '\t');
  });
}

bool belongsToTransport(std::string_view lowerCaseName) noexcept {
  static constexpr std::array names{"content-length"sv, "transfer-encoding"sv, "connection"sv,
                                    "expect"sv,         "upgrade"sv,           "te"sv,
                                    "trailer"sv};
  return isOneOf(lowerCaseName, names);
}

bool isSecret(std::string_view headerName) noexcept {
  static constexpr std::array names{"authorization"sv, "proxy-authorization"sv, "cookie"sv};
  const auto equal = [headerName](std::string_view name) {
    return std::equal(name.begin(), name.end(), headerName.begin(), headerName.end(),
                      [](char a, char b) { return a == lower(b); });
  };
  return std::any_of(names.begin(), names.end(), equal);
}

bool isForConfiguredServerOnly(std::string_view lowerCaseName) noexcept {
  static constexpr std::array names{"authorization"sv, "proxy-authorization"sv, "cookie"sv,
                                    "host"sv};
  return isOneOf(lowerCaseName, names);
}

}  // namespace connectivity::plugins
