#include "plugins/http_client/exchange/SessionHome.hpp"

#include <algorithm>
#include <utility>

#include "plugins/http_client/request/PreparedRequest.hpp"
#include "plugins/http_client/text/Ascii.hpp"

namespace connectivity::plugins {

namespace {

// The largest time-out that a socket takes in whole milliseconds of 31 bits.
constexpr std::int64_t maxTimeoutSecs = 2147483;

std::string proxyAuthorization(const ConfiguredOptions::Credentials& credentials) {
  if (credentials.authenticationType != "http_basic") return {};
  if (credentials.username.empty() && credentials.password.empty()) return {};
  return basicAuthorization(credentials.username, credentials.password);
}

// The value of a Host header: the port only where it is not the scheme's own.
std::string hostField(const Route& route) {
  std::string value = authority(route.host, route.port);
  const std::string_view defaultPort = route.secure() ? ":443" : ":80";
  if (value.ends_with(defaultPort)) value.erase(value.size() - defaultPort.size());
  return value;
}

}  // namespace

SessionHome::SessionHome(const ConfiguredOptions& options, TlsContexts& contexts,
                         Resolver& resolver, const WorkerLog& log)
    : _options(options),
      _contexts(contexts),
      _resolver(resolver),
      _log(log),
      _proxyAuthorization(proxyAuthorization(options.proxy.authentication)),
      _home(setSession(options.host, static_cast<std::uint64_t>(options.port), true)) {}

std::unique_ptr<HttpSession> SessionHome::setSession(const std::string& host, std::uint64_t port,
                                                     bool configuredServer) const {
  logSession(host, port);
  return std::make_unique<HttpSession>(
      routeTo(host, static_cast<std::uint16_t>(port), configuredServer), _resolver);
}

void SessionHome::logSession(const std::string& host, std::uint64_t port) const {
  const auto logPort = static_cast<unsigned long long>(port);
  const std::string& authorities = _options.tls.certificateAuthorityFile;
  if (_options.tls.enabled && !authorities.empty()) {
    _log.transportLog(Level::Info, "Connecting to https://%s:%llu%s using CA file %s", host.c_str(),
                      logPort, _options.basePath.c_str(), authorities.c_str());
  } else {
    _log.transportLog(Level::Info, "Connecting to %s://%s:%llu%s", scheme(), host.c_str(), logPort,
                      _options.basePath.c_str());
  }
  if (!_options.proxy.host.empty()) {
    _log.transportLog(Level::Info, "Connecting via proxy server http://%s:%llu",
                      _options.proxy.host.c_str(),
                      static_cast<unsigned long long>(_options.proxy.port));
  }
}

Route SessionHome::routeTo(const std::string& host, std::uint16_t port,
                           bool configuredServer) const {
  Route route;
  route.host = host;
  route.port = port;
  if (_options.tls.enabled) {
    route.tls =
        configuredServer ? _contexts.contextForConfiguredServer(host) : _contexts.contextFor(host);
  }
  if (!_options.proxy.host.empty()) {
    route.proxy = Proxy{_options.proxy.host, static_cast<std::uint16_t>(_options.proxy.port),
                        _proxyAuthorization};
  }
  route.timeout = std::chrono::seconds(std::min(_options.timeoutSecs, maxTimeoutSecs));
  return route;
}

Destination SessionHome::destination() const {
  const Route& to = route();
  Destination destination;
  destination.isConfiguredServer = atHome();
  destination.hostField = hostField(to);
  if (!to.proxy) return destination;
  destination.proxyAuthorization = to.proxy->authorization;
  if (to.secure()) {
    destination.proxyReads = ProxyReads::Connect;
  } else {
    destination.proxyReads = ProxyReads::EachRequest;
    destination.absolutePrefix = "http://" + authority(to.host, to.port);
  }
  return destination;
}

Location SessionHome::location(std::string target) const {
  return {scheme(), route().host, route().port, std::move(target)};
}

void SessionHome::moveTo(const std::string& host, std::uint16_t port) {
  if (isHome(host, port)) {
    returnHome();
  } else {
    _away = setSession(host, port, false);
  }
}

bool SessionHome::isHome(const std::string& host, std::uint16_t port) const {
  return equalsIgnoringCase(host, _options.host) && port == _options.port;
}

void SessionHome::close() noexcept {
  _away.reset();
  _home->reset();
}

}  // namespace connectivity::plugins
