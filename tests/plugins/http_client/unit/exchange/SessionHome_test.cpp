// Which server a worker talks to, and whom its heads are written for.
#include "plugins/http_client/exchange/SessionHome.hpp"

#include <chrono>
#include <string>

#include <Poco/Exception.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/unit/exchange/ExchangeParts.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace connectivity::plugins {
namespace {

using test_support::CertificateAuthority;
using test_support::Config;
using test_support::ScriptedServer;

Config at(const char* host, int port) { return Config(port).host(host); }
Config behindAProxy() { return at("server.test", 81).proxy(3128); }

// --- Whom a head is for -------------------------------------------------------------------------

TEST(SessionHome, IsTheConfiguredServerAtFirst) {
  const ExchangeParts parts(at("server.test", 81));
  EXPECT_TRUE(parts.home.atHome());
  const Destination destination = parts.home.destination();
  EXPECT_TRUE(destination.isConfiguredServer);
  EXPECT_EQ(destination.hostField, "server.test:81");
  EXPECT_EQ(destination.absolutePrefix, "");
  EXPECT_EQ(destination.proxyReads, ProxyReads::Nothing);
  EXPECT_EQ(destination.proxyAuthorization, "");
}

struct Name {
  const char* host;
  int port;
  const char* field;
  const char* secureField;
};

TEST(SessionHome, NamesThePortOnlyWhereItIsNotTheSchemesOwn) {
  for (const Name& each : {Name{"server.test", 80, "server.test", "server.test:80"},
                           {"server.test", 443, "server.test:443", "server.test"},
                           {"server.test", 8080, "server.test:8080", "server.test:8080"},
                           {"Server.test.", 80, "Server.test.", "Server.test.:80"},
                           {"127.0.0.1", 80, "127.0.0.1", "127.0.0.1:80"},
                           {"::1", 80, "[::1]", "[::1]:80"},
                           {"[::1]", 81, "[::1]:81", "[::1]:81"}}) {
    const Config config = at(each.host, each.port);
    EXPECT_EQ(ExchangeParts(config).home.destination().hostField, each.field);
    Config secure(config);
    secure.tls();
    EXPECT_EQ(ExchangeParts(secure).home.destination().hostField, each.secureField);
  }
}

TEST(SessionHome, BehindAProxyIsAskedForInAbsoluteForm) {
  const ExchangeParts parts(behindAProxy());
  const Destination destination = parts.home.destination();
  EXPECT_EQ(destination.absolutePrefix, "http://server.test:81");
  EXPECT_EQ(destination.proxyReads, ProxyReads::EachRequest);
  EXPECT_EQ(destination.proxyAuthorization, "");
}

TEST(SessionHome, ThroughATunnelIsAskedForByItsPath) {
  const ExchangeParts parts(behindAProxy().tls().proxyCredentials("user", "pass"));
  const Destination destination = parts.home.destination();
  EXPECT_EQ(destination.absolutePrefix, "");
  EXPECT_EQ(destination.proxyReads, ProxyReads::Connect);
  EXPECT_EQ(destination.proxyAuthorization, "Basic dXNlcjpwYXNz");
}

TEST(SessionHome, HasCredentialsForTheProxyWhereTheyAreUsed) {
  const auto credentials = [](const Config& config) {
    return ExchangeParts(config).home.destination().proxyAuthorization;
  };
  EXPECT_EQ(credentials(behindAProxy().proxyCredentials("user", "pass")), "Basic dXNlcjpwYXNz");
  EXPECT_EQ(credentials(behindAProxy().proxyCredentials("", "")), "");
  EXPECT_EQ(credentials(behindAProxy()
                            .proxyCredentials("user", "pass")
                            .set("proxy/authentication/authenticationType", "none")),
            "");
}

TEST(SessionHome, TellsWhereAnAnswerComesFrom) {
  const ExchangeParts plain(at("Server.test", 81));
  const Location location = plain.home.location("/x?y");
  EXPECT_EQ(location.scheme, "http");
  EXPECT_EQ(location.host, "Server.test");
  EXPECT_EQ(location.port, 81);
  EXPECT_EQ(location.target, "/x?y");
  EXPECT_EQ(ExchangeParts(at("server.test", 443).tls()).home.location("/").scheme, "https");
}

TEST(SessionHome, TakesTimeOutsThatNoSocketTakes) {
  EXPECT_EQ(ExchangeParts(Config(1).timeoutSecs(7)).home.session().route().timeout,
            std::chrono::seconds(7));
  EXPECT_EQ(
      ExchangeParts(Config(1).timeoutSecs(9223372036854775807LL)).home.session().route().timeout,
      std::chrono::seconds(2147483));
}

// --- Away ---------------------------------------------------------------------------------------

TEST(SessionHome, MayBeLeftForAnotherServerAndKeepsItsSession) {
  ExchangeParts parts(at("server.test", 81));
  const HttpSession* const session = &parts.home.session();
  parts.home.moveTo("other.test", 80);
  EXPECT_FALSE(parts.home.atHome());
  EXPECT_NE(&parts.home.session(), session);
  EXPECT_EQ(parts.home.destination().hostField, "other.test");
  EXPECT_FALSE(parts.home.destination().isConfiguredServer);
  EXPECT_EQ(parts.home.location("/").host, "other.test");
  parts.home.returnHome();
  EXPECT_TRUE(parts.home.atHome());
  EXPECT_EQ(&parts.home.session(), session);
  EXPECT_EQ(parts.home.destination().hostField, "server.test:81");
}

TEST(SessionHome, MayBeLeftForAServerAndThenForAnother) {
  ExchangeParts parts(at("server.test", 81));
  parts.home.moveTo("other.test", 81);
  parts.home.moveTo("third.test", 81);
  EXPECT_EQ(parts.home.location("/").host, "third.test");
  EXPECT_FALSE(parts.home.atHome());
}

TEST(SessionHome, IsReturnedToByItsNameInAnyCaseAndItsPort) {
  ExchangeParts parts(at("Server.test", 81));
  const HttpSession* const session = &parts.home.session();
  parts.home.moveTo("server.test", 82);
  EXPECT_FALSE(parts.home.atHome()) << "another port";
  parts.home.moveTo("server.test", 81);
  EXPECT_TRUE(parts.home.atHome());
  EXPECT_EQ(&parts.home.session(), session);
}

TEST(SessionHome, IsReachedThroughTheSameProxyAsOthers) {
  ExchangeParts parts(behindAProxy().proxyCredentials("user", "pass"));
  parts.home.moveTo("other.test", 80);
  const Destination destination = parts.home.destination();
  EXPECT_EQ(destination.absolutePrefix, "http://other.test:80");
  EXPECT_EQ(destination.proxyAuthorization, "Basic dXNlcjpwYXNz");
}

TEST(SessionHome, StaysWhereItWasWhereTheMoveFails) {
  ExchangeParts parts(at("server.test", 443).tls());
  // No certificate can be for nobody.
  EXPECT_THROW(parts.home.moveTo("", 443), Poco::Exception);
  EXPECT_TRUE(parts.home.atHome());
  parts.home.moveTo("other.test", 443);
  EXPECT_THROW(parts.home.moveTo("", 443), Poco::Exception);
  EXPECT_EQ(parts.home.location("/").host, "other.test");
}

TEST(SessionHome, AloneIsShownTheClientsCertificate) {
  CertificateAuthority authority;
  const auto files = authority.issue();
  ExchangeParts parts(at("server.test", 443)
                          .tls(authority.caFile())
                          .set("tlsClientCertificateFile", files.certificate)
                          .set("tlsClientKeyFile", files.key));
  const auto context = parts.home.session().route().tls;
  EXPECT_EQ(context.get(), parts.contexts.contextForConfiguredServer("server.test").get());
  parts.home.moveTo("server.test", 444);
  EXPECT_NE(parts.home.session().route().tls.get(), context.get()) << "another port";
  parts.home.returnHome();
  EXPECT_EQ(parts.home.session().route().tls.get(), context.get());
}

// --- The log, and the end -----------------------------------------------------------------------

TEST(SessionHome, LogsWhereItsSessionsLead) {
  ExchangeParts parts(behindAProxy().set("basePath", "/base"));
  EXPECT_TRUE(parts.logged(Level::Info, "Connecting to http://server.test:81/base"));
  EXPECT_TRUE(parts.logged(Level::Info, "Connecting via proxy server http://127.0.0.1:3128"));
  parts.home.moveTo("other.test", 80);
  EXPECT_TRUE(parts.logged(Level::Info, "Connecting to http://other.test:80/base"));
}

TEST(SessionHome, LogsWhomItsTlsBelieves) {
  CertificateAuthority authority;
  const ExchangeParts parts(at("server.test", 443).tls(authority.caFile()));
  EXPECT_TRUE(parts.logged(
      Level::Info, "Connecting to https://server.test:443 using CA file " + authority.caFile()));
  const ExchangeParts& secure = parts;
  EXPECT_FALSE(secure.lines.contains("proxy"));
}

TEST(SessionHome, ClosesItsConnections) {
  ScriptedServer server([](test_support::Connection& connection) {
    connection.readRequest();
    connection.sendResponse(200);
    connection.awaitPeerClose();
  });
  ExchangeParts parts(Config(server.port()));
  const auto exchange = [&] {
    HttpSession& session = parts.home.session();
    session.send({"GET / HTTP/1.1\r\nHost: x\r\n\r\n", {}, false, {}});
    session.receive();
    session.finish(Leftover::Little);
  };
  exchange();
  parts.home.moveTo("localhost", static_cast<std::uint16_t>(server.port()));
  exchange();
  EXPECT_EQ(server.connectionCount(), 2U);
  parts.home.close();
  EXPECT_TRUE(parts.home.atHome());
  server.waitForEndedConnections(2);
}

}  // namespace
}  // namespace connectivity::plugins
