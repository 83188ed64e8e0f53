// The client's certificate: which contexts show it, and what is said of files that are no good.
#include <filesystem>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "plugins/http_client/wire/TlsContexts.hpp"
#include "tests/support/Certificates.hpp"
#include "tests/support/TemporaryDirectory.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::Context;
using test_support::CertificateAuthority;
using test_support::CertificateFiles;

X509_VERIFY_PARAM* paramOf(const Context::Ptr& context) {
  return SSL_CTX_get0_param(context->sslContext());
}

bool showsCertificate(const Context::Ptr& context) {
  return SSL_CTX_get0_certificate(context->sslContext()) != nullptr &&
         SSL_CTX_get0_privatekey(context->sslContext()) != nullptr;
}

TEST(ClientCertificate, IsForTheConfiguredServerAlone) {
  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  for (const bool acceptUnrecognized : {false, true}) {
    TlsContexts contexts({"", acceptUnrecognized, own.certificate, own.key, ""});
    const Context::Ptr configured = contexts.contextForConfiguredServer("server.test");
    const Context::Ptr redirected = contexts.contextFor("server.test");
    EXPECT_TRUE(showsCertificate(configured));
    EXPECT_FALSE(showsCertificate(redirected));
    EXPECT_FALSE(showsCertificate(contexts.contextFor("other.test")));
    EXPECT_NE(configured.get(), redirected.get());
  }
}

TEST(ClientCertificate, IsNotGivenToAContextThatWasMadeBefore) {
  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  for (const bool acceptUnrecognized : {false, true}) {
    TlsContexts contexts({"", acceptUnrecognized, own.certificate, own.key, ""});
    const Context::Ptr before = contexts.contextFor("server.test");
    EXPECT_TRUE(showsCertificate(contexts.contextForConfiguredServer("server.test")));
    EXPECT_FALSE(showsCertificate(before));
  }
}

