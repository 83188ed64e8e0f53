// The transport's configuration, read once from the map that the host gives to create.
//
// parse() is the one place where it is read, checked and completed; the transport keeps the result
// as a constant, which any thread may read. All errors are std::runtime_error (the texts for a
// single option are in OptionReader.hpp).
#pragma once

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

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
  // Errors beside those of single options, in the order in which they are looked for:
  //   "You cannot specify both <spelling> and <older spelling>"
  //   "Unknown configuration element <key>", with " in <map>" for a nested one; all that are
  //   unknown, separated by "; "
  // and, each after "HTTPClient configuration ":
  //   "host must be given" (absent or empty)
  //   "host <fault>" and "proxy/host <fault>", with the faults of text/HostName.hpp
  //   "proxy/port must be between 1 and 65535" (a proxy without a port)
  //   "timeoutSecs must be more than 0"
  //   "numClients must not be more than 4096"
  //   "tlsClientCertificateFile and tlsClientKeyFile must be given together"
  //   "tlsClientCertificateFile must not be given without tls"
  //   "additionalMethods "<name>" is not a method in upper case" (of the first one that is not)
  //   "additionalMethods must not name CONNECT"
  static ConfiguredOptions parse(const map_t& configuration);

  struct Tls {
    bool enabled = false;                         // HTTPS
    std::string certificateAuthorityFile;         // PEM; empty: the system's authorities alone
    std::string certificateAuthorityOption;       // under which of its names it was given
    bool acceptUnrecognizedCertificates = false;  // no verification: for tests only
    // For the configured server alone. Both files or neither.
    std::string clientCertificateFile;  // PEM, with its chain
    std::string clientKeyFile;          // PEM
    std::string clientKeyPassword;      // empty: the key is not encrypted
  };
  struct Credentials {
    bool used() const { return authenticationType != "none"; }
    std::string authenticationType = "none";  // or http_basic
    std::string username;
    std::string password;
  };
  struct Proxy {
    std::string host;               // empty: no proxy. An IPv6 address has no brackets
    std::int64_t port = portUnset;  // 1..65535 where there is a proxy
    Credentials authentication;     // towards the proxy
  };

  std::string host;                          // the server; never empty. As that of the proxy
  std::int64_t port = portUnset;             // 1..65535; by default 443 with tls, else 80
  std::int64_t timeoutSecs = 120;            // of each wait on the network; more than 0
  std::optional<std::int64_t> deadlineSecs;  // of a whole request, at least 1
  Tls tls;
  Credentials authentication;  // towards the server
  std::string basePath;        // stands before every request's path
  Proxy proxy;
  bool followRedirects = true;
  bool cookieJar = true;                       // send back the cookies that responses set
  std::int64_t numClients = 1;                 // workers, each with a connection: 1..4096
  std::int64_t maxResponseKB = -1;             // kilobytes of 1000 bytes; -1: no limit
  std::string maxResponsePolicy = "REJECT";    // or TRUNCATE_END or TRUNCATE_START
  std::vector<std::string> additionalMethods;  // tokens in upper case. May repeat accepted ones
  bool markFailures = false;                   // error answers carry http.failure

  static constexpr std::int64_t portUnset = -99999;
  static constexpr std::int64_t mostClients = 4096;
};

}  // namespace connectivity::plugins
