// A proxy's refusal of a tunnel is final, and its error says who refused what, and why.
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Answering.hpp"
#include "tests/support/Certificates.hpp"

namespace test_support {
namespace {

constexpr int serverPort = 8443;
constexpr const char* serverName = "server.test";

class TunnelRefused : public ::testing::Test {
 protected:
  Config through(const ScriptedServer& proxy) const {
    Config config(serverPort);
    config.host(serverName).numClients(1).timeoutSecs(boundingTimeoutSecs);
    return config.tls(_authority.caFile()).proxy(proxy.port());
  }
  // The beginning of each text: who it is about, and what he did.
  static std::string proxyDid(const ScriptedServer& proxy, const std::string& what) {
    return "HTTP Exception: The proxy 127.0.0.1:" + std::to_string(proxy.port()) + what +
           " a tunnel to " + serverName + ":" + std::to_string(serverPort);
  }
  // One CONNECT, over one connection; one answer with exactly this text.
  void expectRefused(const std::string& answer, const std::string& did, const std::string& why) {
    ScriptedServer proxy([&](Connection& connection) {
      while (connection.readRequest()) connection.send(answer);
    });
    PluginUnderTest plugin(through(proxy));
    const Answer refused = plugin.request(Request("POST", "/x").body("secret"));
    expectError(refused, "HTTP Exception: ");
    EXPECT_EQ(refused.reason(), proxyDid(proxy, did) + why);
    EXPECT_EQ(plugin.statusItem(".status"), "FAILED");
    EXPECT_FALSE(plugin.log().contains(retryLine));
    plugin.shutdown();
    EXPECT_EQ(proxy.requestCount(), 1U);
    EXPECT_EQ(proxy.connectionCount(), 1U);
    EXPECT_EQ(plugin.answerCount(), 1U);
    EXPECT_EQ(proxy.request(0).method, "CONNECT");
    EXPECT_EQ(proxy.request(0).raw.find("secret"), std::string::npos);
  }

 private:
  CertificateAuthority _authority;
};

TEST_F(TunnelRefused, NamesStatusAndReason) {
  for (const std::string why : {"403 Forbidden", "407 Proxy Authentication Required",
                                "502 Bad Gateway", "404 ", "300 Hm", "599 Out of order, sorry"}) {
    expectRefused("HTTP/1.1 " + why + "\r\nContent-Length: 0\r\n\r\n", " refused", ": " + why);
  }
}

TEST_F(TunnelRefused, OfAStatusWithoutAReasonNamesTheStatus) {
  expectRefused("HTTP/1.1 403\r\nContent-Length: 0\r\n\r\n", " refused", ": 403 ");
}

// What a proxy has to say to people is not the server's answer.
TEST_F(TunnelRefused, WithAPageSaysNothingOfThePage) {
  expectRefused("HTTP/1.1 503 Down\r\nContent-Length: 6\r\n\r\nforged", " refused", ": 503 Down");
  expectRefused("HTTP/1.1 503 Down\r\nTransfer-Encoding: chunked\r\n\r\n6\r\nforged\r\n0\r\n\r\n",
                " refused", ": 503 Down");
}

TEST_F(TunnelRefused, WithALocationIsNotFollowed) {
  expectRefused("HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1/\r\nContent-Length: 0\r\n\r\n",
                " refused", ": 302 Found");
}

TEST_F(TunnelRefused, BehindInterimResponsesIsTheOneThatCounts) {
  expectRefused("HTTP/1.1 100 Continue\r\n\r\nHTTP/1.1 403 No\r\nContent-Length: 0\r\n\r\n",
                " refused", ": 403 No");
}

TEST_F(TunnelRefused, ByAnAnswerThatCannotBeReadSaysWhy) {
  const std::string did = " sent no usable answer for";
  expectRefused("SSH-2.0-proxy\r\n\r\n", did, ": The response is not HTTP");
  expectRefused("HTTP/1.1 2000 OK\r\n\r\n", did,
                ": Malformed status line in the response: HTTP/1.1 2000 OK");
  expectRefused("HTTP/1.1 200 OK\r\nno field\r\n\r\n", did,
                ": Malformed header line 1 in the response: no colon");
}

// Nobody may put bytes into a tunnel before it is used.
TEST_F(TunnelRefused, ByMoreThanItsAnswerSaysSo) {
  expectRefused("HTTP/1.1 200 OK\r\n\r\nforged", " sent more than its answer for", "");
}

// The next request asks anew.
TEST_F(TunnelRefused, OnceIsNotForEver) {
  ScriptedServer proxy([](Connection& connection) {
    connection.readRequest();
    connection.sendResponse(403);
  });
  PluginUnderTest plugin(through(proxy));
  for (std::size_t time = 1; time <= 3; ++time) {
    expectError(plugin.request(Request("GET", "/x")), "HTTP Exception: ");
    EXPECT_EQ(proxy.requestCount(), time);
  }
}

}  // namespace
}  // namespace test_support
