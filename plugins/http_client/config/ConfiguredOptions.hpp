// The transport's configuration, read once from the map that the host gives to create.
//
// parse() is the one place where it is read, checked and completed; the transport keeps the result
// as a constant, which any thread may read. All errors are std::runtime_error (the texts for a
// single option are in OptionReader.hpp).
#pragma once

#include <array>
#include <cstdint>
#include <string>

#include "connectivity/map_t.hpp"

namespace connectivity::plugins {

// The accepted values of the two enumerations, as they are spelt.
struct authTypes {
  std::array<const char*, 2> operator()() const noexcept { return {"none", "HTTP_BASIC"}; }
};
struct responsePolicies {
  std::array<const char*, 3> operator()() const noexcept {
    return {"REJECT", "TRUNCATE_END", "TRUNCATE_START"};
  }
};

// The limit in bytes of a limit in kilobytes of 1000 bytes, at most the largest 64-bit number; -1,
// no limit, for every negative one.
std::int64_t limitBytes(std::int64_t kilobytes) noexcept;

struct ConfiguredOptions {
  // Errors beside those of single options:
  //   "HTTPClient configuration host must be given" (absent or empty)
  //   "HTTPClient configuration proxy/port must be between 1 and 65535" (a proxy without a port)
  //   "HTTPClient configuration timeoutSecs must be more than 0"
  //   "HTTPClient configuration numClients must not be more than 4096"
  //   "You cannot specify both <spelling> and <older spelling>"
  //   "Unknown configuration element <key>", with " in <map>" for a nested one; all that are
  //   unknown, separated by "; "
  static ConfiguredOptions parse(const map_t& configuration);

  std::string host;                                // the server; never empty
  std::int64_t port = portUnset;                   // 1..65535; by default 443 with tls, else 80
  std::int64_t timeoutSecs = 120;                  // of each wait on the network; more than 0
  bool tls = false;                                // HTTPS
  std::string tlsCertificateAuthorityFile;         // PEM; empty: the system's authorities alone
  bool tlsAcceptUnrecognizedCertificates = false;  // no verification: for tests only
  std::string authenticationType = "none";         // towards the server: none or http_basic
  std::string username;
  std::string password;
  std::string basePath;                          // stands before every request's path
  std::string proxyHost;                         // empty: no proxy
  std::int64_t proxyPort = portUnset;            // 1..65535 where there is a proxy
  std::string proxyAuthenticationType = "none";  // none or http_basic
  std::string proxyUsername;
  std::string proxyPassword;
  bool followRedirects = true;
  bool cookieJar = true;                     // send back the cookies that responses set
  std::int64_t numClients = 1;               // workers, each with a connection: 1..4096
  std::int64_t maxResponseKB = -1;           // kilobytes of 1000 bytes; -1: no limit
  std::string maxResponsePolicy = "REJECT";  // or TRUNCATE_END or TRUNCATE_START
  bool useServerAuthentication = false;      // authenticationType is not none

  static constexpr std::int64_t portUnset = -99999;
  static constexpr std::int64_t mostClients = 4096;
};

}  // namespace connectivity::plugins
