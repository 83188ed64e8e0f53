#include "host/request/RequestUrl.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <array>
#include <charconv>
#include <utility>

#include <Poco/String.h>

#include "host/program/UsageError.hpp"

namespace host {

namespace {

constexpr std::string_view schemeEnd = "://";

// The text without user and password, for errors.
std::string shown(std::string_view text) {
  const auto scheme = text.find(schemeEnd);
  const auto begin = scheme == std::string_view::npos ? 0 : scheme + schemeEnd.size();
  const auto end = std::min(text.find_first_of("/?#", begin), text.size());
  const auto at = text.substr(begin, end - begin).rfind('@');
  if (at == std::string_view::npos) return std::string(text);
  return std::string(text.substr(0, begin)).append(text.substr(begin + at + 1));
}

bool isControl(char character) {
  return static_cast<unsigned char>(character) < 0x20 || character == 0x7F;
}

// The byte that "%" and two digits stand for; nothing where they do not.
std::optional<char> percentDecoded(std::string_view escape) {
  unsigned value = 0;
  if (escape.size() < 3) return std::nullopt;
  const auto [end, error] = std::from_chars(escape.data() + 1, escape.data() + 3, value, 16);
  if (error != std::errc() || end != escape.data() + 3) return std::nullopt;
  return static_cast<char>(value);
}

struct Authority {
  std::optional<Credentials> credentials;
  std::string host;
  std::optional<int> port;
};

// Takes a URL apart; every error names it by what it is: "URL" or the option.
class UrlReader {
 public:
  UrlReader(std::string what, std::string_view text) : _what(std::move(what)), _text(text) {
    if (std::any_of(text.begin(), text.end(), isControl)) fail("must not hold control characters");
  }

  [[noreturn]] void fail(const std::string& text) const {
    throw UsageError(_what + " " + shown(_text) + ": " + text);
  }

  // The scheme in lower case; empty where there is none. What follows is left.
  std::string takeScheme() {
    const auto end = _text.find(schemeEnd, _at);
    if (end == std::string_view::npos || _text.find_first_of("/?#") < end) return {};
    std::string scheme = Poco::toLower(std::string(_text.substr(0, end)));
    _at = end + schemeEnd.size();
    return scheme;
  }

  Authority takeAuthority() {
    const auto end = std::min(_text.find_first_of("/?#", _at), _text.size());
    std::string_view text = _text.substr(_at, end - _at);
    _at = end;
    Authority authority;
    if (const auto at = text.rfind('@'); at != std::string_view::npos) {
      authority.credentials = credentialsIn(text.substr(0, at));
      text.remove_prefix(at + 1);
    }
    authority.host = takeHost(text);
    authority.port = portIn(text);
    return authority;
  }

  std::string_view rest() const { return _text.substr(_at); }

 private:
  Credentials credentialsIn(std::string_view text) const {
    const auto colon = text.find(':');
    Credentials credentials{decoded(text.substr(0, colon)), {}};
    if (colon != std::string_view::npos) credentials.password = decoded(text.substr(colon + 1));
    return credentials;
  }

  std::string decoded(std::string_view text) const {
    std::string out;
    for (std::size_t i = 0; i < text.size(); ++i) {
      if (text[i] != '%') {
        out += text[i];
        continue;
      }
      const auto byte = percentDecoded(text.substr(i));
      if (!byte || *byte == '\0') fail("user and password hold a broken escape");
      out += *byte;
      i += 2;
    }
    return out;
  }

  // Takes the host from the front; what is left is the port with its colon, or nothing.
  std::string takeHost(std::string_view& text) const {
    if (text.starts_with('[')) return takeAddress(text);
    const auto end = std::min(text.find(':'), text.size());
    std::string host(text.substr(0, end));
    text.remove_prefix(end);
    if (host.empty()) fail("the host is missing");
    if (const auto bad = host.find_first_of(" \"%<>[\\]^`{|}"); bad != std::string::npos) {
      fail(std::string("the host must not hold ") + host[bad]);
    }
    return host;
  }

  // An IPv6 address in brackets.
  std::string takeAddress(std::string_view& text) const {
    const auto end = text.find(']');
    if (end == std::string_view::npos) fail("the bracket behind the address is missing");
    std::string address(text.substr(1, end - 1));
    text.remove_prefix(end + 1);
    std::array<unsigned char, 16> ignored{};
    if (::inet_pton(AF_INET6, address.c_str(), ignored.data()) != 1) {
      fail(address + " is not an IPv6 address");
    }
    return address;
  }

  std::optional<int> portIn(std::string_view text) const {
    if (text.empty() || text == ":") return std::nullopt;
    int port = 0;
    const char* begin = text.data() + 1;
    const char* end = text.data() + text.size();
    const auto [stop, error] = std::from_chars(begin, end, port);
    if (!text.starts_with(':') || error != std::errc() || stop != end || port < 1 || port > 65535) {
      fail("the port must be a number between 1 and 65535");
    }
    return port;
  }

  const std::string _what;
  const std::string_view _text;
  std::size_t _at = 0;
};

void refuseBrokenEscapes(std::string_view target, const UrlReader& reader) {
  for (auto at = target.find('%'); at != std::string_view::npos; at = target.find('%', at + 1)) {
    if (percentDecoded(target.substr(at))) continue;
    reader.fail(std::string(target.substr(at, 3)) + " is not a percent-encoded byte (% is %25)");
  }
}

}  // namespace

RequestUrl parseRequestUrl(const std::string& text) {
  UrlReader reader("URL", text);
  const std::string scheme = reader.takeScheme();
  if (scheme != "http" && scheme != "https") {
    const std::string hint = scheme.empty() ? " (did you mean http://" + shown(text) + "?)" : "";
    reader.fail("must begin with http:// or https://" + hint);
  }
  Authority authority = reader.takeAuthority();
  std::string target(reader.rest().substr(0, reader.rest().find('#')));
  if (!target.starts_with('/')) target.insert(target.begin(), '/');
  refuseBrokenEscapes(target, reader);
  return {scheme == "https", std::move(authority.host), authority.port,
          std::move(authority.credentials), std::move(target)};
}

ProxyAddress parseProxyAddress(const std::string& text) {
  UrlReader reader("-x", text);
  const std::string scheme = reader.takeScheme();
  if (!scheme.empty() && scheme != "http") reader.fail("must be an http proxy");
  Authority authority = reader.takeAuthority();
  if (!reader.rest().empty() && reader.rest() != "/") reader.fail("must not have a path");
  ProxyAddress proxy;
  proxy.host = std::move(authority.host);
  proxy.port = authority.port.value_or(proxy.port);
  proxy.credentials = std::move(authority.credentials);
  return proxy;
}

Credentials parseCredentials(const std::string& option, const std::string& text) {
  const auto colon = text.find(':');
  if (colon == std::string::npos) throw UsageError(option + ": must be USER:PASSWORD");
  return {text.substr(0, colon), text.substr(colon + 1)};
}

}  // namespace host
