// Requests through a proxy: absolute form for HTTP, a tunnel for HTTPS, and credentials where they
// are configured and nowhere else.
#include <string>

#include <gtest/gtest.h>

#include "connectivity/value_access.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

void answerWithTarget(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

ProxyOptions wanting(const std::string& credentials) {
  ProxyOptions options;
  options.credentials = credentials;
  return options;
}

// --- HTTP ---------------------------------------------------------------------------------------

TEST(PlainProxy, IsAskedInAbsoluteForm) {
  ScriptedServer server;
  server.answer("/base/x", {200, {}, "through"});
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).set("basePath", "/base").proxy(proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x").query("a", "b"));
  EXPECT_EQ(answer.body(), "through") << answer.reason();
  const auto address = "127.0.0.1:" + std::to_string(server.port());
  EXPECT_EQ(proxy.request(0).target, "http://" + address + "/base/x?a=b");
  EXPECT_EQ(proxy.request(0).header("host"), address);
  EXPECT_EQ(server.request(0).target, "/base/x?a=b");
  const auto line = plugin.log().find("Connecting via proxy server ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_INFO);
  EXPECT_TRUE(line->text.ends_with("http://127.0.0.1:" + std::to_string(proxy.port())));
}

TEST(PlainProxy, WithoutCredentialsIsSentNoAuthorization) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).proxy(proxy.port()));
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), std::nullopt);
}

TEST(PlainProxy, WithCredentialsOfTheTypeNoneIsSentNoAuthorization) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port())
                             .proxy(proxy.port())
                             .proxyCredentials("user", "pass")
                             .set("proxy/authentication/authenticationType", "none"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), std::nullopt);
}

TEST(PlainProxy, WithCredentialsIsSentThemWithEveryRequest) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(
      Config(server.port()).proxy(proxy.port()).proxyCredentials("user", "pass"));
  for (int time = 0; time < 2; ++time) {
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
    const auto sent = proxy.requests().back();
    EXPECT_EQ(sent.header("proxy-authorization"), "Basic dXNlcjpwYXNz");
    EXPECT_EQ(sent.headerCount("proxy-authorization"), 1U);
  }
  EXPECT_EQ(server.request(0).header("proxy-authorization"), std::nullopt);
  EXPECT_FALSE(plugin.log().contains("dXNlcjpwYXNz"));
}

TEST(PlainProxy, AnswersForItselfWhereCredentialsAreMissing) {
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(Config(80).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 407);
}

TEST(PlainProxy, IsNeverLedToAnotherServerByAPath) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).proxy(proxy.port()));
  const auto origin = "http://127.0.0.1:" + std::to_string(server.port());
  for (const std::string path : {"//elsewhere.test/x", "http://elsewhere.test/x"}) {
    EXPECT_EQ(plugin.request(Request("GET", path.c_str())).status(), 200);
    const auto expected = path.starts_with('/') ? path : "/" + path;
    EXPECT_EQ(proxy.requests().back().target, origin + expected);
  }
}

TEST(PlainProxy, KeepsTheConnection) {
  // A server that answers as a proxy would.
  ScriptedServer proxy(answerWithTarget);
  PluginUnderTest plugin(Config().host("server.test").port(80).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "http://server.test:80/x");
  EXPECT_EQ(plugin.request(Request("GET", "/y")).body(), "http://server.test:80/y");
  EXPECT_EQ(proxy.connectionCount(), 1U);
}

TEST(PlainProxy, WithoutAHostIsNoProxy) {
  ScriptedServer server(answerWithTarget);
  PluginUnderTest plugin(Config(server.port()).set("proxy/port", 1));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_FALSE(plugin.log().contains("Connecting via proxy server"));
}

// --- HTTPS --------------------------------------------------------------------------------------

class Tunnel : public ::testing::Test {
 protected:
  Config through(const ScriptedProxy& proxy, int port) {
    return Config(port).tls(_authority.caFile()).proxy(proxy.port());
  }

