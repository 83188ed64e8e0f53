// Sessions through a proxy: plain requests, and tunnels for TLS.
#include <memory>
#include <string>
#include <utility>

#include <Poco/Exception.h>
#include <Poco/Net/NetException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "plugins/http_client/wire/TunnelLayer.hpp"
#include "tests/plugins/http_client/SessionClient.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::base64;
using test_support::CertificateAuthority;
using test_support::RealSquid;
using test_support::ScriptedProxy;
using test_support::ScriptedServer;
using testing::Throws;
using Client = SessionClient;
using Peer = test_support::Connection;

Route through(int proxyPort, Route route, std::string authorization = {}) {
  route.proxy = Proxy{"127.0.0.1", static_cast<std::uint16_t>(proxyPort), std::move(authorization)};
  return route;
}

std::string nameOfProxyAt(int port) { return "proxy 127.0.0.1:" + std::to_string(port); }

template <typename Exception>
auto failsWith(const testing::Matcher<std::string>& message) {
  return Throws<Exception>(testing::Property(&Poco::Exception::message, message));
}

// --- plain requests

TEST(HttpSessionProxy, SendsPlainRequestsToTheProxyAsTheyStand) {
  ScriptedServer proxy;
  Client client(through(proxy.port(), routeTo(80, "server.test")));
  client.fetch("http://server.test:80/x?y");
  EXPECT_EQ(proxy.request(0).raw, client.head);
  EXPECT_EQ(proxy.request(0).target, "http://server.test:80/x?y");
}

// It is the head's to hold; the session adds nothing to a head.
TEST(HttpSessionProxy, AddsNoCredentialsToAPlainRequest) {
  ScriptedServer proxy;
  Client client(through(proxy.port(), routeTo(80, "server.test"), "Basic secret"));
  client.tunnelAuthorization = "Basic other";
  client.fetch("http://server.test/");
  EXPECT_FALSE(proxy.request(0).header("Proxy-Authorization"));
}

TEST(HttpSessionProxy, KeepsItsConnectionToTheProxy) {
  ScriptedServer proxy;
  Client client(through(proxy.port(), routeTo(80, "server.test")));
  client.fetch("http://server.test/");
  client.fetch("http://server.test/");
  EXPECT_EQ(proxy.connectionCount(), 1U);
}

TEST(HttpSessionProxy, ClosesTheConnectionWhereTheProxySaysClose) {
  ScriptedServer proxy([](Peer& peer) {
    peer.readRequest();
    peer.sendResponse(200, {{"Proxy-Connection", "close"}}, "x");
    peer.awaitPeerClose();
  });
  Client client(through(proxy.port(), routeTo(80, "server.test")));
  EXPECT_EQ(client.fetch(), "x");
  proxy.waitForEndedConnections(1);
  EXPECT_EQ(client.fetch(), "x");
  EXPECT_EQ(proxy.connectionCount(), 2U);
}

TEST(HttpSessionProxy, BlamesTheProxyForTheFailuresOfAPlainRequest) {
  ScriptedServer proxy([](Peer& peer) { peer.readRequest(); });
  Client client(through(proxy.port(), routeTo(80, "server.test")));
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::Net::NoMessageException>("The " + nameOfProxyAt(proxy.port()) +
                                                       " closed the connection without an answer"));
}

TEST(HttpSessionProxy, NamesAProxyThatCannotBeReached) {
  CertificateAuthority authority;
  TlsContexts contexts({authority.caFile(), false});
  const int port = test_support::unusedPort();
  for (const bool tls : {false, true}) {
    Route route = routeTo(80, "localhost");
    if (tls) route.tls = contexts.contextFor("localhost");
    Client client(through(port, route));
    EXPECT_THAT([&] { client.get(); },
                failsWith<Poco::Net::ConnectionRefusedException>(
                    "the " + nameOfProxyAt(port) + " at 127.0.0.1:" + std::to_string(port)));
    EXPECT_FALSE(client.session.connected());
  }
}

// --- tunnels

// What the proxy demands.
test_support::ProxyOptions demanding(const std::string& credentials) {
  test_support::ProxyOptions options;
  options.credentials = credentials;
  return options;
}

struct Tunnelled {
  explicit Tunnelled(test_support::ProxyOptions options = {}, std::string authorization = {})
      : server(test_support::TlsOptions{authority.issue()}),
        proxy(std::move(options)),
        client(through(proxy.port(), route(), std::move(authorization))) {
    server.answer("/x", {200, {}, "x"});
  }
  Route route() {
    Route route = routeTo(server, "localhost");
    route.tls = contexts.contextFor("localhost");
    return route;
  }
  std::string target() const { return "localhost:" + std::to_string(server.port()); }
  std::string fetchWith(std::optional<std::string> authorization) {
    client.tunnelAuthorization = std::move(authorization);
    return client.fetch("/x");
  }

