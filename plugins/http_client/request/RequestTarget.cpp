#include "plugins/http_client/request/RequestTarget.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <Poco/Net/IPAddress.h>
#include <Poco/String.h>
#include <Poco/URI.h>

namespace connectivity::plugins {

namespace {

bool isAlphanumeric(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z');
}

bool isHex(char c) noexcept {
  return (c >= '0' && c <= '9') || (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F');
}

// May stand in a path or a query as it is (RFC 3986, 3.3 and 3.4), `extra` aside.
bool isPlain(char c, std::string_view extra) noexcept {
  constexpr std::string_view punctuation = "-._~!$&'()*+,;=:@/";
  return isAlphanumeric(c) || punctuation.find(c) != std::string_view::npos ||
         extra.find(c) != std::string_view::npos;
}

void appendEncoded(std::string& out, char c) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto byte = static_cast<unsigned char>(c);
  out.push_back('%');
  out.push_back(digits[byte >> 4U]);
  out.push_back(digits[byte & 0xFU]);
}

// The text with every character encoded that may not stand there; nothing where an escape is
// broken.
std::optional<std::string> encoded(std::string_view text, std::string_view extra) {
  std::string out;
  out.reserve(text.size() + 16);
  for (std::size_t at = 0; at < text.size(); ++at) {
    const char c = text[at];
    if (c == '%') {
      if (text.size() - at < 3 || !isHex(text[at + 1]) || !isHex(text[at + 2])) {
        return std::nullopt;
      }
      out.push_back(c);
    } else if (isPlain(c, extra)) {
      out.push_back(c);
    } else {
      appendEncoded(out, c);
    }
  }
  return out;
}

std::optional<std::string> encodedPath(std::string_view path) { return encoded(path, {}); }
std::optional<std::string> encodedQuery(std::string_view query) { return encoded(query, "?"); }

std::string mustBeEncoded(std::optional<std::string> text, const char* item,
                          std::string_view given) {
  if (!text) {
    throw std::runtime_error(std::string("Invalid percent-encoding in ") + item + ": " +
                             std::string(given));
  }
  return *std::move(text);
}

// A reference without its fragment, split before its query.
struct PathAndQuery {
  std::string_view path;
  std::optional<std::string_view> query;  // without the "?"
};

PathAndQuery split(std::string_view text) {
  text = text.substr(0, text.find('#'));
  const std::size_t mark = text.find('?');
  if (mark == std::string_view::npos) return {text, std::nullopt};
  return {text.substr(0, mark), text.substr(mark + 1)};
}

std::uint16_t defaultPort(std::string_view scheme) noexcept {
  if (scheme == "http") return 80;
  return scheme == "https" ? 443 : 0;
}

// RFC 3986, 5.2.4. `path` begins with "/".
std::string withoutDotSegments(std::string_view path) {
  std::string out;
  while (!path.empty()) {
    const std::size_t end = std::min(path.find('/', 1), path.size());
    const std::string_view segment = path.substr(1, end - 1);
    const bool last = end == path.size();
    if (segment == "..") out.erase(std::min(out.rfind('/'), out.size()));
    if (segment == "." || segment == "..") {
      if (last) out.push_back('/');
    } else {
      out.append(path.substr(0, end));
    }
    path.remove_prefix(end);
  }
  return out;
}

// A Location header on its way to an absolute URI.
class Reference {
 public:
  explicit Reference(const std::string& text) : _text(text), _rest(_text) {}

  Location resolve(const Location& current) {
    Location result = current;
    const bool absolute = takeScheme(result);
    const bool hasAuthority = takeAuthority(result, absolute);
    if (absolute && !hasAuthority) {
      if (defaultPort(result.scheme) != 0) reject("no host");
      result.host.clear();
      result.port = 0;
      result.target = std::string(_rest);
      return result;
    }
    result.target = target(current.target, hasAuthority);
    return result;
  }

 private:
  [[noreturn]] void reject(const char* reason) const {
    throw std::runtime_error(std::string("Invalid Location header (") + reason + "): " + _text);
  }

  bool takeScheme(Location& result) {
    const std::size_t colon = _rest.find_first_of(":/?#");
    if (colon == std::string_view::npos || _rest[colon] != ':') return false;
    const std::string_view scheme = _rest.substr(0, colon);
    const bool wellFormed =
        !scheme.empty() && std::isalpha(static_cast<unsigned char>(scheme.front())) != 0 &&
        std::all_of(scheme.begin(), scheme.end(),
                    [](char c) { return isAlphanumeric(c) || c == '+' || c == '-' || c == '.'; });
    if (!wellFormed) reject("malformed scheme");
    result.scheme = Poco::toLower(std::string(scheme));
    _rest.remove_prefix(colon + 1);
    return true;
  }

