// The client's certificate: whom it is shown to, and which files make no transport. Every server
// here asks for one and takes whatever it is shown.
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "tests/plugins/http_client/Expectations.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedProxy.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace test_support {
namespace {

constexpr const char* passphrase = "tell-nobody";

// How the client treats the server's certificate.
enum class Trust { AuthorityOnly, Anyone };

CertificateRequest named(const std::string& name) {
  CertificateRequest request;
  request.commonName = name;
  return request;
}

class ClientCertificate : public ::testing::Test {
 protected:
  TlsOptions asking(TlsVersion version = TlsVersion::Any) {
    TlsOptions tls{_authority.issue(), version};
    tls.askForCertificate = true;
    return tls;
  }
  // With the client's certificate, for a server on this port.
  Config showing(int port) { return showing(port, _client); }
  Config showing(int port, const CertificateFiles& files) {
    return Config(port)
        .numClients(1)
        .tls(_authority.caFile())
        .set("tlsClientCertificateFile", files.certificate)
        .set("tlsClientKeyFile", files.key);
  }
  CertificateAuthority& authority() { return _authority; }
  const CertificateFiles& client() const { return _client; }

 private:
  CertificateAuthority _authority;
  CertificateFiles _client = _authority.issue(named("the client"));
};

// --- Whom it is shown to ------------------------------------------------------------------------

TEST_F(ClientCertificate, IsShownToTheConfiguredServerInBothVersions) {
  for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) {
    ScriptedServer server(answerWithTarget, asking(version));
    PluginUnderTest plugin(showing(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
    EXPECT_EQ(plugin.request(Request("GET", "/y")).body(), "/y");
    ASSERT_EQ(server.clientHellos().size(), 1U);
    EXPECT_EQ(server.clientHellos()[0].certificate, "the client");
  }
}

TEST_F(ClientCertificate, IsShownOnEveryConnectionOfEveryWorker) {
  ScriptedServer server(
      [](Connection& connection) {
        if (connection.readRequest()) connection.sendResponse(200, {{"Connection", "close"}});
      },
      asking());
  PluginUnderTest plugin(showing(server.port()).numClients(3));
  for (long long id = 1; id <= 12; ++id) plugin.send(Request("GET", "/x").id(id));
  for (const Answer& answer : plugin.waitForAnswers(12)) EXPECT_EQ(answer.status(), 200);
  ASSERT_EQ(server.clientHellos().size(), 12U);
  for (const ClientHello& hello : server.clientHellos()) {
    EXPECT_EQ(hello.certificate, "the client");
  }
}

TEST_F(ClientCertificate, IsShownToTheServerThroughATunnel) {
  ScriptedServer server(answerWithTarget, asking());
  ScriptedProxy proxy;
  PluginUnderTest plugin(showing(server.port()).proxy(proxy.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  ASSERT_EQ(server.clientHellos().size(), 1U);
  EXPECT_EQ(server.clientHellos()[0].certificate, "the client");
}

TEST_F(ClientCertificate, WithAKeyUnderAPassphraseIsShown) {
  ScriptedServer server(answerWithTarget, asking());
  const CertificateFiles files = authority().encrypted(client(), passphrase);
  PluginUnderTest plugin(showing(server.port(), files).set("tlsClientKeyPassword", passphrase));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(server.clientHellos().at(0).certificate, "the client");
  EXPECT_FALSE(plugin.log().contains(passphrase));
  for (const auto& [key, text] : plugin.status().items()) {
    EXPECT_EQ(text.find(passphrase), std::string::npos) << key;
  }
}

TEST_F(ClientCertificate, ThatIsNotGivenIsNotShown) {
  ScriptedServer server(answerWithTarget, asking());
  PluginUnderTest plugin(Config(server.port()).tls(authority().caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(server.clientHellos().at(0).certificate, "");
}

TEST_F(ClientCertificate, OfOneTransportIsNoneOfAnothers) {
  ScriptedServer server(answerWithTarget, asking());
  LogDouble log;
  PluginOptions options;
  options.log = &log;
  PluginUnderTest with(showing(server.port()), options);
  PluginUnderTest without(Config(server.port()).tls(authority().caFile()), options);
  EXPECT_EQ(with.request(Request("GET", "/x")).body(), "/x");
  EXPECT_EQ(without.request(Request("GET", "/x")).body(), "/x");
  ASSERT_EQ(server.clientHellos().size(), 2U);
  EXPECT_EQ(server.clientHellos()[1].certificate, "");
}

// --- Whom it is not shown to --------------------------------------------------------------------

class ClientCertificateAfterARedirect : public ClientCertificate,
                                        public ::testing::WithParamInterface<Trust> {
 protected:
  ClientCertificateAfterARedirect() {
    home().answer("/near", {200, {{"Connection", "close"}}, "near"});
  }
  ScriptedServer& home() { return _home; }
  PluginUnderTest& connect() {
    Config config = showing(_home.port());
    if (GetParam() == Trust::Anyone) config.set("tlsAcceptUnrecognizedCertificates", true);
    _plugin = std::make_unique<PluginUnderTest>(config);
    return *_plugin;
  }
  void redirectTo(const std::string& host, int port) {
    _home.answer("/from", {308,
                           {{"Location", "https://" + host + ":" + std::to_string(port) + "/far"},
                            {"Connection", "close"}},
                           ""});
  }

 private:
  ScriptedServer _home{asking()};
  std::unique_ptr<PluginUnderTest> _plugin;
};

std::string nameOf(const ::testing::TestParamInfo<Trust>& info) {
  return info.param == Trust::Anyone ? "AcceptingAll" : "Verifying";
}

INSTANTIATE_TEST_SUITE_P(Trusting, ClientCertificateAfterARedirect,
                         ::testing::Values(Trust::AuthorityOnly, Trust::Anyone), nameOf);

TEST_P(ClientCertificateAfterARedirect, IsShownToTheConfiguredServerBeforeAndAfter) {
  ScriptedServer elsewhere(asking());
  elsewhere.answer("/far", {200, {}, "far"});
  redirectTo("127.0.0.1", elsewhere.port());
  PluginUnderTest& plugin = connect();
  EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "far");
  EXPECT_EQ(plugin.request(Request("GET", "/near")).body(), "near");
  ASSERT_EQ(home().clientHellos().size(), 2U);
  for (const ClientHello& hello : home().clientHellos()) {
    EXPECT_EQ(hello.certificate, "the client");
  }
}

TEST_P(ClientCertificateAfterARedirect, IsNotShownToAnotherPort) {
  ScriptedServer elsewhere(asking());
  elsewhere.answer("/far", {200, {{"Connection", "close"}}, "far"});
  redirectTo("127.0.0.1", elsewhere.port());
  PluginUnderTest& plugin = connect();
  // Several times: nothing of a session with the configured server may be used for this one.
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "far");
  }
  ASSERT_EQ(elsewhere.clientHellos().size(), 3U);
  for (const ClientHello& hello : elsewhere.clientHellos()) EXPECT_EQ(hello.certificate, "");
}

// The same server under another name: it could resume a session that the certificate made.
TEST_P(ClientCertificateAfterARedirect, IsNotShownToAnotherHost) {
  home().answer("/far", {200, {{"Connection", "close"}}, "far"});
  redirectTo("localhost", home().port());
  PluginUnderTest& plugin = connect();
  for (int time = 0; time < 3; ++time) {
    EXPECT_EQ(plugin.request(Request("GET", "/from")).body(), "far");
  }
  const auto hellos = home().clientHellos();
  ASSERT_EQ(hellos.size(), 6U);
  for (std::size_t index = 0; index < hellos.size(); ++index) {
    EXPECT_EQ(hellos[index].certificate, index % 2 == 0 ? "the client" : "") << index;
  }
}

// A redirect that leads away and back: only the stranger goes without.
TEST_P(ClientCertificateAfterARedirect, IsShownWhereTheChainComesBack) {
  ScriptedServer elsewhere(asking());
  const std::string back = "https://127.0.0.1:" + std::to_string(home().port()) + "/near";
  elsewhere.answer("/far", {308, {{"Location", back}}, ""});
  redirectTo("127.0.0.1", elsewhere.port());
  EXPECT_EQ(connect().request(Request("GET", "/from")).body(), "near");
  EXPECT_EQ(elsewhere.clientHellos().at(0).certificate, "");
  EXPECT_EQ(home().clientHellos().at(1).certificate, "the client");
}

// --- What makes no transport --------------------------------------------------------------------

class ClientCertificateRefused : public ClientCertificate {
 protected:
  // The text of a creation that fails; no line of the log may hold the passphrase.
  std::string failure(const Config& config) {
    LogDouble log;
    const std::string text = creationFailure(config, log).value_or("a transport was made");
    EXPECT_FALSE(log.contains(passphrase));
    return text;
  }
  // What the text of such a creation's failure must hold.
  void expectFailureNames(const Config& config, const std::vector<std::string>& names) {
    const std::string text = failure(config);
    EXPECT_EQ(text.find("Unknown configuration element"), std::string::npos) << text;
    for (const std::string& name : names) {
      EXPECT_NE(text.find(name), std::string::npos) << name << ": " << text;
    }
  }
  std::string missing() const { return _directory.file("missing.pem"); }
  std::string garbage() const { return _directory.write("garbage.pem", "no certificate"); }

 private:
  TemporaryDirectory _directory;
};

TEST_F(ClientCertificateRefused, WithoutItsKey) {
  expectFailureNames(
      Config(443).tls(authority().caFile()).set("tlsClientCertificateFile", client().certificate),
      {"tlsClientCertificateFile", "tlsClientKeyFile"});
}

TEST_F(ClientCertificateRefused, WhereThereIsAKeyAlone) {
  expectFailureNames(Config(443).tls(authority().caFile()).set("tlsClientKeyFile", client().key),
                     {"tlsClientCertificateFile", "tlsClientKeyFile"});
}

TEST_F(ClientCertificateRefused, WithoutTls) {
  const Config config = Config(80)
                            .set("tlsClientCertificateFile", client().certificate)
                            .set("tlsClientKeyFile", client().key);
  expectFailureNames(config, {"tlsClientCertificateFile"});
  expectFailureNames(Config(config).set("tls", false), {"tlsClientCertificateFile"});
}

TEST_F(ClientCertificateRefused, WithAKeyThatDoesNotFit) {
  const CertificateFiles other = authority().issue(named("another"));
  expectFailureNames(showing(443, {client().certificate, other.key}), {"tlsClientKeyFile"});
}

TEST_F(ClientCertificateRefused, WithAKeyThatDoesNotFitAlsoWhereAllAreAccepted) {
  const CertificateFiles other = authority().issue(named("another"));
  expectFailureNames(showing(443, {client().certificate, other.key})
                         .set("tlsAcceptUnrecognizedCertificates", true),
                     {"tlsClientKeyFile"});
}

TEST_F(ClientCertificateRefused, WhereAFileIsMissing) {
  expectFailureNames(showing(443, {missing(), client().key}),
                     {"tlsClientCertificateFile", missing()});
  expectFailureNames(showing(443, {client().certificate, missing()}),
                     {"tlsClientKeyFile", missing()});
}

TEST_F(ClientCertificateRefused, WhereAFileIsNoPem) {
  expectFailureNames(showing(443, {garbage(), client().key}), {"tlsClientCertificateFile"});
  expectFailureNames(showing(443, {client().certificate, garbage()}), {"tlsClientKeyFile"});
}

TEST_F(ClientCertificateRefused, WithAWrongPassphrase) {
  const CertificateFiles files = authority().encrypted(client(), "another one");
  expectFailureNames(showing(443, files).set("tlsClientKeyPassword", passphrase), {"tlsClientKey"});
}

TEST_F(ClientCertificateRefused, WithoutThePassphraseAndNobodyIsAsked) {
  const CertificateFiles files = authority().encrypted(client(), passphrase);
  expectFailureNames(showing(443, files), {"tlsClientKey"});
}

}  // namespace
}  // namespace test_support
