// Sessions through a proxy: requests in absolute form, and tunnels for TLS.
#include <memory>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/PersistentSession.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::HTTPRequest;
using Poco::Net::HTTPResponse;
using test_support::base64;
using test_support::CertificateAuthority;
using test_support::RealSquid;
using test_support::ScriptedProxy;
using test_support::ScriptedServer;
using testing::Throws;
using Peer = test_support::Connection;
using ProxyConfig = Poco::Net::HTTPClientSession::ProxyConfig;

ProxyConfig proxyAt(int port, const std::string& user = {}, const std::string& password = {}) {
  ProxyConfig config;
  config.host = "127.0.0.1";
  config.port = static_cast<Poco::UInt16>(port);
  config.username = user;
  config.password = password;
  return config;
}

void configure(PersistentSession& session, const ProxyConfig& proxy) {
  session.poco().setProxyConfig(proxy);
  setUp(session);
}

// What the proxy does: where it connects, whom it serves.
test_support::ProxyOptions leadingTo(int port) {
  test_support::ProxyOptions options;
  options.targetPort = port;
  return options;
}
test_support::ProxyOptions demanding(const std::string& credentials) {
  test_support::ProxyOptions options;
  options.credentials = credentials;
  return options;
}

std::string get(PersistentSession& session, const std::string& target) {
  HTTPRequest request("GET", target, "HTTP/1.1");
  HTTPResponse response;
  session.sendRequest(request);
  return readAll(session.receiveResponse(response));
}

auto failsWith(const std::string& text) {
  return Throws<Poco::Net::HTTPException>(testing::Property(&Poco::Exception::message, text));
}

TEST(PersistentSessionProxy, SendsRequestsInAbsoluteForm) {
  ScriptedServer server;
  server.answer("/x", {200, {}, "x"});
  ScriptedProxy proxy(leadingTo(server.port()));
  const auto session = openSession("server.test", 8080);
  configure(*session, proxyAt(proxy.port()));
  EXPECT_EQ(get(*session, "/x?y"), "x");
  EXPECT_EQ(proxy.request(0).target, "http://server.test:8080/x?y");
  EXPECT_EQ(proxy.request(0).header("Host"), "server.test:8080");
}

TEST(PersistentSessionProxy, KeepsItsConnectionToTheProxy) {
  ScriptedServer proxy;
  const auto session = openSession("server.test", 80);
  configure(*session, proxyAt(proxy.port()));
  get(*session, "/");
  get(*session, "/");
  EXPECT_EQ(proxy.request(1).header("Proxy-Connection"), "keep-alive");
  EXPECT_EQ(proxy.connectionCount(), 1U);
}

TEST(PersistentSessionProxy, ConnectsAnewWhereTheProxySaysClose) {
  ScriptedServer proxy([](Peer& peer) {
    while (peer.readRequest()) peer.sendResponse(200, {{"Proxy-Connection", "close"}}, "x");
  });
  const auto session = openSession("server.test", 80);
  configure(*session, proxyAt(proxy.port()));
  get(*session, "/");
  get(*session, "/");
  EXPECT_EQ(proxy.connectionCount(), 2U);
}

TEST(PersistentSessionProxy, NeverTakesAPathForAnotherServersUri) {
  ScriptedServer proxy;
  const auto session = openSession("server.test", 80);
  configure(*session, proxyAt(proxy.port()));
  get(*session, "/http://evil.test/x");
  get(*session, "//evil.test/x");
  EXPECT_EQ(proxy.request(0).target, "http://server.test:80/http://evil.test/x");
  EXPECT_EQ(proxy.request(1).target, "http://server.test:80//evil.test/x");
  EXPECT_EQ(proxy.request(1).header("Host"), "server.test");
}

TEST(PersistentSessionProxy, BracketsAnIPv6Address) {
  ScriptedServer proxy;
  const auto session = openSession("::1", 81);
  configure(*session, proxyAt(proxy.port()));
  get(*session, "/x");
  EXPECT_EQ(proxy.request(0).target, "http://[::1]:81/x");
  EXPECT_EQ(proxy.request(0).header("Host"), "[::1]:81");
}

TEST(PersistentSessionProxy, WithoutCredentialsSendsNoProxyAuthorization) {
  ScriptedServer proxy;
  const auto session = openSession("server.test", 80);
  configure(*session, proxyAt(proxy.port()));
  get(*session, "/");
  EXPECT_FALSE(proxy.request(0).header("Proxy-Authorization"));
}

