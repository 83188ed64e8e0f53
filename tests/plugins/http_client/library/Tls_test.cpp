// HTTPS: which certificates are accepted, what a refusal says, and that bodies and connections are
// treated as over plain HTTP.
#include <string>

#include <Poco/Net/AcceptCertificateHandler.h>
#include <Poco/Net/Context.h>
#include <Poco/Net/SSLManager.h>
#include <gtest/gtest.h>

#include "tests/plugins/http_client/EnvironmentVariable.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/PluginUnderTest.hpp"
#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

constexpr const char* retryLine = "processing a request, will retry once: ";
constexpr int shortestTimeoutSecs = 1;

void answerWithTarget(Connection& connection) {
  while (const auto request = connection.readRequest()) {
    connection.sendResponse(200, {}, request->target);
  }
}

class Tls : public ::testing::Test {
 protected:
  // A client's configuration that trusts the test's authority.
  Config trusting(int port) { return Config(port).tls(_authority.caFile()); }
  Config acceptingAll(int port) {
    return Config(port).tls().set("tlsAcceptUnrecognizedCertificates", true);
  }
  // Why a server with this certificate is refused; nothing may have reached it.
  std::string refusalOf(const CertificateFiles& files, const std::string& host = "127.0.0.1") {
    ScriptedServer server(answerWithTarget, TlsOptions{files});
    PluginUnderTest plugin(trusting(server.port()).host(host));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 400);
    EXPECT_EQ(server.requestCount(), 0U);
    return answer.reason();
  }

  CertificateAuthority _authority;
};

// --- Accepted -----------------------------------------------------------------------------------

TEST_F(Tls, AuthorityFromTheConfigurationIsTrusted) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()).set("basePath", "/base"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/base/x");
  EXPECT_EQ(plugin.request(Request("GET", "/y")).body(), "/base/y");
  EXPECT_EQ(server.connectionCount(), 1U);
  const auto line = plugin.log().find("Connecting to ");
  ASSERT_TRUE(line.has_value());
  EXPECT_EQ(line->level, QOR_LOG_INFO);
  EXPECT_TRUE(
      line->text.ends_with("Connecting to https://127.0.0.1:" + std::to_string(server.port()) +
                           "/base using CA file " + _authority.caFile()));
}

TEST_F(Tls, AuthorityOfTheSystemIsTrustedWithoutACaFile) {
  const EnvironmentVariable file("SSL_CERT_FILE", _authority.caFile());
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(Config(server.port()).tls());
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
}

TEST_F(Tls, NameOfTheServerIsCheckedByNameToo) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()).host("localhost"));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
}

TEST_F(Tls, VersionsOneTwoAndOneThreeAreSpoken) {
  for (const TlsVersion version : {TlsVersion::Only12, TlsVersion::Only13}) {
    ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue(), version});
    PluginUnderTest plugin(trusting(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
    EXPECT_EQ(plugin.request(Request("GET", "/y")).body(), "/y");
    EXPECT_EQ(server.connectionCount(), 1U);
  }
}

TEST_F(Tls, WorkersShareWhatTheyVerifyWith) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()).numClients(4));
  for (long long id = 1; id <= 20; ++id) plugin.send(Request("GET", "/x").id(id));
  for (const auto& answer : plugin.waitForAnswers(20)) EXPECT_EQ(answer.status(), 200);
}