  CertificateAuthority authority;
  TlsContexts contexts{{authority.caFile(), false}};
  ScriptedServer server;
  ScriptedProxy proxy;
  Client client;
};

TEST(HttpSessionProxy, OpensOneTunnelForSeveralTlsRequests) {
  Tunnelled tunnelled;
  EXPECT_EQ(tunnelled.client.fetch("/x"), "x");
  EXPECT_EQ(tunnelled.client.fetch("/x"), "x");
  EXPECT_EQ(tunnelled.proxy.tunnelCount(), 1U);
  EXPECT_EQ(tunnelled.proxy.requests().size(), 1U);
  EXPECT_EQ(tunnelled.proxy.request(0).method, "CONNECT");
  EXPECT_EQ(tunnelled.proxy.request(0).target, tunnelled.target());
  EXPECT_EQ(tunnelled.server.request(0).raw, tunnelled.client.head);
}

TEST(HttpSessionProxy, ATunnelWithoutCredentialsSendsNoProxyAuthorization) {
  Tunnelled tunnelled;
  tunnelled.client.fetch("/x");
  EXPECT_FALSE(tunnelled.proxy.request(0).header("Proxy-Authorization"));
}

TEST(HttpSessionProxy, GivesTheCredentialsToTheProxyOnlyAndNotToTheServer) {
  Tunnelled tunnelled(demanding("user:secret"), "Basic " + base64("user:secret"));
  EXPECT_EQ(tunnelled.client.fetch("/x"), "x");
  EXPECT_EQ(tunnelled.proxy.request(0).header("Proxy-Authorization"),
            "Basic " + base64("user:secret"));
  EXPECT_FALSE(tunnelled.server.request(0).header("Proxy-Authorization"));
}

TEST(HttpSessionProxy, ARequestsTunnelAuthorizationTakesThePlaceOfTheConfigured) {
  Tunnelled tunnelled({}, "Basic configured");
  EXPECT_EQ(tunnelled.fetchWith("Basic own"), "x");
  EXPECT_EQ(tunnelled.proxy.request(0).header("Proxy-Authorization"), "Basic own");
  EXPECT_EQ(tunnelled.proxy.request(0).headerCount("Proxy-Authorization"), 1U);
}

TEST(HttpSessionProxy, AnotherTunnelAuthorizationMakesANewTunnel) {
  Tunnelled tunnelled({}, "Basic configured");
  EXPECT_EQ(tunnelled.fetchWith(std::nullopt), "x");
  EXPECT_EQ(tunnelled.fetchWith("Basic configured"), "x");  // the same
  EXPECT_EQ(tunnelled.proxy.tunnelCount(), 1U);
  EXPECT_EQ(tunnelled.fetchWith("Basic own"), "x");
  EXPECT_EQ(tunnelled.fetchWith("Basic own"), "x");
  EXPECT_EQ(tunnelled.proxy.tunnelCount(), 2U);
  EXPECT_EQ(tunnelled.proxy.request(1).header("Proxy-Authorization"), "Basic own");
  EXPECT_EQ(tunnelled.fetchWith(std::nullopt), "x");
  EXPECT_EQ(tunnelled.proxy.tunnelCount(), 3U);
  EXPECT_EQ(tunnelled.proxy.request(2).header("Proxy-Authorization"), "Basic configured");
}

TEST(HttpSessionProxy, ADirectConnectionDoesNotCareForTunnelAuthorizations) {
  ScriptedServer server;
  server.answer("/", {200, {}, "x"});
  Client client(server);
  client.tunnelAuthorization = "Basic one";
  EXPECT_EQ(client.fetch(), "x");
  client.tunnelAuthorization = "Basic two";
  EXPECT_EQ(client.fetch(), "x");
  EXPECT_EQ(server.connectionCount(), 1U);
}

TEST(HttpSessionProxy, AResetTunnelIsReplacedByANewOne) {
  Tunnelled tunnelled;
  tunnelled.client.get("/x");  // its body stays unread
  tunnelled.client.session.reset();
  EXPECT_EQ(tunnelled.client.fetch("/x"), "x");
  EXPECT_EQ(tunnelled.proxy.tunnelCount(), 2U);
}

