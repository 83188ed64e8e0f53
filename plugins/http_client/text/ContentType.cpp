#include "plugins/http_client/text/ContentType.hpp"

#include <algorithm>
#include <cstddef>

#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

constexpr std::string_view defaultCharset = "utf-8";

// "type/subtype"; empty where the value is malformed.
std::string_view mediaTypeIn(std::string_view value) {
  const std::string_view type = trimmed(value.substr(0, value.find(';')));
  const std::size_t slash = type.find('/');
  if (slash == std::string_view::npos) return {};
  const bool isMediaType = isToken(type.substr(0, slash)) && isToken(type.substr(slash + 1));
  return isMediaType ? type : std::string_view();
}

// Takes a parameter's value off the front of `rest`, with the semicolon that ends it; quotes and
// escapes are undone.
std::string takeValue(std::string_view& rest) {
  std::string value;
  bool quoted = false;
  std::size_t at = 0;
  for (; at < rest.size() && (quoted || rest[at] != ';'); ++at) {
    if (rest[at] == '"') {
      quoted = !quoted;
    } else {
      if (rest[at] == '\\' && at + 1 < rest.size()) ++at;
      value.push_back(rest[at]);
    }
  }
  rest.remove_prefix(std::min(at + 1, rest.size()));
  return std::string(trimmed(value));
}

// The first charset among the parameters; empty where there is none.
std::string charsetIn(std::string_view parameters) {
  while (!parameters.empty()) {
    const std::size_t end = std::min(parameters.find_first_of("=;"), parameters.size());
    const std::string_view name = trimmed(parameters.substr(0, end));
    const bool hasValue = end < parameters.size() && parameters[end] == '=';
    parameters.remove_prefix(std::min(end + 1, parameters.size()));
    if (!hasValue) continue;
    std::string value = takeValue(parameters);
    if (equalsIgnoringCase(name, "charset")) return value;
  }
  return {};
}

}  // namespace

ContentType readContentType(std::optional<std::string_view> headerValue) {
  const std::string_view value = headerValue.value_or(std::string_view());
  const std::string_view type = mediaTypeIn(value);
  if (type.empty()) return {"", std::string(defaultCharset)};
  const std::size_t end = std::min(value.find(';'), value.size());
  const std::string charset = lowerCased(charsetIn(value.substr(end)));
  const bool isDefault = charset.empty() || charset == "utf8";
  return {std::string(type), isDefault ? std::string(defaultCharset) : charset};
}

std::string trimmingCharset(std::optional<std::string_view> headerValue) {
  constexpr std::string_view name = "charset=";
  constexpr std::size_t startOfMiss = 7;
  const std::string value = lowerCased(headerValue.value_or(std::string_view()));
  if (mediaTypeIn(value).empty()) return std::string(defaultCharset);
  // Where there is no charset, the start is by definition the eighth byte: the rest from there is
  // never "utf-8", so no cut character is taken away.
  const std::size_t found = value.rfind(name);
  const std::size_t start = found == std::string::npos ? startOfMiss : found + name.size();
  return value.substr(std::min(start, value.size()));
}

}  // namespace connectivity::plugins
