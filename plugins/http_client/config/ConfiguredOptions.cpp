// The options in the order in which they are read, then what follows from them.
#include "plugins/http_client/config/ConfiguredOptions.hpp"

#include <limits>
#include <stdexcept>

#include "plugins/http_client/config/OptionReader.hpp"

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
  options.host = reader.text("host");
  options.port = reader.integer("port", options.port, anyPort);
  options.timeoutSecs = reader.integer("timeoutSecs", options.timeoutSecs);
  options.tls = reader.boolean("tls", options.tls);
  options.tlsCertificateAuthorityFile =
      reader.text({"tlsCertificateAuthorityFile", "certificateAuthorityPath"});
  options.tlsAcceptUnrecognizedCertificates =
      reader.boolean({"tlsAcceptUnrecognizedCertificates", "acceptUnrecognizedCertificates"},
                     options.tlsAcceptUnrecognizedCertificates);
  options.authenticationType = readAuthenticationType(reader, "authentication/authenticationType");
  options.username = reader.text({"authentication/username", "authentication/user"});
  options.password = reader.text("authentication/password");
  options.basePath = reader.text("basePath");
}

void readProxy(OptionReader& reader, ConfiguredOptions& options) {
  options.proxyHost = reader.text("proxy/host");
  options.proxyPort = reader.integer("proxy/port", options.proxyPort);
  options.proxyAuthenticationType =
      readAuthenticationType(reader, "proxy/authentication/authenticationType");
  options.proxyUsername =
      reader.text({"proxy/authentication/username", "proxy/authentication/user"});
  options.proxyPassword = reader.text("proxy/authentication/password");
}

void readBehaviour(OptionReader& reader, ConfiguredOptions& options) {
  options.followRedirects = reader.boolean("followRedirects", options.followRedirects);
  options.cookieJar = reader.boolean("cookieJar", options.cookieJar);
  options.numClients = reader.integer("numClients", options.numClients, atLeastOne);
  options.maxResponseKB = reader.integer("maxResponseKB", options.maxResponseKB, atLeastMinusOne);
  options.maxResponsePolicy =
      reader.oneOf("maxResponsePolicy", responsePolicies()(), options.maxResponsePolicy);
}

void complete(ConfiguredOptions& options) {
  if (options.port == ConfiguredOptions::portUnset) options.port = options.tls ? 443 : 80;
  options.useServerAuthentication = options.authenticationType != "none";
}

void require(bool fact, const char* otherwise) {
  if (!fact) throw std::runtime_error(std::string("HTTPClient configuration ") + otherwise);
}

void check(const ConfiguredOptions& options) {
  require(!options.host.empty(), "host must be given");
  require(options.proxyHost.empty() || (options.proxyPort >= 1 && options.proxyPort <= 65535),
          "proxy/port must be between 1 and 65535");
  require(options.timeoutSecs > 0, "timeoutSecs must be more than 0");
  // Each worker is a thread with a connection: a slip of the finger must not exhaust the machine.
  require(options.numClients <= ConfiguredOptions::mostClients,
          "numClients must not be more than 4096");
}

}  // namespace

ConfiguredOptions ConfiguredOptions::parse(const map_t& configuration) {
  OptionReader reader("HTTPClient configuration", configuration);
  ConfiguredOptions options;
  readServer(reader, options);
  readProxy(reader, options);
  readBehaviour(reader, options);
  reader.finish();
  complete(options);
  check(options);
  return options;
}

std::int64_t limitBytes(std::int64_t kilobytes) noexcept {
  constexpr std::int64_t most = std::numeric_limits<std::int64_t>::max();
  if (kilobytes < 0) return -1;
  return kilobytes > most / 1000 ? most : kilobytes * 1000;
}

}  // namespace connectivity::plugins
