// The certificates and the server's TLS side, seen from a client that checks them.
#include "tests/support/Certificates.hpp"

#include <memory>
#include <string>

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include "tests/support/ScriptedServer.hpp"

namespace test_support {
namespace {

struct FreeContext {
  void operator()(SSL_CTX* context) const noexcept { SSL_CTX_free(context); }
};
struct FreeSession {
  void operator()(SSL* session) const noexcept { SSL_free(session); }
};

// One TLS connection that checks the server's certificate and name.
class TlsClient {
 public:
  TlsClient(int port, const std::string& caFile, const char* name)
      : _context(SSL_CTX_new(TLS_client_method())),
        _socket(connectToLoopback(port)),
        _ssl(SSL_new(_context.get())) {
    blockSigpipe();
    SSL_CTX_load_verify_locations(_context.get(), caFile.c_str(), nullptr);
    SSL_set_verify(_ssl.get(), SSL_VERIFY_PEER, nullptr);
    SSL_set1_host(_ssl.get(), name);
    SSL_set_fd(_ssl.get(), _socket.get());
  }
  // Before connect(). False where OpenSSL takes them not.
  bool show(const CertificateFiles& files, const char* passphrase) {
    SSL_CTX_set_default_passwd_cb_userdata(_context.get(), const_cast<char*>(passphrase));
    return SSL_use_certificate_file(_ssl.get(), files.certificate.c_str(), SSL_FILETYPE_PEM) == 1 &&
           SSL_CTX_use_PrivateKey_file(_context.get(), files.key.c_str(), SSL_FILETYPE_PEM) == 1 &&
           SSL_use_PrivateKey(_ssl.get(), SSL_CTX_get0_privatekey(_context.get())) == 1;
  }
  // The name that is told to the server.
  void callIt(const char* name) {
    SSL_ctrl(_ssl.get(), SSL_CTRL_SET_TLSEXT_HOSTNAME, TLSEXT_NAMETYPE_host_name,
             const_cast<char*>(name));
  }
  // X509_V_OK, or why the certificate was refused.
  long connect() {
    _connected = SSL_connect(_ssl.get()) == 1;
    return SSL_get_verify_result(_ssl.get());
  }
  bool connected() const { return _connected; }
  std::string version() const { return SSL_get_version(_ssl.get()); }
  std::string exchange(const std::string& request) {
    SSL_write(_ssl.get(), request.data(), static_cast<int>(request.size()));
    std::string all;
    std::string piece(4096, '\0');
    for (;;) {
      const int got = SSL_read(_ssl.get(), piece.data(), static_cast<int>(piece.size()));
      if (got <= 0) break;
      all.append(piece, 0, static_cast<std::size_t>(got));
    }
    return all;
  }
  // Whether the server said that it closes.
  bool sawCloseNotify() const {
    return (SSL_get_shutdown(_ssl.get()) & SSL_RECEIVED_SHUTDOWN) != 0;
  }

