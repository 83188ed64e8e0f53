// The client's certificate before the distribution's nginx, which verifies it. Skipped where nginx
// is not installed.
#include <memory>
#include <string>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/RealServers.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

CertificateRequest theClient() {
  CertificateRequest request;
  request.commonName = "the client";
  return request;
}

class NginxThatVerifiesClients : public ::testing::TestWithParam<const char*> {
 protected:
  void SetUp() override {
    if (!RealNginx::available()) GTEST_SKIP() << "nginx is not installed";
  }

  RealNginx& serve(const std::string& directives = "") {
    const CertificateFiles files = _authority.issue();
    _nginx = std::make_unique<RealNginx>(
        "ssl_certificate " + files.certificate + ";\nssl_certificate_key " + files.key +
            ";\nssl_client_certificate " + _authority.caFile() +
            ";\nssl_verify_client on;\nssl_verify_depth 2;\nssl_protocols " + GetParam() +
            ";\nkeepalive_requests 3;\nssl_session_cache builtin;\n"
            "location /who { return 200 \"$ssl_client_verify $ssl_client_s_dn\"; }\n" +
            directives,
        "ssl");
    return *_nginx;
  }
  Config plain(int port) { return Config(port).numClients(1).tls(_authority.caFile()); }
  Config showing(int port, const CertificateFiles& files) {
    return plain(port)
        .set("tlsClientCertificateFile", files.certificate)
        .set("tlsClientKeyFile", files.key);
  }
  CertificateAuthority& authority() { return _authority; }

 private:
  CertificateAuthority _authority;
  std::unique_ptr<RealNginx> _nginx;
};

INSTANTIATE_TEST_SUITE_P(Versions, NginxThatVerifiesClients,
                         ::testing::Values("TLSv1.2", "TLSv1.3"));

TEST_P(NginxThatVerifiesClients, KnowsWhoAsksOnEveryConnection) {
  const RealNginx& nginx = serve();
  PluginUnderTest plugin(showing(nginx.port(), authority().issue(theClient())));
  for (int time = 0; time < 10; ++time) {
    const Answer answer = plugin.request(Request("GET", "/who"));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
    EXPECT_EQ(answer.body(), "SUCCESS CN=the client");
  }
}

TEST_P(NginxThatVerifiesClients, IsShownTheWholeChain) {
  const RealNginx& nginx = serve();
  PluginUnderTest plugin(showing(nginx.port(), authority().issueWithChain(theClient())));
  EXPECT_EQ(plugin.request(Request("GET", "/who")).body(), "SUCCESS CN=the client");
}

TEST_P(NginxThatVerifiesClients, TakesAKeyUnderAPassphrase) {
  const RealNginx& nginx = serve();
  const CertificateFiles files =
      authority().encrypted(authority().issue(theClient()), "tell-nobody");
  PluginUnderTest plugin(showing(nginx.port(), files).set("tlsClientKeyPassword", "tell-nobody"));
  EXPECT_EQ(plugin.request(Request("GET", "/who")).body(), "SUCCESS CN=the client");
}

TEST_P(NginxThatVerifiesClients, RefusesWhoShowsNone) {
  const RealNginx& nginx = serve();
  PluginUnderTest plugin(plain(nginx.port()));
  const Answer answer = plugin.request(Request("GET", "/who"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_FALSE(answer.isError()) << "the answer is nginx's: " << answer.reason();
  EXPECT_NE(answer.body().find("No required SSL certificate was sent"), std::string::npos);
}

TEST_P(NginxThatVerifiesClients, RefusesACertificateOfAnotherAuthority) {
  const RealNginx& nginx = serve();
  CertificateAuthority other("Another Authority");
  PluginUnderTest plugin(showing(nginx.port(), other.issue(theClient())));
  EXPECT_EQ(plugin.request(Request("GET", "/who")).status(), 400);
}

TEST_P(NginxThatVerifiesClients, GetsNoneWhereARedirectLedThere) {
  const RealNginx& nginx = serve();
  TlsOptions tls{authority().issue()};
  tls.askForCertificate = true;
  ScriptedServer home(tls);
  home.answer(
      "/from",
      {308, {{"Location", "https://127.0.0.1:" + std::to_string(nginx.port()) + "/who"}}, ""});
  PluginUnderTest plugin(showing(home.port(), authority().issue(theClient())));
  const Answer answer = plugin.request(Request("GET", "/from"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_NE(answer.body().find("No required SSL certificate was sent"), std::string::npos)
      << answer.body();
  EXPECT_EQ(home.clientHellos().at(0).certificate, "the client");
}

}  // namespace
}  // namespace test_support
