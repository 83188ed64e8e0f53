// The transport through the distribution's squid: absolute form and tunnels, with credentials and
// without, and what comes back where squid refuses. Skipped where squid is not installed.
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

// Answers with what came: the target, or the body of a request that has one.
void echo(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {{"X-Method", request->method}},
                            request->body.empty() ? request->target : request->body);
  }
}

enum class Way { Plain, Tunnel };

// One squid for each test, in front of a plain and of a TLS server.
class ThroughSquid : public ::testing::TestWithParam<Way> {
 protected:
  void SetUp() override {
    if (!RealSquid::available()) GTEST_SKIP() << "squid is not installed";
  }

  void startSquid(const SquidOptions& options = {}) {
    _squid = std::make_unique<RealSquid>(options);
  }
  Config toServer() { return to(GetParam() == Way::Plain ? _plain.port() : _secure.port()); }
  Config to(int port) {
    Config config(port);
    if (GetParam() == Way::Tunnel) config.tls(_authority.caFile());
    config.proxy(_squid->port());
    return config;
  }
  ScriptedServer& server() { return GetParam() == Way::Plain ? _plain : _secure; }
  // As a refused tunnel names them.
  std::string peers(int port) const {
    return std::to_string(_squid->port()) +
           " refused a tunnel to 127.0.0.1:" + std::to_string(port);
  }

 private:
  CertificateAuthority _authority;
  ScriptedServer _plain{echo};
  ScriptedServer _secure{echo, TlsOptions{_authority.issue()}};
  std::unique_ptr<RealSquid> _squid;
};

std::string wayName(const ::testing::TestParamInfo<Way>& info) {
  return info.param == Way::Plain ? "Plain" : "Tunnel";
}

TEST_P(ThroughSquid, EveryMethodAndBodyArrives) {
  startSquid();
  PluginUnderTest plugin(toServer());
  const std::string large(2'000'000, 'x');
  EXPECT_EQ(plugin.request(Request("GET", "/x").query("a", "b c")).body(), "/x?a=b%20c");
  EXPECT_TRUE(plugin.request(Request("POST", "/x").body(large)).body() == large);
  EXPECT_EQ(plugin.request(Request("PUT", "/x").body("small")).body(), "small");
  EXPECT_EQ(plugin.request(Request("DELETE", "/x")).header("x-method"), "DELETE");
  EXPECT_EQ(server().request(0).header("host"), "127.0.0.1:" + std::to_string(server().port()));
}

TEST_P(ThroughSquid, WithCredentialsIsAllowed) {
  startSquid({"user", "pass"});
  PluginUnderTest plugin(toServer().proxyCredentials("user", "pass"));
  for (const std::string path : {"/x", "/y", "/z"}) {
    EXPECT_EQ(plugin.request(Request("GET", path.c_str())).body(), path);
    EXPECT_EQ(server().requests().back().header("proxy-authorization"), std::nullopt);
  }
  EXPECT_FALSE(plugin.log().contains("dXNlcjpwYXNz")) << "the credentials in a log";
}

TEST_P(ThroughSquid, SeveralWorkersGetEachRequestItsOwnAnswer) {
  startSquid({"user", "pass"});
  PluginUnderTest plugin(toServer().proxyCredentials("user", "pass").numClients(4));
  std::vector<Message> batch;
  batch.reserve(200);
  for (int i = 0; i < 200; ++i) {
    batch.push_back(Request("GET", ("/" + std::to_string(i)).c_str()).id(i).message());
  }
  ASSERT_EQ(plugin.send(std::move(batch)), 0);
  std::set<long long> ids;
  for (const Answer& answer : plugin.waitForAnswers(200)) {
    EXPECT_EQ(answer.body(), "/" + std::to_string(answer.id())) << answer.reason();
    ids.insert(answer.id());
  }
  EXPECT_EQ(ids.size(), 200U);
}

// What the host gets where squid says no: squid's own page, or, where no tunnel came to be and
// there is no response of the server's, an error that quotes squid's status line.
// `peers`: "<the proxy's port> refused a tunnel to 127.0.0.1:<the server's port>"
void expectRefusal(const Answer& answer, int status, const std::string& reason,
                   const std::string& peers) {
  if (ThroughSquid::GetParam() == Way::Plain) {
    EXPECT_EQ(answer.status(), status) << answer.reason();
    EXPECT_EQ(answer.reason(), reason);
    EXPECT_EQ(answer.text("contentType"), "text/html");
    EXPECT_FALSE(answer.body().empty());
    EXPECT_FALSE(answer.isError());
  } else {
    EXPECT_EQ(answer.status(), 400);
    EXPECT_EQ(answer.reason(), "HTTP Exception: The proxy 127.0.0.1:" + peers + ": " +
                                   std::to_string(status) + " " + reason);
    EXPECT_TRUE(answer.isError());
  }
}

TEST_P(ThroughSquid, WithoutCredentialsIsRefused) {
  startSquid({"user", "pass"});
  PluginUnderTest plugin(toServer());
  for (int i = 0; i < 2; ++i) {
    expectRefusal(plugin.request(Request("GET", "/x")), 407, "Proxy Authentication Required",
                  peers(server().port()));
  }
  EXPECT_EQ(server().connectionCount(), 0U);
  EXPECT_EQ(plugin.statusItem(".status"), GetParam() == Way::Plain ? "ONLINE" : "FAILED");
}

TEST_P(ThroughSquid, WithWrongCredentialsIsRefused) {
  startSquid({"user", "pass"});
  PluginUnderTest plugin(toServer().proxyCredentials("user", "wrong"));
  expectRefusal(plugin.request(Request("POST", "/x").body("abc")), 407,
                "Proxy Authentication Required", peers(server().port()));
  EXPECT_EQ(server().connectionCount(), 0U);
}

TEST_P(ThroughSquid, ToNobodyIsRefused) {
  startSquid();
  const int port = unusedPort();
  PluginUnderTest plugin(to(port));
  expectRefusal(plugin.request(Request("GET", "/x")), 503, "Service Unavailable", peers(port));
}

TEST_P(ThroughSquid, RedirectsWithinTheServerAreFollowed) {
  startSquid();
  CertificateAuthority authority;
  const auto redirecting = [](Connection& connection) {
    while (const auto request = connection.readRequest()) {
      if (request->target == "/from") {
        connection.sendResponse(307, {{"Location", "/to"}}, "moved");
      } else {
        connection.sendResponse(200, {}, request->target + request->body);
      }
    }
  };
  const auto tls =
      GetParam() == Way::Plain ? std::nullopt : std::optional(TlsOptions{authority.issue()});
  ScriptedServer moving(redirecting, tls);
  Config config = to(moving.port());
  if (tls) config.tls(authority.caFile());
  PluginUnderTest plugin(config);
  const Answer answer = plugin.request(Request("POST", "/from").body("+body"));
  EXPECT_EQ(answer.body(), "/to+body") << answer.reason();
}

INSTANTIATE_TEST_SUITE_P(Ways, ThroughSquid, ::testing::Values(Way::Plain, Way::Tunnel), wayName);

}  // namespace
}  // namespace test_support