 private:
  const std::unique_ptr<SSL_CTX, FreeContext> _context;
  const Descriptor _socket;
  const std::unique_ptr<SSL, FreeSession> _ssl;
  bool _connected = false;
};

constexpr const char* closingGet = "GET /x HTTP/1.1\r\nConnection: close\r\n\r\n";

TEST(Certificates, AreTrustedThroughTheirAuthority) {
  CertificateAuthority authority;
  ScriptedServer server(TlsOptions{authority.issue()});
  server.answer("/x", {200, {}, "secret"});
  TlsClient client(server.port(), authority.caFile(), "localhost");
  EXPECT_EQ(client.connect(), X509_V_OK);
  EXPECT_TRUE(client.exchange(closingGet).ends_with("secret"));
  EXPECT_TRUE(client.sawCloseNotify());
}

long verifyResult(const std::string& caFile, const CertificateFiles& files) {
  ScriptedServer server(TlsOptions{files});
  TlsClient client(server.port(), caFile, "localhost");
  const long result = client.connect();
  server.waitForEndedConnections(1);
  EXPECT_EQ(server.handshakeFailures(), 1U);
  EXPECT_EQ(server.requestCount(), 0U);
  return result;
}

TEST(Certificates, AreRefusedForTheReasonTheyWereMadeFor) {
  CertificateAuthority authority;
  const auto& caFile = authority.caFile();
  EXPECT_EQ(verifyResult(caFile, authority.issueExpired()), X509_V_ERR_CERT_HAS_EXPIRED);
  EXPECT_EQ(verifyResult(caFile, authority.issueForOtherName()), X509_V_ERR_HOSTNAME_MISMATCH);
  EXPECT_EQ(verifyResult(caFile, authority.issueSelfSigned()),
            X509_V_ERR_DEPTH_ZERO_SELF_SIGNED_CERT);
}

TEST(Certificates, OfAnotherAuthorityAreNotTrusted) {
  CertificateAuthority known("Known");
  CertificateAuthority unknown("Unknown");
  EXPECT_EQ(verifyResult(known.caFile(), unknown.issue()),
            X509_V_ERR_UNABLE_TO_GET_ISSUER_CERT_LOCALLY);
}

std::string negotiated(CertificateAuthority& authority, TlsVersion version) {
  ScriptedServer server(TlsOptions{authority.issue(), version});
  TlsClient client(server.port(), authority.caFile(), "localhost");
  EXPECT_EQ(client.connect(), X509_V_OK);
  return client.version();
}

TEST(ScriptedTlsServer, SpeaksTheVersionItIsTold) {
  CertificateAuthority authority;
  EXPECT_EQ(negotiated(authority, TlsVersion::Only12), "TLSv1.2");
  EXPECT_EQ(negotiated(authority, TlsVersion::Only13), "TLSv1.3");
}

TEST(ScriptedTlsServer, ClosesWithoutAWordWhenTold) {
  CertificateAuthority authority;
  ScriptedServer server(
      [](Connection& connection) {
        connection.readRequest();
        connection.send("x");
        connection.closeWithoutNotify();
      },
      TlsOptions{authority.issue()});
  TlsClient client(server.port(), authority.caFile(), "localhost");
  client.connect();
  EXPECT_EQ(client.exchange(closingGet), "x");
  EXPECT_FALSE(client.sawCloseNotify());
}

TEST(ScriptedTlsServer, WaitsWithTheHandshakeUntilReleased) {
  CertificateAuthority authority;
  Event release;
  TlsOptions options{authority.issue()};
  options.handshakeAfter = &release;
  ScriptedServer server(options);
  TlsClient client(server.port(), authority.caFile(), "localhost");
  server.waitForConnections(1);
  release.set();
  EXPECT_EQ(client.connect(), X509_V_OK);
  EXPECT_TRUE(client.connected());
}

TEST(ScriptedTlsServer, CanLeaveAHandshakeUnanswered) {
  CertificateAuthority authority;
  TlsOptions options{authority.issue()};
  options.neverAnswerHandshake = true;
  ScriptedServer server(options);
  {
    const auto socket = connectToLoopback(server.port());
    writeAll(socket.get(), "anything");
  }
  server.waitForEndedConnections(1);
  EXPECT_EQ(server.handshakeFailures(), 1U);
}

TEST(ScriptedTlsServer, TellsWhatTheClientShowedAndCalledIt) {
  CertificateAuthority authority;
  TlsOptions options{authority.issue()};
  options.askForCertificate = true;
  ScriptedServer server(options);
  CertificateRequest request;
  request.commonName = "somebody";
  const CertificateFiles files = authority.encrypted(authority.issue(request), "pass");
  TlsClient named(server.port(), authority.caFile(), "localhost");
  named.callIt("localhost");
  ASSERT_TRUE(named.show(files, "pass"));
  EXPECT_EQ(named.connect(), X509_V_OK);
  named.exchange(closingGet);
  TlsClient silent(server.port(), authority.caFile(), "localhost");
  EXPECT_EQ(silent.connect(), X509_V_OK);
  silent.exchange(closingGet);
  const auto hellos = server.clientHellos();
  ASSERT_EQ(hellos.size(), 2U);
  EXPECT_EQ(hellos[0].serverName, "localhost");
  EXPECT_EQ(hellos[0].certificate, "somebody");
  EXPECT_EQ(hellos[1].serverName, "");
  EXPECT_EQ(hellos[1].certificate, "");
}

TEST(Certificates, KeyUnderAPassphraseOpensWithThatAlone) {
  CertificateAuthority authority;
  const CertificateFiles files = authority.encrypted(authority.issue(), "right");
  ScriptedServer server;
  EXPECT_FALSE(TlsClient(server.port(), authority.caFile(), "localhost").show(files, "wrong"));
  EXPECT_TRUE(TlsClient(server.port(), authority.caFile(), "localhost").show(files, "right"));
}

TEST(Certificates, WithTheirChainAreTrustedThroughTheAuthority) {
  CertificateAuthority authority;
  ScriptedServer server(TlsOptions{authority.issueWithChain()});
  TlsClient client(server.port(), authority.caFile(), "localhost");
  EXPECT_EQ(client.connect(), X509_V_OK);
}

}  // namespace
}  // namespace test_support