  bool takeAuthority(Location& result, bool absolute) {
    if (!_rest.starts_with("//")) return false;
    _rest.remove_prefix(2);
    std::string_view authority = _rest.substr(0, _rest.find_first_of("/?#"));
    _rest.remove_prefix(authority.size());
    const std::size_t user = authority.rfind('@');
    if (user != std::string_view::npos) authority.remove_prefix(user + 1);
    result.port = defaultPort(result.scheme);
    result.host = Poco::toLower(takeHost(authority));
    takePort(authority, result);
    if (result.host.empty() && (!absolute || result.port != 0)) reject("no host");
    return true;
  }

  // Removes the host from the front of `authority`.
  std::string takeHost(std::string_view& authority) const {
    if (authority.starts_with('[')) return takeIPv6Host(authority);
    std::string host(authority.substr(0, authority.find(':')));
    const bool wellFormed = std::all_of(host.begin(), host.end(), [](char c) {
      return isAlphanumeric(c) || c == '-' || c == '.' || c == '_' || c == '~';
    });
    if (!wellFormed) reject("malformed host");
    authority.remove_prefix(host.size());
    return host;
  }

  std::string takeIPv6Host(std::string_view& authority) const {
    const std::size_t end = authority.find(']');
    if (end == std::string_view::npos) reject("malformed host");
    std::string host(authority.substr(1, end - 1));
    Poco::Net::IPAddress address;
    if (host.find(':') == std::string::npos || !Poco::Net::IPAddress::tryParse(host, address)) {
      reject("malformed host");
    }
    authority.remove_prefix(end + 1);
    return host;
  }

  void takePort(std::string_view authority, Location& result) const {
    if (authority.empty()) return;
    authority.remove_prefix(1);
    if (authority.empty()) return;
    std::uint16_t port = 0;
    const char* const end = authority.data() + authority.size();
    const auto [stop, error] = std::from_chars(authority.data(), end, port);
    if (error != std::errc() || stop != end || port == 0) reject("malformed port");
    result.port = port;
  }

  std::string target(const std::string& currentTarget, bool hasAuthority) const {
    const PathAndQuery reference = split(_rest);
    const PathAndQuery base = split(currentTarget);
    std::string path(reference.path);
    std::optional<std::string_view> query = reference.query;
    if (path.empty() && !hasAuthority) {
      path = base.path;
      if (!query) query = base.query;
    } else if (!path.starts_with('/')) {
      path.insert(0, merged(base.path, hasAuthority));
    }
    if (!path.starts_with('/')) path.insert(0, 1, '/');
    std::string result = mustBeWhole(encodedPath(withoutDotSegments(path)));
    if (query) result.append("?").append(mustBeWhole(encodedQuery(*query)));
    return result;
  }

  // The base path up to its last "/".
  static std::string merged(std::string_view basePath, bool hasAuthority) {
    const std::size_t slash = hasAuthority ? std::string_view::npos : basePath.rfind('/');
    return slash == std::string_view::npos ? "/" : std::string(basePath.substr(0, slash + 1));
  }

  std::string mustBeWhole(std::optional<std::string> text) const {
    if (!text) reject("broken percent-encoding");
    return *std::move(text);
  }

  const std::string& _text;
  std::string_view _rest;
};

}  // namespace

std::string requestTarget(const std::string& basePath, const std::string& path,
                          const std::map<std::string, std::string>& query) {
  const std::string joined = basePath + path;
  const PathAndQuery given = split(joined);
  std::string target = mustBeEncoded(encodedPath(given.path), "http.path", given.path);
  if (!target.starts_with('/')) target.insert(0, 1, '/');
  if (given.query) {
    target.append("?").append(
        mustBeEncoded(encodedQuery(*given.query), "the query of http.path", *given.query));
  }
  if (query.empty()) return target;
  Poco::URI parameters;
  for (const auto& [name, value] : query) parameters.addQueryParameter(name, value);
  const bool queryIsOpen = given.query && given.query->empty();
  if (!queryIsOpen) target += given.query ? "&" : "?";
  return target + parameters.getRawQuery();
}

Location resolveLocation(const Location& current, const std::string& location) {
  const std::string text = Poco::trim(location);
  return Reference(text).resolve(current);
}

std::string toString(const Location& location) {
  const bool isIPv6 = location.host.find(':') != std::string::npos;
  std::string text = location.scheme + "://";
  text.append(isIPv6 ? "[" : "").append(location.host).append(isIPv6 ? "]" : "");
  if (location.port != defaultPort(location.scheme)) {
    text.append(":").append(std::to_string(location.port));
  }
  return text + location.target;
}

}  // namespace connectivity::plugins
