#include "plugins/http_client/exchange/Location.hpp"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <optional>
#include <stdexcept>
#include <string_view>
#include <utility>

#include <Poco/Net/IPAddress.h>

#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/CharacterSets.hpp"
#include "plugins/http_client/text/PercentEncoding.hpp"

namespace connectivity::plugins {

namespace {

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
  explicit Reference(std::string_view text) noexcept : _text(text), _rest(text) {}

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
    throw std::runtime_error(std::string("Invalid Location header (") + reason +
                             "): " + shownFromWire(_text));
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
    result.scheme = lowerCased(scheme);
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
    result.host = lowerCased(takeHost(authority));
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
    const PathAndQuery reference = splitQuery(_rest);
    const PathAndQuery base = splitQuery(currentTarget);
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

  const std::string_view _text;
  std::string_view _rest;
};

}  // namespace

Location resolveLocation(const Location& current, std::string_view location) {
  return Reference(trimmed(location)).resolve(current);
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
