// The way to a server: its name, whether TLS is spoken, and the proxy in between.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

#include <Poco/Net/Context.h>

namespace connectivity::plugins {

struct Proxy {
  std::string host;
  std::uint16_t port = 0;
  std::string authorization;  // the value of Proxy-Authorization; empty: none is sent
};

struct Route {
  std::string host;  // a name or an IP address, without brackets
  std::uint16_t port = 0;
  Poco::Net::Context::Ptr tls;  // null: plain HTTP
  std::optional<Proxy> proxy;
  std::chrono::milliseconds timeout{0};  // of each wait on the network

  bool secure() const noexcept { return !tls.isNull(); }
  // HTTPS through a proxy: it is asked for a tunnel to the server, and sees nothing else.
  bool tunnelled() const noexcept { return secure() && proxy.has_value(); }
};

// "host:port", an IPv6 address in brackets.
inline std::string authority(const std::string& host, std::uint16_t port) {
  const bool isIPv6 = host.find(':') != std::string::npos;
  std::string text;
  text.append(isIPv6 ? "[" : "").append(host).append(isIPv6 ? "]" : "");
  return text.append(":").append(std::to_string(port));
}

}  // namespace connectivity::plugins
