#include "plugins/http_client/text/PercentEncoding.hpp"

#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

// May stand in a path or a query as it is, `extra` aside.
bool isPlain(char c, std::string_view extra) noexcept {
  constexpr std::string_view punctuation = "-._~!$&'()*+,;=:@/";
  return isAlphanumeric(c) || punctuation.find(c) != std::string_view::npos ||
         extra.find(c) != std::string_view::npos;
}

std::optional<std::string> encoded(std::string_view text, std::string_view extra) {
  std::string out;
  out.reserve(text.size() + 16);
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '%') {
      const bool whole =
          text.size() - at >= 3 && hexDigit(text[at + 1]) >= 0 && hexDigit(text[at + 2]) >= 0;
      if (!whole) return std::nullopt;
      out.push_back(c);
    } else if (isPlain(c, extra)) {
      out.push_back(c);
    } else {
      appendPercentEncoded(out, c);
    }
  }
  return out;
}

}  // namespace

std::optional<std::string> encodedPath(std::string_view path) { return encoded(path, {}); }
std::optional<std::string> encodedQuery(std::string_view query) { return encoded(query, "?"); }

PathAndQuery splitQuery(std::string_view text) noexcept {
  text = text.substr(0, text.find('#'));
  const std::size_t mark = text.find('?');
  if (mark == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, mark), text.substr(mark + 1)};
}

}  // namespace connectivity::plugins