TEST(PersistentSessionProxy, CredentialsThatAreSwitchedOffAreNotSent) {
  ScriptedServer proxy;
  const auto session = openSession("server.test", 80);
  ProxyConfig config = proxyAt(proxy.port(), "user", "secret");
  config.authMethod = Poco::Net::HTTPClientSession::PROXY_AUTH_NONE;
  configure(*session, config);
  get(*session, "/");
  EXPECT_FALSE(proxy.request(0).header("Proxy-Authorization"));
}

TEST(PersistentSessionProxy, SendsItsCredentialsInPlaceOfTheRequests) {
  ScriptedServer proxy;
  const auto session = openSession("server.test", 80);
  configure(*session, proxyAt(proxy.port(), "user", "pass:word"));
  HTTPRequest request("GET", "/", "HTTP/1.1");
  request.set("proxy-authorization", "Basic other");
  HTTPResponse response;
  session->sendRequest(request);
  readAll(session->receiveResponse(response));
  EXPECT_EQ(proxy.request(0).header("Proxy-Authorization"), "Basic " + base64("user:pass:word"));
  EXPECT_EQ(proxy.request(0).headerCount("Proxy-Authorization"), 1U);
}

TEST(PersistentSessionProxy, TheProcessWideProxyOfPocoIsNotUsed) {
  Poco::Net::HTTPClientSession::setGlobalProxyConfig(proxyAt(1, "user", "secret"));
  ScriptedServer server;
  server.answer("/", {200, {}, "direct"});
  const auto session = openSession("127.0.0.1", static_cast<std::uint16_t>(server.port()));
  Poco::Net::HTTPClientSession::setGlobalProxyConfig(ProxyConfig());
  EXPECT_EQ(get(*session, "/"), "direct");
}

struct Tunnelled {
  explicit Tunnelled(test_support::ProxyOptions options = {}, ProxyConfig credentials = {})
      : server(test_support::TlsOptions{authority.issue()}),
        proxy(std::move(options)),
        session(openSession("localhost", static_cast<std::uint16_t>(server.port()),
                            contexts.contextFor("localhost"))) {
    server.answer("/x", {200, {}, "x"});
    configure(*session, proxyAt(proxy.port(), credentials.username, credentials.password));
  }
  std::string target() const { return "localhost:" + std::to_string(server.port()); }

  CertificateAuthority authority;
  ScriptedServer server;
  ScriptedProxy proxy;
  TlsContexts contexts{{authority.caFile(), false}};
  std::unique_ptr<PersistentSession> session;
};

TEST(PersistentSessionProxy, OpensOneTunnelForSeveralTlsRequests) {
  Tunnelled client;
  EXPECT_EQ(get(*client.session, "/x"), "x");
  EXPECT_EQ(get(*client.session, "/x"), "x");
  EXPECT_EQ(client.proxy.tunnelCount(), 1U);
  EXPECT_EQ(client.proxy.requests().size(), 1U);
  EXPECT_EQ(client.proxy.request(0).method, "CONNECT");
  EXPECT_EQ(client.proxy.request(0).target, client.target());
  EXPECT_EQ(client.proxy.request(0).header("Host"), client.target());
  EXPECT_EQ(client.server.request(0).target, "/x");
  EXPECT_EQ(client.server.request(0).header("Host"), client.target());
  EXPECT_FALSE(client.server.request(0).header("Proxy-Connection"));
}

TEST(PersistentSessionProxy, ATunnelWithoutCredentialsSendsNoProxyAuthorization) {
  Tunnelled client;
  get(*client.session, "/x");
  EXPECT_FALSE(client.proxy.request(0).header("Proxy-Authorization"));
}

TEST(PersistentSessionProxy, GivesTheCredentialsToTheProxyOnlyAndNotToTheServer) {
  Tunnelled client(demanding("user:secret"), proxyAt(0, "user", "secret"));
  EXPECT_EQ(get(*client.session, "/x"), "x");
  EXPECT_EQ(client.proxy.request(0).header("Proxy-Authorization"),
            "Basic " + base64("user:secret"));
  EXPECT_FALSE(client.server.request(0).header("Proxy-Authorization"));
}

TEST(PersistentSessionProxy, AResetTunnelIsReplacedByANewOne) {
  Tunnelled client;
  HTTPRequest request("GET", "/x", "HTTP/1.1");
  HTTPResponse response;
  client.session->sendRequest(request);
  client.session->receiveResponse(response);  // its body stays unread
  client.session->reset();
  EXPECT_EQ(get(*client.session, "/x"), "x");
  EXPECT_EQ(client.proxy.tunnelCount(), 2U);
}

