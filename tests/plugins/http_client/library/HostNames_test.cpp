// What may stand as the name of a host, and how it is used: in the Host line, as the name that is
// verified, as an address.
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// --- Names that are none ------------------------------------------------------------------------

const std::vector<std::string>& noHosts() {
  static const std::vector<std::string> names = {"http://server.test",
                                                 "https://server.test/",
                                                 "//server.test",
                                                 "server.test:80",
                                                 "127.0.0.1:8080",
                                                 "[::1]:80",
                                                 "server test",
                                                 " server.test",
                                                 "server.test ",
                                                 " ",
                                                 "server\ttest",
                                                 "server.test\n",
                                                 "server.test\r\nX: y",
                                                 "server\x7F.test",
                                                 "\x01"};
  return names;
}

TEST(HostName, ThatIsNoneFailsTheCreation) {
  for (const std::string& name : noHosts()) {
    const auto failure = creationFailure(Config(80).host(name));
    ASSERT_TRUE(failure.has_value()) << name;
    EXPECT_TRUE(failure->starts_with("HTTPClient configuration host ")) << *failure;
  }
}

TEST(HostName, OfAProxyThatIsNoneFailsTheCreation) {
  for (const std::string& name : noHosts()) {
    const auto failure = creationFailure(Config(80).proxy(3128).set("proxy/host", name));
    ASSERT_TRUE(failure.has_value()) << name;
    EXPECT_TRUE(failure->starts_with("HTTPClient configuration proxy/host ")) << *failure;
  }
}

TEST(HostName, ThatIsOneMakesATransport) {
  for (const char* const name :
       {"localhost", "server.test", "server.test.", "a-b_c.test", "127.0.0.1", "::1", "[::1]",
        "2001:db8::7", "[2001:db8::7]", "::ffff:127.0.0.1", "SERVER"}) {
    EXPECT_EQ(creationFailure(Config(80).host(name)), std::nullopt) << name;
    EXPECT_EQ(creationFailure(Config(80).proxy(3128).set("proxy/host", name)), std::nullopt)
        << name;
  }
}

// --- Addresses ----------------------------------------------------------------------------------

class Ipv6Host : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (!listenOnLoopback6().valid()) GTEST_SKIP() << "this machine has no IPv6";
  }
};

INSTANTIATE_TEST_SUITE_P(Spellings, Ipv6Host, ::testing::Values("::1", "[::1]"));

TEST_P(Ipv6Host, IsReachedAndNamedInBrackets) {
  ScriptedServer server({answerWithTarget}, std::nullopt, Loopback::V6);
  PluginUnderTest plugin(Config(server.port()).host(GetParam()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "/x") << answer.reason();
  EXPECT_EQ(server.request(0).header("host"), "[::1]:" + std::to_string(server.port()));
}

TEST_P(Ipv6Host, IsVerifiedAsAnAddress) {
  CertificateAuthority authority;
  const TlsOptions tls{authority.issue({"somebody", {"somebody"}, {"::1"}})};
  ScriptedServer server({answerWithTarget}, tls, Loopback::V6);
  PluginUnderTest plugin(Config(server.port()).host(GetParam()).tls(authority.caFile()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "/x") << answer.reason();
  ASSERT_EQ(server.clientHellos().size(), 1U);
  EXPECT_EQ(server.clientHellos()[0].serverName, "") << "an address is no name";
}

TEST_P(Ipv6Host, WithACertificateForAnotherAddressIsRefused) {
  CertificateAuthority authority;
  const TlsOptions tls{authority.issue({"::1", {"::1", "localhost"}, {"127.0.0.1"}})};
  ScriptedServer server({answerWithTarget}, tls, Loopback::V6);
  PluginUnderTest plugin(Config(server.port()).host(GetParam()).tls(authority.caFile()));
  expectError(plugin.request(Request("GET", "/x")),
              "SSL Exception: certificate verify failed: IP address mismatch");
}

TEST_P(Ipv6Host, IsAskedForInBracketsThroughAProxy) {
  ScriptedServer proxy(answerWithTarget);
  PluginUnderTest plugin(Config(8080).host(GetParam()).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "http://[::1]:8080/x");
  EXPECT_EQ(proxy.request(0).header("host"), "[::1]:8080");
}

TEST_P(Ipv6Host, IsAskedForInBracketsByAConnect) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issue({"x", {"x"}, {"::1"}})});
  ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(Config(8443).host(GetParam()).tls(authority.caFile()).proxy(proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "/x") << answer.reason();
  EXPECT_EQ(proxy.request(0).target, "[::1]:8443");
  EXPECT_EQ(server.request(0).header("host"), "[::1]:8443");
}

TEST_P(Ipv6Host, MayBeAProxys) {
  ScriptedServer proxy({answerWithTarget}, std::nullopt, Loopback::V6);
  PluginUnderTest plugin(
      Config(80).host("server.test").proxy(proxy.port()).set("proxy/host", GetParam()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.body(), "http://server.test:80/x") << answer.reason();
}

// A redirect to the same place, whichever way it is spelt, leads to no other server.
TEST_P(Ipv6Host, IsTheSameServerInALocation) {
  ScriptedServer server({[](Connection& connection) {
                          const auto first = connection.readRequest();
                          if (!first.has_value()) return;
                          const std::string host = first->header("host").value_or("");
                          connection.sendResponse(302, {{"Location", "http://" + host + "/y"}});
                          answerWithTarget(connection);
                        }},
                        std::nullopt, Loopback::V6);
  PluginUnderTest plugin(
      Config(server.port()).host(GetParam()).basicAuthentication("user", "pass"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/y");
  EXPECT_EQ(server.connectionCount(), 1U);
  EXPECT_TRUE(lastRequest(server).header("authorization").has_value());
}

// --- A final dot --------------------------------------------------------------------------------

// The name resolves nowhere: a proxy leads to the server.
TEST(HostNameWithAFinalDot, KeepsItInTheHostLineAndLosesItInTheHandshake) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issueForOtherName("server.test")});
  ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(
      Config(8443).host("server.test.").tls(authority.caFile()).proxy(proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  ASSERT_EQ(answer.body(), "/x") << answer.reason();
  EXPECT_EQ(server.request(0).header("host"), "server.test.:8443");
  EXPECT_EQ(server.clientHellos().at(0).serverName, "server.test");
}

TEST(HostNameWithAFinalDot, OfAnotherServerIsStillRefused) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issueForOtherName("other.test")});
  ProxyOptions options;
  options.targetPort = server.port();
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(
      Config(8443).host("server.test.").tls(authority.caFile()).proxy(proxy.port()));
  expectError(plugin.request(Request("GET", "/x")),
              "SSL Exception: certificate verify failed: hostname mismatch");
}

TEST(HostNameWithAFinalDot, KeepsItInTheHostLineOverPlainHttp) {
  ScriptedServer proxy(answerWithTarget);
  PluginUnderTest plugin(Config(8080).host("server.test.").proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  EXPECT_EQ(proxy.request(0).header("host"), "server.test.:8080");
}

TEST(HostName, IsToldInTheHandshake) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issue()});
  PluginUnderTest plugin(Config(server.port()).host("localhost").tls(authority.caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(server.clientHellos().at(0).serverName, "localhost");
}

}  // namespace
}  // namespace test_support