TEST_F(Tls, OlderSpellingsOfTheOptionsWork) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(
      Config(server.port()).tls().set("certificateAuthorityPath", _authority.caFile()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
}

// --- Refused ------------------------------------------------------------------------------------

TEST_F(Tls, ExpiredCertificateIsRefusedInWords) {
  EXPECT_EQ(refusalOf(_authority.issueExpired()),
            "SSL Exception: certificate verify failed: certificate has expired");
}

TEST_F(Tls, SelfSignedCertificateIsRefusedInWords) {
  EXPECT_EQ(refusalOf(_authority.issueSelfSigned()),
            "SSL Exception: certificate verify failed: self-signed certificate");
}

TEST_F(Tls, CertificateForAnotherAddressIsRefusedInWords) {
  EXPECT_EQ(refusalOf(_authority.issueForOtherName()),
            "SSL Exception: certificate verify failed: IP address mismatch");
}

TEST_F(Tls, CertificateForAnotherNameIsRefusedInWords) {
  EXPECT_EQ(refusalOf(_authority.issueForOtherName(), "localhost"),
            "SSL Exception: certificate verify failed: hostname mismatch");
}

TEST_F(Tls, CertificateOfAnUnknownAuthorityIsRefusedInWords) {
  CertificateAuthority unknown("Unknown");
  EXPECT_EQ(refusalOf(unknown.issue()),
            "SSL Exception: certificate verify failed: unable to get local issuer certificate");
}

TEST_F(Tls, WithoutCaFileTheSystemsAuthoritiesDecide) {
  ScriptedServer server(answerWithTarget, TlsOptions{_authority.issue()});
  PluginUnderTest plugin(Config(server.port()).tls());
  EXPECT_EQ(plugin.request(Request("GET", "/x")).reason(),
            "SSL Exception: certificate verify failed: unable to get local issuer certificate");
  EXPECT_TRUE(
      plugin.log()
          .find("Connecting to ")
          ->text.ends_with("Connecting to https://127.0.0.1:" + std::to_string(server.port())));
}

TEST_F(Tls, HandlerInstalledForTheWholeProcessChangesNothing) {
  using Poco::Net::Context;
  using Poco::Net::SSLManager;
  const Context::Ptr context =
      new Context(Context::TLS_CLIENT_USE, "", Context::VERIFY_NONE, 9, false);
  SSLManager::instance().initializeClient(nullptr, new Poco::Net::AcceptCertificateHandler(false),
                                          context);
  EXPECT_EQ(refusalOf(_authority.issueSelfSigned()),
            "SSL Exception: certificate verify failed: self-signed certificate");
  SSLManager::instance().shutdown();
}

// --- Slow handshakes ----------------------------------------------------------------------------

TEST_F(Tls, WrongNameIsRefusedAlsoWhenTheHandshakeOutlastsTheTimeOut) {
  Event answered;
  TlsOptions tls{_authority.issueForOtherName()};
  tls.handshakeAfter = &answered;
  ScriptedServer server(answerWithTarget, tls);
  PluginUnderTest plugin(trusting(server.port()).timeoutSecs(shortestTimeoutSecs));
  plugin.onDelivery([&](const Answer&) { answered.set(); });
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 400);
  // The connections go on or not; no request may ever come through.
  plugin.shutdown();
  plugin.destroy();
  server.waitForEndedConnections(server.connectionCount());
  EXPECT_EQ(server.requestCount(), 0U);
}

TEST_F(Tls, HandshakeThatIsNeverAnsweredTimesOutWithoutRetry) {
  TlsOptions tls{_authority.issue()};
  tls.neverAnswerHandshake = true;
  ScriptedServer server(answerWithTarget, tls);
  PluginUnderTest plugin(trusting(server.port()).timeoutSecs(shortestTimeoutSecs));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("Timeout")) << answer.reason();
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_F(Tls, ServerThatDoesNotSpeakTlsIsAnError) {
  ScriptedServer server([](Connection& connection) {
    connection.send("HTTP/1.1 400 Bad Request\r\nContent-Length: 0\r\n\r\n");
    connection.awaitPeerClose();
  });
  PluginUnderTest plugin(trusting(server.port()));
  const Answer answer = plugin.request(Request("GET", "/x"));
  EXPECT_EQ(answer.status(), 400);
  EXPECT_TRUE(answer.reason().starts_with("SSL Exception: TLS handshake failed"))
      << answer.reason();
}

// --- Accepting what is not recognised -----------------------------------------------------------

TEST_F(Tls, AcceptUnrecognizedAcceptsAnyCertificate) {
  CertificateAuthority unknown("Unknown");
  for (const auto& files : {_authority.issueExpired(), _authority.issueSelfSigned(),
                            _authority.issueForOtherName(), unknown.issue()}) {
    ScriptedServer server(answerWithTarget, TlsOptions{files});
    PluginUnderTest plugin(acceptingAll(server.port()));
    const Answer answer = plugin.request(Request("GET", "/x"));
    EXPECT_EQ(answer.status(), 200) << answer.reason();
  }
}

// --- CA files -----------------------------------------------------------------------------------

TEST_F(Tls, MissingCaFileFailsTheCreation) {
  LogDouble log;
  PluginOptions options;
  options.log = &log;
  EXPECT_THROW(PluginUnderTest(Config(443).tls("/no/such/file.pem"), options), std::runtime_error);
  const auto line = log.find("Exception from create: ");
  ASSERT_TRUE(line.has_value());
  EXPECT_NE(line->text.find("/no/such/file.pem"), std::string::npos) << line->text;
}