  CertificateAuthority _authority;
  TlsOptions _tls{_authority.issue()};
};

TEST_F(Tunnel, CarriesSeveralRequestsAndIsAskedForInTheClear) {
  ScriptedServer server(answerWithTarget, _tls);
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy, server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(plugin.request(Request("GET", "/y")).body(), "/y");
  EXPECT_EQ(proxy.connectionCount(), 1U);
  ASSERT_EQ(proxy.requests().size(), 1U);
  const auto connect = proxy.request(0);
  EXPECT_EQ(connect.method, "CONNECT");
  EXPECT_EQ(connect.target, "127.0.0.1:" + std::to_string(server.port()));
  EXPECT_EQ(connect.header("host"), connect.target);
  EXPECT_EQ(server.request(0).target, "/x");
}

TEST_F(Tunnel, WithoutCredentialsIsAskedForWithoutAuthorization) {
  ScriptedServer server(answerWithTarget, _tls);
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy, server.port()));
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(proxy.request(0).header("proxy-authorization"), std::nullopt);
}

TEST_F(Tunnel, WithCredentialsIsAskedForWithThem) {
  ScriptedServer server(answerWithTarget, _tls);
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(through(proxy, server.port()).proxyCredentials("user", "pass"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(proxy.request(0).headerCount("proxy-authorization"), 1U);
  EXPECT_EQ(server.request(0).header("proxy-authorization"), std::nullopt);
}

TEST_F(Tunnel, HidesTheServersCredentialsFromTheProxy) {
  ScriptedServer server(answerWithTarget, _tls);
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy, server.port()).basicAuthentication("user", "pass"));
  plugin.request(Request("GET", "/x").header("X-Secret", "s"));
  EXPECT_EQ(proxy.request(0).header("authorization"), std::nullopt);
  EXPECT_EQ(proxy.request(0).header("x-secret"), std::nullopt);
  EXPECT_EQ(server.request(0).header("authorization"), "Basic dXNlcjpwYXNz");
}

TEST_F(Tunnel, ThatIsRefusedIsAnErrorThatNamesTheStatus) {
  ProxyOptions options;
  options.refuseConnect = 503;
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(through(proxy, 443));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_EQ(answer.reason(), "HTTP Exception: The proxy 127.0.0.1:" + std::to_string(proxy.port()) +
                                 " refused a tunnel to 127.0.0.1:443: 503 Service Unavailable");
}

TEST_F(Tunnel, WithWrongCredentialsIsRefused) {
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(through(proxy, 443).proxyCredentials("user", "wrong"));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.reason().find("407"), std::string::npos) << answer.reason();
}

void expectNoSecret(PluginUnderTest& plugin, const Answer& answer) {
  // The second is "user:tell-nobody".
  for (const std::string secret : {"tell-nobody", "dXNlcjp0ZWxsLW5vYm9keQ"}) {
    EXPECT_FALSE(plugin.log().contains(secret));
    for (const auto& [key, text] : plugin.status().items()) {
      EXPECT_EQ(text.find(secret), std::string::npos) << key;
    }
    EXPECT_EQ(answer.body().find(secret), std::string::npos);
    EXPECT_EQ(connectivity::toText(data_t(answer.metadata().copy())).find(secret),
              std::string::npos);
  }
}

TEST(ProxyCredentials, AreToldToNobodyButTheProxy) {
  ScriptedServer server(answerWithTarget);
  ScriptedProxy proxy(wanting("user:tell-nobody"));
  PluginUnderTest plugin(
      Config(server.port()).proxy(proxy.port()).proxyCredentials("user", "tell-nobody"));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 200);
  expectNoSecret(plugin, answer);
}

TEST_F(Tunnel, ThatFailsTellsNobodyTheCredentials) {
  for (const char* const wanted : {"user:tell-nobody", "user:other"}) {
    ScriptedProxy proxy(wanting(wanted));
    PluginUnderTest plugin(through(proxy, unusedPort()).proxyCredentials("user", "tell-nobody"));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 400);
    expectNoSecret(plugin, answer);
  }
}

