#include "plugins/http_client/wire/Route.hpp"

namespace connectivity::plugins {

std::string authority(const std::string& host, std::uint16_t port) {
  const bool isIPv6 = host.find(':') != std::string::npos;
  std::string text;
  text.append(isIPv6 ? "[" : "").append(host).append(isIPv6 ? "]" : "");
  return text.append(":").append(std::to_string(port));
}

}  // namespace connectivity::plugins