TEST_F(Tls, CaFileWithoutCertificatesFailsTheCreation) {
  const TemporaryDirectory directory;
  LogDouble log;
  PluginOptions options;
  options.log = &log;
  const auto config = Config(443).tls(directory.write("empty.pem", "nothing"));
  EXPECT_THROW(PluginUnderTest(config, options), std::runtime_error);
  EXPECT_TRUE(log.contains("Exception from create: "));
}

// --- Bodies and connections ---------------------------------------------------------------------

TEST_F(Tls, LargeBodiesPassBothWays) {
  ScriptedServer server(
      [](Connection& connection) {
        while (const auto request = connection.readRequest()) {
          connection.sendResponse(200, {}, request->body);
        }
      },
      TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()));
  const std::string body(1'000'000, 'x');
  EXPECT_TRUE(plugin.request(Request("POST", "/x").body(body)).body() == body);
}

// The second request gets its own answer over a second connection, without a failure in between.
void expectInStep(PluginUnderTest& plugin, const ScriptedServer& server) {
  EXPECT_EQ(plugin.request(Request("GET", "/next")).body(), "/next");
  EXPECT_EQ(server.connectionCount(), 2U);
  EXPECT_FALSE(plugin.log().contains(retryLine));
}

TEST_F(Tls, ConnectionClosedWhileIdleIsReplacedWhateverTheWordOfFarewell) {
  for (const bool notify : {true, false}) {
    ScriptedServer server({[notify](Connection& connection) {
                             connection.readRequest();
                             connection.sendResponse(200);
                             if (notify) connection.close();
                             connection.closeWithoutNotify();
                           },
                           answerWithTarget},
                          TlsOptions{_authority.issue()});
    PluginUnderTest plugin(trusting(server.port()));
    plugin.request(Request("GET", "/x"));
    server.waitForEndedConnections(1);
    expectInStep(plugin, server);
  }
}

TEST_F(Tls, ServerThatClosesWithoutAnAnswerGetsTheRequestASecondTime) {
  for (const bool notify : {true, false}) {
    ScriptedServer server({[notify](Connection& connection) {
                             connection.readRequest();
                             if (!notify) connection.closeWithoutNotify();
                           },
                           answerWithTarget},
                          TlsOptions{_authority.issue()});
    PluginUnderTest plugin(trusting(server.port()));
    EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "/x");
    EXPECT_EQ(plugin.log().count(retryLine), 1U);
  }
}

TEST_F(Tls, StrayResponseIsNobodysAnswer) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readRequest();
                           connection.send(
                               "HTTP/1.1 200 OK\r\nContent-Length: 1\r\n\r\nx"
                               "HTTP/1.1 200 OK\r\nContent-Length: 6\r\n\r\nforged");
                           connection.awaitPeerClose();
                         },
                         answerWithTarget},
                        TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).body(), "x");
  expectInStep(plugin, server);
}

TEST_F(Tls, WritingToAClosedConnectionIsAFailureAndNoSignal) {
  ScriptedServer server({[](Connection& connection) {
                           connection.readHead();
                           connection.reset();
                         },
                         answerWithTarget},
                        TlsOptions{_authority.issue()});
  PluginOptions options;
  options.logLevel = QOR_LOG_INFO;
  PluginUnderTest plugin(trusting(server.port()), options);
  EXPECT_EQ(plugin.request(Request("POST", "/x").body(std::string(5'000'000, 'x'))).body(), "/x");
}

TEST_F(Tls, ShutdownAfterTheServerHasGoneRaisesNoSignal) {
  // SIGPIPE keeps its default here: a farewell to the server that raised it would end this process.
  ScriptedServer server(
      [](Connection& connection) {
        connection.readRequest();
        connection.sendResponse(200);
        connection.halfClose();
        connection.reset();
      },
      TlsOptions{_authority.issue()});
  PluginUnderTest plugin(trusting(server.port()));
  EXPECT_EQ(plugin.request(Request("GET", "/x")).status(), 200);
  server.waitForEndedConnections(1);
  EXPECT_EQ(plugin.shutdown(), 0);
}

}  // namespace
}  // namespace test_support
