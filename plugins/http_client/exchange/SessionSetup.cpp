// Opening, moving and resetting a worker's session.
#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <utility>

#include <Poco/Net/HTTPClientSession.h>
#include <Poco/Timespan.h>

#include "plugins/http_client/text/HeaderRules.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "plugins/http_client/worker/ClientSessionThread.hpp"

namespace connectivity::plugins {

namespace {

// The largest time-out that a socket takes in whole milliseconds of 31 bits.
constexpr std::int64_t maxTimeoutSecs = 2147483;

void applyProxy(Poco::Net::HTTPClientSession& session, const ConfiguredOptions& options) {
  Poco::Net::HTTPClientSession::ProxyConfig proxy;
  proxy.host = options.proxyHost;
  proxy.port = static_cast<Poco::UInt16>(options.proxyPort);
  proxy.authMethod = Poco::Net::HTTPClientSession::PROXY_AUTH_NONE;
  if (options.proxyAuthenticationType == "http_basic") {
    proxy.authMethod = Poco::Net::HTTPClientSession::PROXY_AUTH_HTTP_BASIC;
    proxy.username = options.proxyUsername;
    proxy.password = options.proxyPassword;
  }
  session.setProxyConfig(proxy);
}

}  // namespace

std::unique_ptr<PersistentSession> HTTPClient::ClientSessionThread::newSession(
    const std::string& host, std::uint16_t port) const {
  if (!owner.options.tls) return openSession(host, port);
  return openSession(host, port, owner.tlsContexts.contextFor(host));
}

void HTTPClient::ClientSessionThread::setSession(const std::string& host, std::uint64_t port) {
  const ConfiguredOptions& configured = owner.options;
  const auto logPort = static_cast<unsigned long long>(port);
  scheme = configured.tls ? "https" : "http";
  if (configured.tls && !configured.tlsCertificateAuthorityFile.empty()) {
    transportLog(Level::Info, "Connecting to https://%s:%llu%s using CA file %s", host.c_str(),
                 logPort, configured.basePath.c_str(),
                 configured.tlsCertificateAuthorityFile.c_str());
  } else {
    transportLog(
        Level::Info,
        configured.tls ? "Connecting to https://%s:%llu%s" : "Connecting to http://%s:%llu%s",
        host.c_str(), logPort, configured.basePath.c_str());
  }
  session = newSession(host, static_cast<std::uint16_t>(port));
  sessionHost = host;
  sessionPort = static_cast<std::uint16_t>(port);
  if (!configured.proxyHost.empty()) {
    transportLog(Level::Info, "Connecting via proxy server http://%s:%llu",
                 configured.proxyHost.c_str(),
                 static_cast<unsigned long long>(configured.proxyPort));
    applyProxy(session->poco(), configured);
  }
  session->poco().setKeepAlive(true);
  session->poco().setTimeout(
      Poco::Timespan(static_cast<long>(std::min(configured.timeoutSecs, maxTimeoutSecs)), 0));
}

void HTTPClient::ClientSessionThread::resetSession() noexcept { session->reset(); }

// Serves the rest of the request from another server; the session to the configured one is kept.
void HTTPClient::ClientSessionThread::moveSession(const std::string& host, std::uint16_t port) {
  if (atConfiguredServer()) {
    configuredSession = std::exchange(session, nullptr);
  } else if (isConfiguredServer(host, port)) {
    returnToConfiguredServer();
    return;
  }
  setSession(host, port);
}

void HTTPClient::ClientSessionThread::returnToConfiguredServer() noexcept {
  if (atConfiguredServer()) return;
  session = std::exchange(configuredSession, nullptr);
  sessionHost = owner.options.host;
  sessionPort = static_cast<std::uint16_t>(owner.options.port);
}

bool HTTPClient::ClientSessionThread::isConfiguredServer(const std::string& host,
                                                         std::uint16_t port) const {
  return lowerCased(host) == lowerCased(owner.options.host) && port == owner.options.port;
}

}  // namespace connectivity::plugins
