#include "plugins/http_client/wire/TlsContexts.hpp"

#include <array>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include <Poco/Net/SSLException.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>

#include "tests/plugins/http_client/EnvironmentVariable.hpp"
#include "tests/support/Certificates.hpp"

namespace connectivity::plugins {
namespace {

using Poco::Net::Context;
using test_support::CertificateAuthority;
using test_support::CertificateFiles;

X509_VERIFY_PARAM* paramOf(const Context::Ptr& context) {
  return SSL_CTX_get0_param(context->sslContext());
}

TEST(TlsContexts, VerifyStrictlyToADepthOfNineFromTls12On) {
  TlsContexts contexts({"", false});
  const Context::Ptr context = contexts.contextFor("server.test");
  EXPECT_EQ(context->usage(), Context::TLSV1_2_CLIENT_USE);
  EXPECT_EQ(static_cast<int>(context->usage()), 8);
  EXPECT_EQ(context->verificationMode(), Context::VERIFY_STRICT);
  EXPECT_EQ(SSL_CTX_get_verify_mode(context->sslContext()),
            SSL_VERIFY_PEER | SSL_VERIFY_FAIL_IF_NO_PEER_CERT);
  EXPECT_EQ(SSL_CTX_get_verify_depth(context->sslContext()), 9);
  EXPECT_EQ(SSL_CTX_get_min_proto_version(context->sslContext()), TLS1_2_VERSION);
  EXPECT_EQ(SSL_CTX_get_max_proto_version(context->sslContext()), 0);  // the newest there is
}

std::vector<std::string> cipherNamesOf(const Context::Ptr& context) {
  std::vector<std::string> names;
  STACK_OF(SSL_CIPHER)* const ciphers = SSL_CTX_get_ciphers(context->sslContext());
  for (int i = 0; i < sk_SSL_CIPHER_num(ciphers); ++i) {
    names.emplace_back(SSL_CIPHER_get_name(sk_SSL_CIPHER_value(ciphers, i)));
  }
  return names;
}

TEST(TlsContexts, OfferTheStrongSuitesOfTls12And13Only) {
  const Context::Ptr expected =
      new Context(Context::TLSV1_2_CLIENT_USE, "", Context::VERIFY_NONE, 9, false,
                  "HIGH+TLSv1.2:!COMPLEMENTOFDEFAULT:!PSK:!aNULL:!eNULL");
  TlsContexts strict({"", false});
  TlsContexts accepting({"", true});
  for (TlsContexts* contexts : {&strict, &accepting}) {
    const std::vector<std::string> names = cipherNamesOf(contexts->contextFor("server.test"));
    EXPECT_EQ(names, cipherNamesOf(expected));
    EXPECT_THAT(names, testing::Contains("ECDHE-RSA-AES256-GCM-SHA384"));
    for (const char* weak : {"PSK", "NULL", "ADH", "AECDH", "RC4", "3DES", "MD5"}) {
      EXPECT_THAT(names, testing::Not(testing::Contains(testing::HasSubstr(weak))));
    }
  }
}

TEST(TlsContexts, HoldTheHostThatIsVerified) {
  TlsContexts contexts({"", false});
  EXPECT_STREQ(X509_VERIFY_PARAM_get0_host(paramOf(contexts.contextFor("Server.Test.")), 0),
               "server.test");
  EXPECT_EQ(X509_VERIFY_PARAM_get0_host(paramOf(contexts.contextFor("127.0.0.1")), 0), nullptr);
  char* const address = X509_VERIFY_PARAM_get1_ip_asc(paramOf(contexts.contextFor("::1")));
  EXPECT_STREQ(address, "0:0:0:0:0:0:0:1");
  OPENSSL_free(address);
}

TEST(TlsContexts, AreSharedByAllWhoVerifyTheSameHost) {
  TlsContexts contexts({"", false});
  const Context::Ptr context = contexts.contextFor("server.test");
  EXPECT_EQ(context.get(), contexts.contextFor("SERVER.test").get());
  EXPECT_NE(context.get(), contexts.contextFor("other.test").get());
}

TEST(TlsContexts, LoadTheAuthoritiesOnce) {
  TlsContexts contexts({"", false});
  const Context::Ptr one = contexts.contextFor("one.test");
  const Context::Ptr two = contexts.contextFor("two.test");
  EXPECT_EQ(SSL_CTX_get_cert_store(one->sslContext()), SSL_CTX_get_cert_store(two->sslContext()));
}

int authoritiesOf(TlsContexts& contexts) {
  SSL_CTX* const context = contexts.contextFor("server.test")->sslContext();
  return sk_X509_OBJECT_num(X509_STORE_get0_objects(SSL_CTX_get_cert_store(context)));
}

TEST(TlsContexts, TrustTheSystemsAuthoritiesAndThoseOfTheCaFile) {
  const test_support::CertificateAuthority ofTheSystem;
  const test_support::CertificateAuthority own;
  const test_support::EnvironmentVariable file("SSL_CERT_FILE", ofTheSystem.caFile());
  TlsContexts systems({"", false});
  EXPECT_EQ(authoritiesOf(systems), 1);
  TlsContexts both({own.caFile(), false});
  EXPECT_EQ(authoritiesOf(both), 2);
}

TEST(TlsContexts, AreOneAndCheckNothingWhereEverythingIsAccepted) {
  TlsContexts contexts({"", true});
  const Context::Ptr context = contexts.contextFor("server.test");
  EXPECT_EQ(context.get(), contexts.contextFor("other.test").get());
  EXPECT_EQ(context->verificationMode(), Context::VERIFY_NONE);
  EXPECT_EQ(X509_VERIFY_PARAM_get0_host(paramOf(context), 0), nullptr);
}

TEST(TlsContexts, AskNoHandlerOfTheProcess) {
  TlsContexts strict({"", false});
  TlsContexts accepting({"", true});
  for (TlsContexts* contexts : {&strict, &accepting}) {
    SSL_CTX* const context = contexts->contextFor("server.test")->sslContext();
    EXPECT_EQ(SSL_CTX_get_verify_callback(context), nullptr);
  }
}

TEST(TlsContexts, AreFewHoweverManyHostsAreNamed) {
  TlsContexts contexts({"", false});
  const Context::Ptr first = contexts.contextFor("host0.test");
  for (int i = 1; i < 200; ++i) contexts.contextFor("host" + std::to_string(i) + ".test");
  EXPECT_STREQ(X509_VERIFY_PARAM_get0_host(paramOf(first), 0), "host0.test");
  EXPECT_EQ(first->referenceCount(), 1);
}

TEST(TlsContexts, ServeSeveralThreads) {
  TlsContexts contexts({"", false});
  std::vector<const Context*> seen(8);
  std::vector<std::thread> threads;
  for (auto& slot : seen) {
    threads.emplace_back([&] { slot = contexts.contextFor("server.test").get(); });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(std::set<const Context*>(seen.begin(), seen.end()).size(), 1U);
}

TEST(TlsContexts, ReportAHostThatNoCertificateCanName) {
  TlsContexts contexts({"", false});
  EXPECT_THROW(contexts.contextFor(""), Poco::Net::SSLContextException);
  EXPECT_THROW(contexts.contextFor(std::string("a\0b", 3)), Poco::Net::SSLContextException);
}

// The context that every kind of caller gets.
std::vector<Context::Ptr> contextsOfEveryKind(const CertificateFiles& own) {
  std::vector<Context::Ptr> result;
  for (const bool acceptUnrecognized : {false, true}) {
    TlsContexts contexts({"", acceptUnrecognized, own.certificate, own.key, ""});
    result.push_back(contexts.contextFor("server.test"));
    result.push_back(contexts.contextForConfiguredServer("server.test"));
  }
  return result;
}

TEST(TlsContexts, NeverRenegotiate) {
  CertificateAuthority authority;
  for (const Context::Ptr& context : contextsOfEveryKind(authority.issue())) {
    EXPECT_NE(SSL_CTX_get_options(context->sslContext()) & SSL_OP_NO_RENEGOTIATION, 0U);
  }
}

// Without a callback OpenSSL asks on the terminal.
TEST(TlsContexts, NeverAskForAPassphraseOnTheTerminal) {
  CertificateAuthority authority;
  for (const Context::Ptr& context : contextsOfEveryKind(authority.issue())) {
    pem_password_cb* const callback = SSL_CTX_get_default_passwd_cb(context->sslContext());
    ASSERT_NE(callback, nullptr);
    std::array<char, 64> buffer{};
    EXPECT_EQ(callback(buffer.data(), static_cast<int>(buffer.size()), 0,
                       SSL_CTX_get_default_passwd_cb_userdata(context->sslContext())),
              -1);
  }
}

}  // namespace
}  // namespace connectivity::plugins
