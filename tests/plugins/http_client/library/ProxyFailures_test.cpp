// Failures at a proxy: the error says that it was the proxy, and which.
#include <algorithm>
#include <cctype>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Descriptor.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* serverName = "server.test";

enum class Form { Absolute, Tunnel };

std::string nameOf(const ::testing::TestParamInfo<Form>& info) {
  return info.param == Form::Absolute ? "InAbsoluteForm" : "ForATunnel";
}

class ProxyFailure : public ::testing::TestWithParam<Form> {
 protected:
  Config through(const std::string& host, int port) const {
    Config config(8443);
    config.host(serverName).timeoutSecs(2).set("proxy/host", host).set("proxy/port", port);
    if (GetParam() == Form::Tunnel) config.tls(_authority.caFile());
    return config;
  }
  // Of an error that names the proxy, and the server behind it or not at all.
  void expectProxyNamed(const Answer& answer, const std::string& host, int port) const {
    expectError(answer);
    std::string text = answer.reason();
    const auto proxyAt = text.find(host + ":" + std::to_string(port));
    EXPECT_NE(proxyAt, std::string::npos) << text;
    if (const auto serverAt = text.find(serverName); serverAt != std::string::npos) {
      EXPECT_LT(proxyAt, serverAt) << text;
    }
    std::ranges::transform(text, text.begin(), [](unsigned char letter) {
      return static_cast<char>(std::tolower(letter));
    });
    EXPECT_NE(text.find("proxy"), std::string::npos) << text;
  }

 private:
  CertificateAuthority _authority;
};

INSTANTIATE_TEST_SUITE_P(Asked, ProxyFailure, ::testing::Values(Form::Absolute, Form::Tunnel),
                         nameOf);

TEST_P(ProxyFailure, WhereNobodyListensNamesTheProxy) {
  const int port = unusedPort();
  PluginUnderTest plugin(through("127.0.0.1", port));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectProxyNamed(answer, "127.0.0.1", port);
  EXPECT_NE(answer.reason().find("refused"), std::string::npos) << answer.reason();
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
}

TEST_P(ProxyFailure, OfAHostThatNobodyKnowsNamesTheProxy) {
  PluginUnderTest plugin(through("no-such-host.invalid", 3128));
  expectProxyNamed(plugin.request(Request("GET", "/x")), "no-such-host.invalid", 3128);
}

TEST_P(ProxyFailure, ThatClosesWithoutAWordNamesTheProxy) {
  ScriptedServer proxy([](Connection& connection) { connection.readRequest(); });
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
  expectProxyNamed(plugin.request(Request("GET", "/x")), "127.0.0.1", proxy.port());
}

TEST_P(ProxyFailure, ThatResetsNamesTheProxy) {
  ScriptedServer proxy([](Connection& connection) {
    connection.readRequest();
    connection.reset();
  });
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
  expectProxyNamed(plugin.request(Request("GET", "/x")), "127.0.0.1", proxy.port());
}

// --- A tunnel that fails ------------------------------------------------------------------------

class TunnelProxyFailure : public ProxyFailure {};
class RefusedTunnel : public ProxyFailure {};

INSTANTIATE_TEST_SUITE_P(Asked, TunnelProxyFailure, ::testing::Values(Form::Tunnel), nameOf);
INSTANTIATE_TEST_SUITE_P(Asked, RefusedTunnel, ::testing::Values(Form::Tunnel), nameOf);

TEST_P(TunnelProxyFailure, WithoutAnAnswerNamesTheProxy) {
  ScriptedServer proxy([](Connection& connection) {
    connection.readRequest();
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
  expectProxyNamed(plugin.request(Request("GET", "/x")), "127.0.0.1", proxy.port());
}

TEST_P(TunnelProxyFailure, WithAnAnswerThatIsNoHttpNamesTheProxy) {
  ScriptedServer proxy([](Connection& connection) {
    connection.readRequest();
    connection.send("SSH-2.0-proxy\r\n\r\n");
  });
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
  expectProxyNamed(plugin.request(Request("GET", "/x")), "127.0.0.1", proxy.port());
}

TEST_P(RefusedTunnel, NamesTheProxyAndItsStatusAndReason) {
  ProxyOptions options;
  options.refuseConnect = 503;
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  expectProxyNamed(answer, "127.0.0.1", proxy.port());
  EXPECT_NE(answer.reason().find("503 Service Unavailable"), std::string::npos) << answer.reason();
  EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
}

TEST_P(RefusedTunnel, IsNotAskedForAgain) {
  for (const int status : {302, 403, 407, 503}) {
    ProxyOptions options;
    options.refuseConnect = status;
    ScriptedProxy proxy(options);
    PluginUnderTest plugin(through("127.0.0.1", proxy.port()));
    expectError(plugin.request(Request("GET", "/x")));
    EXPECT_EQ(proxy.requests().size(), 1U) << status;
    EXPECT_FALSE(plugin.log().contains(retryLine)) << status;
  }
}

TEST_P(RefusedTunnel, IsAskedForAgainByTheNextRequest) {
  ProxyOptions options;
  options.refuseConnect = 503;
  ScriptedProxy proxy(options);
  PluginUnderTest plugin(through("127.0.0.1", proxy.port()).numClients(1));
  expectError(plugin.request(Request("GET", "/x")));
  expectError(plugin.request(Request("GET", "/x")));
  EXPECT_EQ(proxy.requests().size(), 2U);
}

// --- Failures of the server behind it -----------------------------------------------------------

TEST(ServerBehindAProxy, ThatIsNotAcceptedIsNoFailureOfTheProxys) {
  CertificateAuthority authority;
  ScriptedServer server(answerWithTarget, TlsOptions{authority.issueExpired()});
  ScriptedProxy proxy;
  PluginUnderTest plugin(Config(server.port()).tls(authority.caFile()).proxy(proxy.port()));
  expectError(plugin.request(Request("GET", "/x")),
              "SSL Exception: certificate verify failed: certificate has expired");
}

TEST(ServerWithoutAProxy, WhereNobodyListensNamesNoProxy) {
  const int port = unusedPort();
  PluginUnderTest plugin{Config(port)};
  expectError(plugin.request(Request("GET", "/x")),
              "Connection refused: 127.0.0.1:" + std::to_string(port));
}

}  // namespace
}  // namespace test_support