TEST(HttpSessionProxy, ARefusedTunnelIsAnErrorWithTheProxysWords) {
  Tunnelled tunnelled(demanding("user:secret"));
  EXPECT_THAT([&] { tunnelled.client.get("/x"); },
              failsWith<TunnelRefused>("The " + nameOfProxyAt(tunnelled.proxy.port()) +
                                       " refused a tunnel to " + tunnelled.target() +
                                       ": 407 Proxy Authentication Required"));
  EXPECT_FALSE(tunnelled.client.session.connected()) << "the request was not sent";
  EXPECT_FALSE(tunnelled.client.session.answerBegun());
  EXPECT_EQ(tunnelled.proxy.requests().size(), 1U) << "it was asked again";
  EXPECT_EQ(tunnelled.server.connectionCount(), 0U);
  EXPECT_EQ(tunnelled.fetchWith("Basic " + base64("user:secret")), "x");
}

TEST(HttpSessionProxy, AFailedTunnelLeavesNoConnectionOpen) {
  CertificateAuthority authority;
  TlsContexts contexts({authority.caFile(), false});
  ScriptedServer proxy([](Peer& peer) {
    peer.readHead();
    peer.send("HTTP/1.1 403 Forbidden\r\n\r\n");
    peer.awaitPeerClose();
  });
  Route route = routeTo(443, "localhost");
  route.tls = contexts.contextFor("localhost");
  Client client(through(proxy.port(), route));
  EXPECT_THROW(client.get(), TunnelRefused);
  proxy.waitForEndedConnections(1);
}

TEST(HttpSessionProxy, BlamesTheServerForTheFailuresWithinATunnel) {
  CertificateAuthority authority;
  TlsContexts contexts({authority.caFile(), false});
  ScriptedServer server([](Peer& peer) { peer.readRequest(); },
                        test_support::TlsOptions{authority.issue()});
  ScriptedProxy proxy;
  Route route = routeTo(server, "localhost");
  route.tls = contexts.contextFor("localhost");
  Client client(through(proxy.port(), route));
  EXPECT_THAT([&] { client.get(); }, failsWith<Poco::Net::NoMessageException>(
                                         "The server closed the connection without an answer"));
}

TEST(HttpSessionProxy, TheServersCertificateIsCheckedThroughATunnel) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issueForOtherName()});
  ScriptedProxy proxy;
  TlsContexts contexts({authority.caFile(), false});
  Route route = routeTo(server, "localhost");
  route.tls = contexts.contextFor("localhost");
  Client client(through(proxy.port(), route));
  EXPECT_THAT([&] { client.get(); },
              failsWith<Poco::Net::NetException>("certificate verify failed: hostname mismatch"));
}

// As in the name of a root that nobody's certificate holds.
TEST(HttpSessionProxy, AFinalDotOfTheServersNameIsNoPartOfTheHandshake) {
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  server.answer("/x", {200, {}, "x"});
  test_support::ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  TlsContexts contexts({authority.caFile(), false});
  Route route = routeTo(443, "localhost.");
  route.tls = contexts.contextFor(route.host);
  Client client(through(proxy.port(), route));
  EXPECT_EQ(client.fetch("/x"), "x");
  EXPECT_EQ(proxy.request(0).target, "localhost.:443");
  EXPECT_EQ(server.clientHellos().at(0).serverName, "localhost");
}

TEST(HttpSessionProxy, ADeadlineEndsTheWaitForATunnel) {
  CertificateAuthority authority;
  TlsContexts contexts({authority.caFile(), false});
  ScriptedServer proxy([](Peer& peer) { peer.awaitPeerClose(); });
  Route route = routeTo(443, "localhost");
  route.tls = contexts.contextFor("localhost");
  Client client(through(proxy.port(), route));
  client.session.setDeadline(HttpSession::Clock::now() + std::chrono::milliseconds(200));
  EXPECT_THROW(client.get(), DeadlineExceeded);
  proxy.waitForEndedConnections(1);
}

TEST(HttpSessionProxy, WorksWithSquid) {
  if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  RealSquid squid({.user = "user", .password = "secret"});
  const std::string credentials = "Basic " + base64("user:secret");
  CertificateAuthority authority;
  ScriptedServer server(test_support::TlsOptions{authority.issue()});
  server.answer("/x", {200, {}, std::string(100000, 'y')});
  TlsContexts contexts({authority.caFile(), false});
  Route route = routeTo(server, "localhost");
  route.tls = contexts.contextFor("localhost");
  Client client(through(squid.port(), route, credentials));
  for (int i = 0; i < 2; ++i) EXPECT_EQ(client.fetch("/x"), std::string(100000, 'y'));
  EXPECT_EQ(server.connectionCount(), 1U);
  Client stranger(through(squid.port(), route));
  EXPECT_THAT(
      [&] { stranger.get("/x"); },
      failsWith<TunnelRefused>("The " + nameOfProxyAt(squid.port()) +
                               " refused a tunnel to localhost:" + std::to_string(server.port()) +
                               ": 407 Proxy Authentication Required"));
}

}  // namespace
}  // namespace connectivity::plugins
