#include "plugins/http_client/wire/TlsContexts.hpp"

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <filesystem>
#include <memory>
#include <stdexcept>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <Poco/Crypto/OpenSSLInitializer.h>
#include <Poco/Exception.h>
#include <Poco/Net/IPAddress.h>
#include <Poco/Net/SSLException.h>
#include <openssl/bio.h>
#include <openssl/err.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509_vfy.h>
#include <openssl/x509v3.h>

#include "plugins/http_client/text/Ascii.hpp"
#include "plugins/http_client/text/HostName.hpp"

namespace connectivity::plugins {

namespace {

using Poco::Net::Context;

constexpr int verificationDepth = 9;
constexpr const char* cipherList = "HIGH+TLSv1.2:!COMPLEMENTOFDEFAULT:!PSK:!aNULL:!eNULL";
// Redirects can name any number of hosts; beyond this many the contexts are made anew.
constexpr std::size_t maxContexts = 64;

constexpr const char* certificateOption = "tlsClientCertificateFile";
constexpr const char* keyOption = "tlsClientKeyFile";
constexpr const char* passphraseOption = "tlsClientKeyPassword";

struct FreeOpenSsl {
  void operator()(BIO* bio) const noexcept { BIO_free_all(bio); }
  void operator()(EVP_PKEY* key) const noexcept { EVP_PKEY_free(key); }
};
using Key = std::unique_ptr<EVP_PKEY, FreeOpenSsl>;

[[noreturn]] void fail(const std::string& option, const std::string& what,
                       const std::string& reason) {
  throw std::runtime_error("HTTPClient configuration " + option + ": " + what + ": " + reason);
}

// OpenSSL's words for an error of this thread's queue, which is cleared.
std::string takeReason(unsigned long error = ERR_peek_error()) {
  const char* const reason = ERR_reason_error_string(error);
  std::string text = reason == nullptr ? "unknown error" : reason;
  ERR_clear_error();
  return text;
}

// The system's reason is better than OpenSSL's where a file is not there or may not be read.
void requireFile(const std::string& option, const std::string& file) {
  if (::access(file.c_str(), R_OK) == 0) return;
  fail(option, "cannot use " + file, std::generic_category().message(errno));
}

// Hands a passphrase to OpenSSL. Without a callback it would ask on the terminal.
struct Passphrase {
  const std::string& text;
  bool asked = false;