TEST_F(Tunnel, ChecksTheServersNameAndNotTheProxys) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issueForOtherName("server.test")});
  ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  PluginUnderTest right(through(proxy, 443).host("server.test"));
  EXPECT_EQ(right.request(Request("GET", "/x")).body(), "/x");
}

TEST_F(Tunnel, ToAServerWithAnotherNameIsNotUsed) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issueForOtherName("server.test")});
  ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(through(proxy, 443).host("expected.test"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "SSL Exception: certificate verify failed: hostname mismatch");
  EXPECT_EQ(server.requestCount(), 0U);
}

TEST_F(Tunnel, IsReplacedAfterABodyThatWasCutShort) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\nContent-Length: 9\r\n\r\nshort");
                         },
                         answerWithTarget},
                        _tls);
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy, server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "Error processing response stream: I/O error");
  EXPECT_EQ(plugin.request(Request("GET", "/next")).body(), "/next");
  EXPECT_EQ(proxy.tunnelCount(), 2U);
}

TEST_F(Tunnel, IsReplacedForTheSecondTryWhereNoAnswerCame) {
  ScriptedServer server(
      {[](Connection& connection) { connection.readRequest(); }, answerWithTarget}, _tls);
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(through(proxy, server.port()).proxyCredentials("user", "pass"));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "/x") << answer.reason();
  EXPECT_EQ(proxy.tunnelCount(), 2U);
  EXPECT_EQ(plugin.log().count("will retry once: "), 1U);
}

TEST_F(Tunnel, IsReplacedAfterAnAnswerThatWasCutWithinItsHeadAndHoldsNothingOfIt) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send("HTTP/1.1 200 OK\r\nX-Stale: yes");
                         },
                         answerWithTarget},
                        _tls);
  ScriptedProxy proxy(wanting("user:pass"));
  PluginUnderTest plugin(through(proxy, server.port()).proxyCredentials("user", "pass"));
  // An answer has begun, so the request is not sent again.
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "Malformed message: The server closed the connection within the response head");
  EXPECT_EQ(proxy.tunnelCount(), 1U);
  const Answer next = plugin.request(Request("GET", "/next"));
  EXPECT_EQ(next.body(), "/next") << next.reason();
  EXPECT_EQ(next.header("x-stale"), std::nullopt);
  EXPECT_EQ(proxy.tunnelCount(), 2U);
  EXPECT_FALSE(plugin.log().contains("will retry once: "));
}

TEST_F(Tunnel, IsReplacedAfterAnUnreadBody) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.sendResponse(
                               200, {{"Content-Encoding", "br"}},
                               "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged");
                           answerWithTarget(connection);
                         },
                         answerWithTarget},
                        _tls);
  ScriptedProxy proxy;
  PluginUnderTest plugin(through(proxy, server.port()));
  plugin.request(Request("GET", "/x"));
  EXPECT_EQ(plugin.request(Request("GET", "/next")).body(), "/next");
}

// --- squid --------------------------------------------------------------------------------------

TEST_F(Tunnel, AndAbsoluteFormWorkThroughSquid) {
  if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  const RealSquid squid({"user", "pass"});
  ScriptedServer plain(answerWithTarget);
  ScriptedServer secure(answerWithTarget, _tls);
  for (const bool tls : {false, true}) {
    Config config(tls ? secure.port() : plain.port());
    if (tls) config.tls(_authority.caFile());
    PluginUnderTest plugin(config.proxy(squid.port()).proxyCredentials("user", "pass"));
    for (const char* const path : {"/x", "/y"}) {
      const Answer answer = plugin.request(Request("GET", path));
      EXPECT_EQ(answer.status(), 200) << answer.reason();
      EXPECT_EQ(answer.body(), path);
    }
  }
}

}  // namespace
}  // namespace test_support
