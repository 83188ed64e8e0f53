// The URL and the proxy address of `orrery-host request`, taken apart (RFC 3986).
//
// What is wrong is a UsageError that names the text, without the credentials in it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace host {

struct Credentials {
  std::string user;
  std::string password;
};

struct RequestUrl {
  bool tls = false;
  std::string host;         // an IPv6 address without its brackets
  std::optional<int> port;  // absent: the scheme's
  std::optional<Credentials> credentials;
  std::string target;  // path and query as they were given, "/" in front; no fragment
};

struct ProxyAddress {
  std::string host;
  int port = 1080;  // curl's
  std::optional<Credentials> credentials;
};

// http://[USER[:PASSWORD]@]HOST[:PORT][/PATH][?QUERY], or https. User and password are
// percent-decoded, path and query are not.
RequestUrl parseRequestUrl(const std::string& text);

// [http://][USER[:PASSWORD]@]HOST[:PORT][/].
ProxyAddress parseProxyAddress(const std::string& text);

// "USER:PASSWORD", as it stands. `option` is for the error, which does not show the text.
Credentials parseCredentials(const std::string& option, const std::string& text);

}  // namespace host
