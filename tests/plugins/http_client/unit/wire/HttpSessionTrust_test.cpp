// Sessions over TLS: whom they believe, and handshakes that fail.
#include <cstdio>
#include <string>

#include <Poco/Exception.h>
#include <Poco/Net/SSLException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/x509.h>

#include "plugins/http_client/wire/HttpSession.hpp"
#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/plugins/http_client/SecureSessionClient.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/Event.hpp"
#include "tests/support/ScriptedServer.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::SSLException;
using std::chrono::milliseconds;
using test_support::CertificateAuthority;
using test_support::Event;
using test_support::ScriptedServer;
using test_support::TlsOptions;
using testing::StartsWith;
using testing::Throws;
using Peer = test_support::Connection;

auto failsWith(const testing::Matcher<std::string>& text) {
  return Throws<SSLException>(testing::Property(&Poco::Exception::message, text));
}

using Client = SecureSessionClient;

class HttpSessionTrust : public testing::Test {
 protected:
  TlsOptions tls() { return {.certificate = authority.issue()}; }

  CertificateAuthority authority;
  TlsContexts contexts{{authority.caFile(), false}};
};

TEST_F(HttpSessionTrust, VerifiesAnAddressAsWellAsAName) {
  ScriptedServer server(tls());
  server.answer("/", {200, {}, "x"});
  Client client(server, contexts, "127.0.0.1");
  EXPECT_EQ(client.fetch(), "x");
}

TEST_F(HttpSessionTrust, ACertificateOfAnUnknownAuthorityIsRefusedWithTheReason) {
  ScriptedServer server(tls());
  CertificateAuthority other("Other Authority");
  TlsContexts contextsOfOther({other.caFile(), false});
  Client client(server, contextsOfOther);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: unable to get local issuer certificate"));
  EXPECT_FALSE(client.session.connected());
  EXPECT_EQ(server.requestCount(), 0U);
}

TEST_F(HttpSessionTrust, ASelfSignedCertificateIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueSelfSigned()});
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: self-signed certificate"));
}

TEST_F(HttpSessionTrust, AnExpiredCertificateIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueExpired()});
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); },
              failsWith("certificate verify failed: certificate has expired"));
}

TEST_F(HttpSessionTrust, ACertificateForAnotherHostIsRefusedWithTheReason) {
  ScriptedServer server(TlsOptions{authority.issueForOtherName()});
  Client byName(server, contexts);
  EXPECT_THAT([&] { byName.get(); }, failsWith("certificate verify failed: hostname mismatch"));
  Client byAddress(server, contexts, "127.0.0.1");
  EXPECT_THAT([&] { byAddress.get(); },
              failsWith("certificate verify failed: IP address mismatch"));
}

TEST_F(HttpSessionTrust, AcceptsEveryCertificateWhereItIsToldTo) {
  TlsContexts accepting({"", true});
  for (const auto& certificate : {authority.issueSelfSigned(), authority.issueExpired(),
                                  authority.issueForOtherName(), authority.issue()}) {
    ScriptedServer server(TlsOptions{certificate});
    server.answer("/", {200, {}, "x"});
    Client client(server, accepting);
    EXPECT_EQ(client.fetch(), "x");
  }
}

// As OpenSSL looks authorities up in a folder.
std::string nameInFolder(const std::string& certificateFile) {
  std::FILE* const file = std::fopen(certificateFile.c_str(), "r");
  X509* const certificate = PEM_read_X509(file, nullptr, nullptr, nullptr);
  std::fclose(file);
  char name[32];
  std::snprintf(name, sizeof name, "%08lx.0", X509_subject_name_hash(certificate));
  X509_free(certificate);
  return name;
}

TEST_F(HttpSessionTrust, BelievesTheAuthoritiesOfAFolder) {
  test_support::TemporaryDirectory folder;
  folder.write(nameInFolder(authority.caFile()), test_support::readFile(authority.caFile()));
  TlsContexts ofTheFolder({folder.path().string(), false});
  ScriptedServer server(tls());
  server.answer("/", {200, {}, "x"});
  Client client(server, ofTheFolder);
  EXPECT_EQ(client.fetch(), "x");
}

TEST_F(HttpSessionTrust, ASlowHandshakeTimesOutAndNeverPassesUnverified) {
  Event never;
  TlsOptions slow{authority.issueForOtherName()};
  slow.handshakeAfter = &never;
  ScriptedServer server([](Peer&) {}, slow);
  Route route = secureRouteTo(server, contexts);
  route.timeout = milliseconds(200);  // the time-out is the subject
  SessionClient client(route);
  EXPECT_THAT([&] { client.get(); },
              Throws<Poco::TimeoutException>(
                  testing::Property(&Poco::Exception::message, "The TLS handshake timed out")));
  never.set();
}

TEST_F(HttpSessionTrust, ADeadlineEndsAHandshakeAndIsNoTimeout) {
  TlsOptions silent = tls();
  silent.neverAnswerHandshake = true;
  ScriptedServer server([](Peer&) {}, silent);
  Client client(server, contexts);
  client.session.setDeadline(HttpSession::Clock::now() + milliseconds(200));
  EXPECT_THROW(client.get(), DeadlineExceeded);
}

TEST_F(HttpSessionTrust, AServerThatDoesNotSpeakTlsIsAnError) {
  ScriptedServer server([](Peer& peer) { peer.send("HTTP/1.1 400 Bad Request\r\n\r\n"); });
  Client client(server, contexts);
  EXPECT_THAT([&] { client.get(); }, failsWith(StartsWith("TLS handshake failed: ")));
}

TEST_F(HttpSessionTrust, AServerThatClosesWithinTheHandshakeIsAnError) {
  ScriptedServer server([](Peer& peer) { peer.readBytes(1); });
  Client client(server, contexts);
  EXPECT_THROW(client.get(), Poco::IOException);
}

}  // namespace
}  // namespace connectivity::plugins
