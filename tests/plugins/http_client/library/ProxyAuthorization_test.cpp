// A request's own proxy-authorization: it reaches the proxy that reads it, and nobody else.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* configuredCredentials = "Basic dXNlcjpwYXNz";  // user:pass

Request with(const std::string& authorization, const char* path = "/x") {
  return Request("GET", path).header("Proxy-Authorization", authorization);
}

void expectNeverAt(const ScriptedServer& server) {
  for (const RecordedRequest& request : server.requests()) {
    EXPECT_EQ(request.headerCount("proxy-authorization"), 0U) << request.raw;
  }
}

// --- In absolute form ---------------------------------------------------------------------------

TEST(ProxyAuthorization, GoesWithARequestInAbsoluteForm) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), "Bearer one");
  EXPECT_EQ(proxy.request(0).headerCount("proxy-authorization"), 1U);
  EXPECT_EQ(proxy.request(1).header("proxy-authorization"), std::nullopt);
  expectNeverAt(server);
}

TEST(ProxyAuthorization, TakesThePlaceOfTheConfiguredInAbsoluteForm) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(
      Config(server.port()).proxy(proxy.port()).proxyCredentials("user", "pass"));
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), "Bearer one");
  EXPECT_EQ(proxy.request(0).headerCount("proxy-authorization"), 1U);
  EXPECT_EQ(proxy.request(1).header("proxy-authorization"), configuredCredentials);
}

// --- Through a tunnel ---------------------------------------------------------------------------

class ProxyAuthorizationOfATunnel : public ::testing::Test {
 protected:
  Config through(const ScriptedProxy& proxy) {
    return Config(_server.port()).numClients(1).tls(_authority.caFile()).proxy(proxy.port());
  }
  ScriptedServer& server() { return _server; }

 private:
  CertificateAuthority _authority;
  ScriptedServer _server{answerWithTarget, TlsOptions{_authority.issue()}};
};

TEST_F(ProxyAuthorizationOfATunnel, GoesIntoTheConnectAndNeverToTheServer) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy));
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  ASSERT_EQ(proxy.requests().size(), 1U);
  EXPECT_EQ(proxy.request(0).method, "CONNECT");
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), "Bearer one");
  expectNeverAt(server());
}

TEST_F(ProxyAuthorizationOfATunnel, TakesThePlaceOfTheConfigured) {
  ProxyOptions options;
  options.credentials = "somebody:else";
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(through(proxy).proxyCredentials("user", "pass"));
  EXPECT_EQ(plugin.request(with("Basic " + base64("somebody:else"))).body(), "/x");
  EXPECT_EQ(proxy.request(0).headerCount("proxy-authorization"), 1U);
  expectNeverAt(server());
}

TEST_F(ProxyAuthorizationOfATunnel, ThatIsTheSameUsesTheOpenTunnel) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy));
  for (const char* const path : {"/a", "/b", "/c"}) {
    EXPECT_EQ(plugin.request(with("Bearer one", path)).body(), path);
  }
  EXPECT_EQ(proxy.tunnelCount(), 1U);
  EXPECT_EQ(server().connectionCount(), 1U);
}

TEST_F(ProxyAuthorizationOfATunnel, ThatDiffersMakesANewTunnel) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy).proxyCredentials("user", "pass"));
  const std::vector<std::string> given = {"", "Bearer one", "Bearer two", "Bearer one", "", ""};
  for (const std::string& authorization : given) {
    const Request request = authorization.empty() ? Request("GET", "/x") : with(authorization);
    EXPECT_EQ(plugin.request(request).body(), "/x");
  }
  std::vector<std::string> seen;
  for (const RecordedRequest& connect : proxy.requests()) {
    seen.push_back(connect.header("proxy-authorization").value_or("none"));
  }
  EXPECT_EQ(seen, (std::vector<std::string>{configuredCredentials, "Bearer one", "Bearer two",
                                            "Bearer one", configuredCredentials}));
  EXPECT_EQ(lastRequest(server()).connection, 5);
  expectNeverAt(server());
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_F(ProxyAuthorizationOfATunnel, ThatIsTheConfiguredOneIsNoOther) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy).proxyCredentials("user", "pass"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(plugin.request(with(configuredCredentials)).body(), "/x");
  EXPECT_EQ(proxy.tunnelCount(), 1U);
}

TEST_F(ProxyAuthorizationOfATunnel, IsGivenAgainWhereTheTunnelIsReplaced) {
  CertificateAuthority authority;
  ScriptedServer fickle(
      {[](Connection& connection) { connection.readRequest(); }, answerWithTarget},
      TlsOptions{authority.issue()});
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(fickle.port()).tls(authority.caFile()).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  ASSERT_EQ(proxy.requests().size(), 2U);
  EXPECT_EQ(proxy.request(1).header("proxy-authorization"), "Bearer one");
  expectNeverAt(fickle);
}

// --- Without a proxy, and in the log ------------------------------------------------------------

TEST(ProxyAuthorization, WithoutAProxyIsNotSent) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  expectNeverAt(server);
}

TEST(ProxyAuthorization, WithoutAProxyIsNotSentWithinTls) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issue()});
  PluginUnderTest plugin(Config(server.port()).tls(authority.caFile()));
  EXPECT_EQ(plugin.request(with("Bearer one")).body(), "/x");
  expectNeverAt(server);
}

TEST_F(ProxyAuthorizationOfATunnel, IsInNoLineOfTheLog) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy));
  EXPECT_EQ(plugin.request(with("Bearer tell-nobody")).body(), "/x");
  EXPECT_FALSE(plugin.log().contains("tell-nobody"));
}

// --- proxy-connection ---------------------------------------------------------------------------

void expectIgnoredWithALine(PluginUnderTest& plugin) {
  const auto line = plugin.log().find("Ignoring HTTP header Proxy-Connection");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_WARN);
  EXPECT_EQ(linesOfLevel(plugin.log(), QOR_LOG_WARN), 1U);
}

// Whether it is the user's that was sent; a header of the transport's own would be none of it.
bool holdsTheUsers(const RecordedRequest& request) {
  return request.raw.find("users-own") != std::string::npos;
}

TEST(ProxyConnection, OfTheUserIsIgnoredAndReported) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin{Config(server.port())};
  const Request request = Request("GET", "/x").header("Proxy-Connection", "users-own");
  EXPECT_EQ(plugin.request(request).body(), "/x");
  EXPECT_FALSE(holdsTheUsers(server.request(0)));
  expectIgnoredWithALine(plugin);
}

TEST(ProxyConnection, OfTheUserIsIgnoredAndReportedBeforeAProxyToo) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).proxy(proxy.port()));
  const Request request = Request("GET", "/x").header("Proxy-Connection", "users-own");
  EXPECT_EQ(plugin.request(request).body(), "/x");
  EXPECT_FALSE(holdsTheUsers(proxy.request(0)));
  expectIgnoredWithALine(plugin);
}

TEST_F(ProxyAuthorizationOfATunnel, HasNoProxyConnectionOfTheUsersBesideIt) {
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy));
  const Request request = Request("GET", "/x").header("Proxy-Connection", "users-own");
  EXPECT_EQ(plugin.request(request).body(), "/x");
  EXPECT_FALSE(holdsTheUsers(proxy.request(0)));
  EXPECT_FALSE(holdsTheUsers(server().request(0)));
  expectIgnoredWithALine(plugin);
}

}  // namespace
}  // namespace test_support
