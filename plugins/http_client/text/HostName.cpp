#include "plugins/http_client/text/HostName.hpp"

#include <algorithm>
#include <arpa/inet.h>
#include <netinet/in.h>

#include "plugins/http_client/text/HeaderRules.hpp"

namespace connectivity::plugins {

namespace {

constexpr auto none = std::string_view::npos;
constexpr const char* portFault = "must not have a port, which is an option of its own";

// An IPv6 address, perhaps with a zone: "fe80::1%eth0".
bool isIpv6(std::string_view text) {
  const std::string address(text.substr(0, text.find('%')));
  in6_addr parsed{};
  return ::inet_pton(AF_INET6, address.c_str(), &parsed) == 1 &&
         (address.size() == text.size() || address.size() + 1 < text.size());
}

const char* faultOfBrackets(std::string_view host) {
  const std::size_t end = host.find(']');
  const bool isAddress = host.front() == '[' && end != none && isIpv6(host.substr(1, end - 1));
  if (!isAddress) return "must hold an IPv6 address between its brackets";
  if (end + 1 == host.size()) return nullptr;
  return host[end + 1] == ':' ? portFault : "must be a name or an address alone";
}

const char* faultOfColons(std::string_view host) {
  switch (std::count(host.begin(), host.end(), ':')) {
    case 0:
      return nullptr;
    case 1:
      return portFault;
    default:
      return isIpv6(host) ? nullptr : "must be an IPv6 address where it has two colons or more";
  }
}

}  // namespace

const char* faultOfHost(std::string_view host) {
  if (host.find(' ') != none || hasControlCharacter(host, Tab::Refused)) {
    return "must not hold blanks or control characters";
  }
  if (host.find("://") != none) return "must not have a scheme";
  if (host.find_first_of("/\\?#@") != none) return "must be a name or an address alone";
  return host.find_first_of("[]") != none ? faultOfBrackets(host) : faultOfColons(host);
}

std::string withoutBrackets(std::string_view host) {
  if (host.starts_with('[') && host.ends_with(']')) host = host.substr(1, host.size() - 2);
  return std::string(host);
}

std::string verifiedName(std::string_view host) {
  if (host.ends_with('.')) host.remove_suffix(1);
  return std::string(host);
}

}  // namespace connectivity::plugins