TEST(ClientCertificate, ContextVerifiesAsEveryOther) {
  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  TlsContexts strict({"", false, own.certificate, own.key, ""});
  const Context::Ptr context = strict.contextForConfiguredServer("Server.Test.");
  EXPECT_EQ(SSL_CTX_get_verify_mode(context->sslContext()),
            SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
  EXPECT_EQ(SSL_CTX_get_verify_callback(context->sslContext()), nullptr);
  EXPECT_STREQ(X509_VERIFY_PARAM_get0_host(paramOf(context), 0), "server.test");
  EXPECT_EQ(SSL_CTX_get_cert_store(context->sslContext()),
            SSL_CTX_get_cert_store(strict.contextFor("other.test")->sslContext()));
  TlsContexts accepting({"", true, own.certificate, own.key, ""});
  EXPECT_EQ(accepting.contextForConfiguredServer("server.test")->verificationMode(),
            Context::VERIFY_NONE);
}

TEST(ClientCertificate, ContextIsMadeOnceForAllWorkers) {
  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  TlsContexts contexts({"", false, own.certificate, own.key, ""});
  const Context::Ptr context = contexts.contextForConfiguredServer("server.test");
  for (int i = 0; i < 200; ++i) contexts.contextFor("host" + std::to_string(i) + ".test");
  std::filesystem::remove(own.key);
  EXPECT_EQ(contexts.contextForConfiguredServer("SERVER.test.").get(), context.get());
}

TEST(ClientCertificate, ThatIsNotConfiguredLeavesOneContextForAll) {
  TlsContexts contexts({"", false});
  const Context::Ptr context = contexts.contextForConfiguredServer("server.test");
  EXPECT_EQ(context.get(), contexts.contextFor("server.test").get());
  EXPECT_FALSE(showsCertificate(context));
}

TEST(ClientCertificate, IsShownWithItsChain) {
  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  test_support::TemporaryDirectory directory;
  const std::string chain =
      directory.write("chain.pem", test_support::readFile(own.certificate) +
                                       test_support::readFile(authority.caFile()));
  TlsContexts contexts({"", false, chain, own.key, ""});
  STACK_OF(X509)* further = nullptr;
  SSL_CTX_get0_chain_certs(contexts.contextForConfiguredServer("server.test")->sslContext(),
                           &further);
  EXPECT_EQ(sk_X509_num(further), 1);
}

// What OpenSSL holds in memory, as text.
std::string textOf(BIO* memory) {
  const char* text = nullptr;
  const long length = BIO_ctrl(memory, BIO_CTRL_INFO, 0, &text);
  return {text, static_cast<std::size_t>(length)};
}

// The key of a PEM file, encrypted.
std::string encrypted(const std::string& keyFile, const std::string& passphrase) {
  const std::string plain = test_support::readFile(keyFile);
  BIO* const input = BIO_new_mem_buf(plain.data(), static_cast<int>(plain.size()));
  EVP_PKEY* const key = PEM_read_bio_PrivateKey(input, nullptr, nullptr, nullptr);
  BIO* const output = BIO_new(BIO_s_mem());
  PEM_write_bio_PKCS8PrivateKey(output, key, EVP_aes_128_cbc(), passphrase.data(),
                                static_cast<int>(passphrase.size()), nullptr, nullptr);
  const std::string text = textOf(output);
  BIO_free(output);
  EVP_PKEY_free(key);
  BIO_free(input);
  return text;
}

// A client's certificate and its encrypted key; and how a mistake with them is reported.
class ClientCertificateFiles : public testing::Test {
 protected:
  std::string errorWith(const TlsSettings& settings) const {
    TlsContexts contexts(settings);
    try {
      contexts.contextForConfiguredServer("server.test");
    } catch (const std::runtime_error& error) {
      return error.what();
    }
    return "(no error)";
  }
  std::string errorWith(const std::string& certificate, const std::string& key,
                        const std::string& passphrase = "") const {
    return errorWith({"", false, certificate, key, passphrase});
  }

  CertificateAuthority authority;
  const CertificateFiles own = authority.issue();
  test_support::TemporaryDirectory directory;
  const std::string encryptedKey = directory.write("encrypted.key", encrypted(own.key, "s3cret"));
  const std::string prefix = "HTTPClient configuration ";
};

TEST_F(ClientCertificateFiles, KeyIsDecryptedWithItsPassphrase) {
  EXPECT_EQ(errorWith(own.certificate, encryptedKey, "s3cret"), "(no error)");
}

TEST_F(ClientCertificateFiles, WrongPassphraseIsReportedAndNotShown) {
  EXPECT_EQ(errorWith(own.certificate, encryptedKey, "wr0ng"),
            prefix + "tlsClientKeyPassword: cannot decrypt " + encryptedKey + ": bad decrypt");
}

TEST_F(ClientCertificateFiles, MissingPassphraseIsReported) {
  EXPECT_EQ(
      errorWith(own.certificate, encryptedKey),
      prefix + "tlsClientKeyPassword: cannot decrypt " + encryptedKey + ": bad password read");
}

TEST_F(ClientCertificateFiles, PassphraseThatIsTooLongForOpenSslIsReported) {
  EXPECT_EQ(errorWith(own.certificate, encryptedKey, std::string(5000, 'x'))
                .find(prefix + "tlsClientKeyPassword: cannot decrypt " + encryptedKey + ": "),
            0U);
}

TEST_F(ClientCertificateFiles, MissingFileIsReported) {
  const std::string none = directory.file("none.pem");
  EXPECT_EQ(errorWith(none, own.key), prefix + "tlsClientCertificateFile: cannot use " + none +
                                          ": No such file or directory");
  EXPECT_EQ(errorWith(own.certificate, none),
            prefix + "tlsClientKeyFile: cannot use " + none + ": No such file or directory");
}

TEST_F(ClientCertificateFiles, FileWithoutACertificateIsReported) {
  EXPECT_EQ(errorWith(own.key, own.key),
            prefix + "tlsClientCertificateFile: cannot use " + own.key + ": no start line");
}

TEST_F(ClientCertificateFiles, FileWithoutAKeyIsReported) {
  EXPECT_EQ(errorWith(own.certificate, own.certificate),
            prefix + "tlsClientKeyFile: cannot use " + own.certificate + ": unsupported");
}

TEST_F(ClientCertificateFiles, KeyThatDoesNotFitIsReported) {
  const CertificateFiles other = authority.issue();
  EXPECT_EQ(errorWith(own.certificate, other.key), prefix + "tlsClientKeyFile: " + other.key +
                                                       " does not fit " + own.certificate +
                                                       ": key values mismatch");
}

// What is left there would be taken for an error of the next connection.
TEST_F(ClientCertificateFiles, ErrorsLeaveNothingInOpenSslsQueue) {
  EXPECT_NE(errorWith(own.certificate, encryptedKey, "wr0ng"), "(no error)");
  EXPECT_EQ(ERR_peek_error(), 0U);
}

TEST_F(ClientCertificateFiles, AnErrorIsReportedAgainAtTheNextAttempt) {
  const std::string key = directory.file("later.key");
  TlsContexts contexts({"", false, own.certificate, key, ""});
  EXPECT_THROW(contexts.contextForConfiguredServer("server.test"), std::runtime_error);
  EXPECT_THROW(contexts.contextForConfiguredServer("server.test"), std::runtime_error);
  directory.write("later.key", test_support::readFile(own.key));
  EXPECT_TRUE(showsCertificate(contexts.contextForConfiguredServer("server.test")));
}

TEST_F(ClientCertificateFiles, FileOfAuthoritiesThatIsMissingOrHoldsNoneIsReported) {
  const std::string none = directory.file("none.pem");
  const std::string empty = directory.write("empty.pem", "nothing\n");
  for (const bool acceptUnrecognized : {false, true}) {
    EXPECT_EQ(
        errorWith({none, acceptUnrecognized}),
        prefix + "tlsCertificateAuthorityFile: cannot use " + none + ": No such file or directory");
    EXPECT_EQ(errorWith({empty, acceptUnrecognized}),
              prefix + "tlsCertificateAuthorityFile: cannot use " + empty +
                  ": no certificate or crl found");
  }
}

// --- a handshake, in memory ---------------------------------------------------------------------

// A server that asks for a certificate, and takes any.
class AskingServer {
 public:
  explicit AskingServer(const CertificateFiles& own) : _context(SSL_CTX_new(TLS_server_method())) {
    SSL_CTX_use_certificate_chain_file(_context, own.certificate.c_str());
    SSL_CTX_use_PrivateKey_file(_context, own.key.c_str(), SSL_FILETYPE_PEM);
    SSL_CTX_set_verify(_context, SSL_VERIFY_PEER, [](int, X509_STORE_CTX*) { return 1; });
  }
  ~AskingServer() { SSL_CTX_free(_context); }
  AskingServer(const AskingServer&) = delete;
  AskingServer& operator=(const AskingServer&) = delete;

  // The serial number of the certificate that a client with this context shows, 0 for none, and -1
  // where there is no connection.
  long serialShown(const Context::Ptr& clientContext) const {
    SSL* const client = SSL_new(clientContext->sslContext());
    SSL* const server = SSL_new(_context);
    connect(client, server);
    long serial = -1;
    if (SSL_is_init_finished(server) != 0) {
      const X509* const shown = SSL_get0_peer_certificate(server);
      serial = shown == nullptr ? 0 : ASN1_INTEGER_get(X509_get0_serialNumber(shown));
    }
    SSL_free(server);
    SSL_free(client);
    return serial;
  }

 private:
  static void connect(SSL* client, SSL* server) {
    BIO* atClient = nullptr;
    BIO* atServer = nullptr;
    BIO_new_bio_pair(&atClient, 0, &atServer, 0);
    SSL_set_bio(client, atClient, atClient);
    SSL_set_bio(server, atServer, atServer);
    SSL_set_connect_state(client);
    SSL_set_accept_state(server);
    for (int turn = 0; turn < 10; ++turn) {
      SSL_do_handshake(client);
      SSL_do_handshake(server);
    }
  }

  SSL_CTX* const _context;
};

TEST(ClientCertificate, ReachesTheServerThatAsksForIt) {
  CertificateAuthority authority;
  const AskingServer server(authority.issue());
  const CertificateFiles own = authority.issue();
  for (const bool acceptUnrecognized : {false, true}) {
    TlsContexts contexts({authority.caFile(), acceptUnrecognized, own.certificate, own.key, ""});
    EXPECT_GT(server.serialShown(contexts.contextForConfiguredServer("localhost")), 0);
    EXPECT_EQ(server.serialShown(contexts.contextFor("localhost")), 0);
    EXPECT_EQ(server.serialShown(contexts.contextForConfiguredServer("other.test")),
              acceptUnrecognized
                  ? server.serialShown(contexts.contextForConfiguredServer("localhost"))
                  : -1);
  }
}

}  // namespace
}  // namespace connectivity::plugins