TEST(PersistentSessionProxy, ARefusedTunnelIsAnErrorWithTheProxysWords) {
  Tunnelled client(demanding("user:secret"));
  EXPECT_THAT([&] { get(*client.session, "/x"); },
              failsWith("The proxy refused a tunnel to " + client.target() +
                        ": 407 Proxy Authentication Required"));
  EXPECT_EQ(client.server.connectionCount(), 0U);
}

// A proxy that does exactly what its script says with the CONNECT it has read.
void expectTunnelFails(const std::string& answer) {
  CertificateAuthority authority;
  ScriptedServer proxy([&](Peer& peer) {
    peer.readHead();
    peer.send(answer);
  });
  TlsContexts contexts({authority.caFile(), false});
  const auto session = openSession("localhost", 443, contexts.contextFor("localhost"));
  configure(*session, proxyAt(proxy.port()));
  EXPECT_THROW(get(*session, "/"), Poco::IOException) << answer;
  EXPECT_FALSE(session->poco().connected());
}

TEST(PersistentSessionProxy, ATunnelFailsWhereTheProxyDoesNotAnswerAsOne) {
  expectTunnelFails("");
  expectTunnelFails("HTTP/1.1 200 OK\r\n");
  expectTunnelFails("gibberish\r\n\r\n");
  expectTunnelFails("HTTP/1.1 302 Found\r\nLocation: /\r\nContent-Length: 4\r\n\r\nbody");
  expectTunnelFails("HTTP/1.1 200 OK\r\n\r\nbytes that no server has sent");
  expectTunnelFails("HTTP/1.1 200 OK\r\n\r\n");
}

TEST(PersistentSessionProxy, ReadsPastTheProxysInterimResponses) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  server.answer("/x", {200, {}, "x"});
  ScriptedServer proxy([&](Peer& peer) {
    peer.readHead();
    peer.send(
        "HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 200 Connection established\r\n"
        "Content-Length: 10\r\n\r\n");  // a length means nothing here
    peer.tunnelTo(server.port());
  });
  TlsContexts contexts({authority.caFile(), false});
  const auto session = openSession("localhost", 443, contexts.contextFor("localhost"));
  configure(*session, proxyAt(proxy.port()));
  EXPECT_EQ(get(*session, "/x"), "x");
  EXPECT_EQ(proxy.request(0).target, "localhost:443");
  EXPECT_EQ(server.request(0).header("Host"), "localhost");
}

TEST(PersistentSessionProxy, TheServersCertificateIsCheckedThroughATunnel) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issueForOtherName()});
  ScriptedProxy proxy;
  TlsContexts contexts({authority.caFile(), false});
  const auto session = openSession("localhost", static_cast<std::uint16_t>(server.port()),
                                   contexts.contextFor("localhost"));
  configure(*session, proxyAt(proxy.port()));
  EXPECT_THAT([&] { get(*session, "/"); },
              Throws<Poco::Net::NetException>(testing::Property(
                  &Poco::Exception::message, "certificate verify failed: hostname mismatch")));
}

TEST(PersistentSessionProxy, WorksWithSquid) {
  if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  RealSquid squid({.user = "user", .password = "secret"});
  CertificateAuthority authority;
  ScriptedServer plain;
  plain.answer("/x", {200, {}, std::string(100000, 'x')});
  ScriptedServer secure(test_support::TlsOptions{authority.issue()});
  secure.answer("/x", {200, {}, std::string(100000, 'y')});
  TlsContexts contexts({authority.caFile(), false});
  const auto toPlain = openSession("127.0.0.1", static_cast<std::uint16_t>(plain.port()));
  const auto toSecure = openSession("localhost", static_cast<std::uint16_t>(secure.port()),
                                    contexts.contextFor("localhost"));
  configure(*toPlain, proxyAt(squid.port(), "user", "secret"));
  configure(*toSecure, proxyAt(squid.port(), "user", "secret"));
  for (int i = 0; i < 2; ++i) {
    EXPECT_EQ(get(*toPlain, "/x"), std::string(100000, 'x'));
    EXPECT_EQ(get(*toSecure, "/x"), std::string(100000, 'y'));
  }
  EXPECT_EQ(secure.connectionCount(), 1U);
  const auto stranger = openSession("localhost", static_cast<std::uint16_t>(secure.port()),
                                    contexts.contextFor("localhost"));
  configure(*stranger, proxyAt(squid.port()));
  EXPECT_THAT([&] { get(*stranger, "/x"); },
              failsWith("The proxy refused a tunnel to localhost:" + std::to_string(secure.port()) +
                        ": 407 Proxy Authentication Required"));
}

}  // namespace
}  // namespace connectivity::plugins