  static int give(char* buffer, int size, int /*forWriting*/, void* passphrase) {
    if (passphrase == nullptr) return -1;
    auto& self = *static_cast<Passphrase*>(passphrase);
    self.asked = true;
    if (self.text.empty() || self.text.size() > static_cast<std::size_t>(size)) return -1;
    std::copy(self.text.begin(), self.text.end(), buffer);
    return static_cast<int>(self.text.size());
  }
};

// A context whose constructor throws keeps the use of OpenSSL that it has counted; it is given back
// here, or what Poco allocates for the first use would never be freed.
Context::Ptr countedContext(Context::VerificationMode mode, bool loadDefaultCAs) {
  try {
    return new Context(Context::TLSV1_2_CLIENT_USE, "", mode, verificationDepth, loadDefaultCAs,
                       cipherList);
  } catch (const Poco::Exception&) {
    Poco::Crypto::OpenSSLInitializer::uninitialize();
    throw;
  }
}

Context::Ptr newContext(Context::VerificationMode mode, bool loadDefaultCAs) {
  Context::Ptr context = countedContext(mode, loadDefaultCAs);
  SSL_CTX* const native = context->sslContext();
  // OpenSSL's verdict stands: no handler that the process may have installed is asked.
  SSL_CTX_set_verify(native, mode, nullptr);
  SSL_CTX_set_default_passwd_cb(native, &Passphrase::give);
  SSL_CTX_set_options(native, SSL_OP_NO_RENEGOTIATION);
  return context;
}

// A file of authorities, or a folder of them as OpenSSL has it.
void trust(SSL_CTX* context, const TlsSettings& settings) {
  const std::string& caFile = settings.caFile;
  requireFile(settings.caFileOption, caFile);
  std::error_code ignored;
  const bool isFolder = std::filesystem::is_directory(caFile, ignored);
  ERR_clear_error();
  if (SSL_CTX_load_verify_locations(context, isFolder ? nullptr : caFile.c_str(),
                                    isFolder ? caFile.c_str() : nullptr) != 1) {
    fail(settings.caFileOption, "cannot use " + caFile, takeReason());
  }
}

// The handshake fails where the certificate is not for `host`.
void checkHost(SSL_CTX* context, const std::string& host) {
  X509_VERIFY_PARAM* const param = SSL_CTX_get0_param(context);
  Poco::Net::IPAddress address;
  int accepted = 0;
  if (Poco::Net::IPAddress::tryParse(host, address)) {
    accepted = X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str());
  } else {
    X509_VERIFY_PARAM_set_hostflags(param, X509_CHECK_FLAG_NO_PARTIAL_WILDCARDS);
    accepted = X509_VERIFY_PARAM_set1_host(param, host.data(), host.size());
  }
  if (host.empty() || accepted != 1) {
    throw Poco::Net::SSLContextException("Cannot verify certificates for the host", host);
  }
}

Key readKey(const TlsSettings& settings) {
  const std::string& file = settings.clientKeyFile;
  requireFile(keyOption, file);
  Passphrase passphrase{settings.clientKeyPassword};
  ERR_clear_error();
  const std::unique_ptr<BIO, FreeOpenSsl> input(BIO_new_file(file.c_str(), "r"));
  if (!input) fail(keyOption, "cannot use " + file, takeReason());
  Key key(PEM_read_bio_PrivateKey(input.get(), nullptr, &Passphrase::give, &passphrase));
  if (key) return key;
  if (!passphrase.asked) fail(keyOption, "cannot use " + file, takeReason());
  // Where there is no passphrase, only the last error says so.
  fail(passphraseOption, "cannot decrypt " + file,
       takeReason(passphrase.text.empty() ? ERR_peek_last_error() : ERR_peek_error()));
}

// Has the context show the client's certificate to the server that asks for one.
void showCertificate(SSL_CTX* context, const TlsSettings& settings) {
  const std::string& file = settings.clientCertificateFile;
  requireFile(certificateOption, file);
  ERR_clear_error();
  if (SSL_CTX_use_certificate_chain_file(context, file.c_str()) != 1) {
    fail(certificateOption, "cannot use " + file, takeReason());
  }
  const Key key = readKey(settings);
  if (X509_check_private_key(SSL_CTX_get0_certificate(context), key.get()) != 1) {
    fail(keyOption, settings.clientKeyFile + " does not fit " + file,
         takeReason(ERR_peek_last_error()));
  }
  if (SSL_CTX_use_PrivateKey(context, key.get()) != 1) {
    fail(keyOption, "cannot use " + settings.clientKeyFile, takeReason());
  }
}

Context::Ptr newBase(const TlsSettings& settings) {
  const auto mode = settings.acceptUnrecognized ? Context::VERIFY_NONE : Context::VERIFY_STRICT;
  Context::Ptr context = newContext(mode, true);
  if (!settings.caFile.empty()) trust(context->sslContext(), settings);
  return context;
}

// As contexts are kept by: certificates name hosts without the root's dot.
std::string keptName(const std::string& host) { return lowerCased(verifiedName(host)); }

}  // namespace

TlsContexts::TlsContexts(TlsSettings settings) : _settings(std::move(settings)) {}

const Context::Ptr& TlsContexts::base() {
  if (_base.isNull()) _base = newBase(_settings);
  return _base;
}

// One that believes the base's authorities and checks this name, or accepts every certificate.
Context::Ptr TlsContexts::newContextFor(const std::string& name) {
  X509_STORE* const authorities = SSL_CTX_get_cert_store(base()->sslContext());
  if (_settings.acceptUnrecognized) return newContext(Context::VERIFY_NONE, false);
  Context::Ptr context = newContext(Context::VERIFY_STRICT, false);
  SSL_CTX_set1_cert_store(context->sslContext(), authorities);
  checkHost(context->sslContext(), name);
  return context;
}

Context::Ptr TlsContexts::newCertifiedContext(const std::string& name) {
  Context::Ptr context = newContextFor(name);
  showCertificate(context->sslContext(), _settings);
  return context;
}

Context::Ptr TlsContexts::contextFor(const std::string& host) {
  std::string name = keptName(host);
  const orrery::AutoMutex lock(_mutex);
  if (_settings.acceptUnrecognized) return base();
  const auto known = _contexts.find(name);
  if (known != _contexts.end()) return known->second;
  Context::Ptr context = newContextFor(name);
  if (_contexts.size() >= maxContexts) _contexts.clear();
  _contexts.emplace(std::move(name), context);
  return context;
}

Context::Ptr TlsContexts::contextForConfiguredServer(const std::string& host) {
  if (_settings.clientCertificateFile.empty()) return contextFor(host);
  std::string name = keptName(host);
  const orrery::AutoMutex lock(_mutex);
  if (_certified.isNull() || _certifiedName != name) {
    _certified = newCertifiedContext(name);
    _certifiedName = std::move(name);
  }
  return _certified;
}

}  // namespace connectivity::plugins
