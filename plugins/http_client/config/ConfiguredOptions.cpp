// The options in the order in which they are read, then what follows from them.
#include "plugins/http_client/config/ConfiguredOptions.hpp"

#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string_view>

#include "plugins/http_client/config/OptionReader.hpp"
#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/text/HostName.hpp"

namespace connectivity::plugins {

namespace {

constexpr OptionReader::Range anyPort{1, 65535};
constexpr OptionReader::Range atLeastOne{.least = 1};
constexpr OptionReader::Range atLeastMinusOne{.least = -1};

// Authentication types are compared in lower case by those who use them.
std::string readAuthenticationType(OptionReader& reader, const char* name) {
  return reader.oneOf(name, authTypes()(), "none") == "none" ? "none" : "http_basic";
}

void readServer(OptionReader& reader, ConfiguredOptions& options) {
  ConfiguredOptions::Tls& tls = options.tls;
  options.host = reader.text("host");
  options.port = reader.integer("port", options.port, anyPort);
  options.timeoutSecs = reader.integer("timeoutSecs", options.timeoutSecs);
  tls.enabled = reader.boolean("tls", tls.enabled);
  const OptionReader::Name authorities{"tlsCertificateAuthorityFile", "certificateAuthorityPath"};
  tls.certificateAuthorityOption = reader.spelling(authorities);
  tls.certificateAuthorityFile = reader.text(authorities);
  tls.acceptUnrecognizedCertificates =
      reader.boolean({"tlsAcceptUnrecognizedCertificates", "acceptUnrecognizedCertificates"},
                     tls.acceptUnrecognizedCertificates);
  ConfiguredOptions::Credentials& own = options.authentication;
  own.authenticationType = readAuthenticationType(reader, "authentication/authenticationType");
  own.username = reader.text({"authentication/username", "authentication/user"});
  own.password = reader.text("authentication/password");
  options.basePath = reader.text("basePath");
}

void readProxy(OptionReader& reader, ConfiguredOptions::Proxy& proxy) {
  ConfiguredOptions::Credentials& own = proxy.authentication;
  proxy.host = reader.text("proxy/host");
  proxy.port = reader.integer("proxy/port", proxy.port);
  own.authenticationType =
      readAuthenticationType(reader, "proxy/authentication/authenticationType");
  own.username = reader.text({"proxy/authentication/username", "proxy/authentication/user"});
  own.password = reader.text("proxy/authentication/password");
}

void readBehaviour(OptionReader& reader, ConfiguredOptions& options) {
  options.followRedirects = reader.boolean("followRedirects", options.followRedirects);
  options.cookieJar = reader.boolean("cookieJar", options.cookieJar);
  options.numClients = reader.integer("numClients", options.numClients, atLeastOne);
  options.maxResponseKB = reader.integer("maxResponseKB", options.maxResponseKB, atLeastMinusOne);
  options.maxResponsePolicy =
      reader.oneOf("maxResponsePolicy", responsePolicies()(), options.maxResponsePolicy);
}

// "PATCH, OPTIONS" -> {"PATCH", "OPTIONS"}; what stands between the commas is checked later.
std::vector<std::string> split(std::string_view names) {
  std::vector<std::string> result;
  if (trimmed(names).empty()) return result;
  for (std::size_t end = 0; end != std::string_view::npos;) {
    end = names.find(',');
    result.emplace_back(trimmed(names.substr(0, end)));
    if (end != std::string_view::npos) names.remove_prefix(end + 1);
  }
  return result;
}

void readFurther(OptionReader& reader, ConfiguredOptions& options) {
  constexpr std::int64_t absent = 0;  // is in no deadline's range
  const std::int64_t deadline = reader.integer("deadlineSecs", absent, atLeastOne);
  if (deadline != absent) options.deadlineSecs = deadline;
  options.tls.clientCertificateFile = reader.text("tlsClientCertificateFile");
  options.tls.clientKeyFile = reader.text("tlsClientKeyFile");
  options.tls.clientKeyPassword = reader.text("tlsClientKeyPassword");
  options.additionalMethods = split(reader.text("additionalMethods"));
  options.markFailures = reader.boolean("markFailures", options.markFailures);
}

void require(bool fact, const std::string& otherwise) {
  if (!fact) throw std::runtime_error("HTTPClient configuration " + otherwise);
}

void checkHost(const std::string& host, const char* option) {
  if (const char* const fault = faultOfHost(host)) {
    require(false, std::string(option) + " " + fault);
  }
}

void checkMethods(const std::vector<std::string>& methods) {
  for (const std::string& method : methods) {
    const bool hasSmall =
        std::any_of(method.begin(), method.end(), [](char c) { return c >= 'a' && c <= 'z'; });
    require(isToken(method) && !hasSmall,
            "additionalMethods \"" + method + "\" is not a method in upper case");
    require(method != "CONNECT", "additionalMethods must not name CONNECT");
  }
}

void check(const ConfiguredOptions& options) {
  const ConfiguredOptions::Proxy& proxy = options.proxy;
  require(!options.host.empty(), "host must be given");
  checkHost(options.host, "host");
  checkHost(proxy.host, "proxy/host");
  require(proxy.host.empty() || (proxy.port >= 1 && proxy.port <= 65535),
          "proxy/port must be between 1 and 65535");
  require(options.timeoutSecs > 0, "timeoutSecs must be more than 0");
  // Each worker is a thread with a connection: a slip of the finger must not exhaust the machine.
  require(options.numClients <= ConfiguredOptions::mostClients,
          "numClients must not be more than 4096");
  const ConfiguredOptions::Tls& tls = options.tls;
  require(tls.clientCertificateFile.empty() == tls.clientKeyFile.empty(),
          "tlsClientCertificateFile and tlsClientKeyFile must be given together");
  require(tls.enabled || tls.clientCertificateFile.empty(),
          "tlsClientCertificateFile must not be given without tls");
  checkMethods(options.additionalMethods);
}

void complete(ConfiguredOptions& options) {
  if (options.port == ConfiguredOptions::portUnset) options.port = options.tls.enabled ? 443 : 80;
  options.host = withoutBrackets(options.host);
  options.proxy.host = withoutBrackets(options.proxy.host);
}

}  // namespace

ConfiguredOptions ConfiguredOptions::parse(const map_t& configuration) {
  OptionReader reader("HTTPClient configuration", configuration);
  ConfiguredOptions options;
  readServer(reader, options);
  readProxy(reader, options.proxy);
  readBehaviour(reader, options);
  readFurther(reader, options);
  reader.finish();
  check(options);
  complete(options);
  return options;
}

std::int64_t limitBytes(std::int64_t kilobytes) noexcept {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  if (kilobytes < 0) return -1;
  return kilobytes > most / 1000 ? most : kilobytes * 1000;
}

}  // namespace connectivity::plugins
